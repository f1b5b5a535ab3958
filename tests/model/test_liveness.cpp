// SPDX-License-Identifier: Apache-2.0
// Who arrives: in one group everybody, whatever lay where before; with several groups nearly everybody. docs/limits.md
// tells producers what to make of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>

#include "testing/rewrite.h"
#include "testing/shrink.h"

namespace Testing {
namespace {

std::vector<U32> firstOrder(std::size_t members) {
  std::vector<U32> order(members);
  std::iota(order.begin(), order.end(), 0);
  return order;
}

// Runs the steps from an empty world; whether all arrive at `target` in the end.
bool arrives(Differ& differ, std::vector<Step> const& steps, Placement const& target) {
  differ.empty();
  for (Step const& step : steps) differ.run(step);
  return arrived(differ.model(), target);
}

std::string shown(std::vector<Step> const& steps, std::string const& name) {
  return "vantrel replay " + keep({EngineChoice{}, steps}, name);
}

std::vector<Step> joined(std::vector<Step> first, std::vector<Step> const& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// Every earlier state that `before` puts can lead to, every consistent target, every order of writing it.
U64 everyoneArrives(std::vector<Member> const& members, U32 positions, U32 before) {
  Differ differ({});
  U64 runs = 0;
  U64 histories = 1;
  U64 const choices = members.size() * positions;
  for (U32 i = 0; i < before; ++i) histories *= choices;
  std::vector<Placement> const targets = placements(members, positions);
  for (U64 history = 0; history < histories; ++history) {
    std::vector<Step> earlier;
    U64 newest = 0;
    U64 digits = history;
    for (U32 i = 0; i < before; ++i, digits /= choices) {
      U32 const key = static_cast<U32>(digits % choices / positions);
      U32 const ti = static_cast<U32>(digits % choices % positions);
      earlier.push_back(put(record(key + 1, newest += 0x10000, key + 1, 0, members[key].prio, ti)));
    }
    for (Placement const& target : targets) {
      std::vector<U32> order = firstOrder(members.size());
      do {
        U64 opId = newest;
        std::vector<Step> const steps = joined(earlier, writes(members, target, order, opId));
        ++runs;
        if (!arrives(differ, steps, target)) {
          ADD_FAILURE() << shown(steps, "liveness");
          return runs;
        }
      } while (std::next_permutation(order.begin(), order.end()));
    }
  }
  return runs;
}

TEST(Liveness, inOneGroupEveryKeyArrivesFromAnyEarlierState) {
  U64 runs = 0;
  for (std::vector<U32> const& prios : {std::vector<U32>{0, 0, 0}, {0, 0, 1}, {0, 1, 1}, {0, 1, 2}}) {
    std::vector<Member> members;
    for (U32 prio : prios) members.push_back({0, prio});
    runs += everyoneArrives(members, 3, 4);
    runs += everyoneArrives(members, 4, 3);
  }
  std::printf("%llu rewrites of three keys\n", static_cast<unsigned long long>(runs));
}

// All placements of four keys on four positions to all others, in every order: no position is free.
TEST(Liveness, inOneGroupEveryKeyArrivesWhenNoPositionIsFree) {
  Differ differ({});
  U64 runs = 0;
  for (std::vector<U32> const& prios : {std::vector<U32>{0, 0, 0, 0}, {0, 0, 0, 1}, {0, 0, 1, 1}}) {
    std::vector<Member> members;
    for (U32 prio : prios) members.push_back({0, prio});
    for (Placement const& start : placements(members, 4))
      for (Placement const& target : placements(members, 4)) {
        std::vector<U32> order = firstOrder(4);
        do {
          U64 newest = 0;
          std::vector<Step> const first = writes(members, start, firstOrder(4), newest);
          std::vector<Step> const steps = joined(first, writes(members, target, order, newest));
          ++runs;
          ASSERT_TRUE(arrives(differ, steps, target)) << shown(steps, "liveness-full");
        } while (std::next_permutation(order.begin(), order.end()));
      }
  }
  std::printf("%llu rewrites of four keys on four positions\n", static_cast<unsigned long long>(runs));
}

TEST(Liveness, inOneGroupEveryKeyArrivesInLargeRandomRewrites) {
  std::mt19937_64 random(1);
  Differ differ({});
  for (int run = 0; run < 6000; ++run) {
    U32 const keys = 2 + static_cast<U32>(random() % 11);
    U32 const positions = keys + static_cast<U32>(random() % 3);
    std::vector<Member> members;
    for (U32 i = 0; i < keys; ++i) members.push_back({0, static_cast<U32>(random() % 4)});
    U64 newest = 0;
    std::vector<Step> steps;
    for (U32 i = 0; i < 3 * keys; ++i) {
      U32 const key = static_cast<U32>(random() % keys);
      U32 const ti = static_cast<U32>(random() % positions);
      steps.push_back(put(record(key + 1, newest += 0x10000, key + 1, 0, members[key].prio, ti)));
      if (random() % 8 == 0) steps.back() = remove(key + 1);
    }
    Placement const target = randomPlacement(members, positions, random);
    std::vector<U32> order = firstOrder(keys);
    std::shuffle(order.begin(), order.end(), random);
    steps = joined(steps, writes(members, target, order, newest));
    ASSERT_TRUE(arrives(differ, steps, target)) << "run " << run << "; " << shown(steps, "liveness-random");
  }
}

// How many of `runs` random rewrites from one consistent placement to another leave somebody behind.
U32 leftBehind(U32 keys, U32 positions, U32 groups, U32 runs) {
  std::mt19937_64 random(groups);
  Differ differ({});
  U32 count = 0;
  for (U32 run = 0; run < runs; ++run) {
    std::vector<Member> members;
    for (U32 i = 0; i < keys; ++i)
      members.push_back({static_cast<U16>(random() % groups), static_cast<U32>(random() % keys)});
    U64 newest = 0;
    Placement const start = randomPlacement(members, positions, random);
    Placement const target = randomPlacement(members, positions, random);
    std::vector<U32> order = firstOrder(keys);
    std::shuffle(order.begin(), order.end(), random);
    std::vector<Step> const first = writes(members, start, firstOrder(keys), newest);
    if (!arrives(differ, joined(first, writes(members, target, order, newest)), target)) ++count;
  }
  return count;
}

TEST(Liveness, withSeveralGroupsAFewRewritesLeaveARingUnbroken) {
  constexpr U32 runs = 10000;
  for (U32 groups : {1U, 2U, 3U})
    for (U32 positions : {10U, 12U}) {
      U32 const left = leftBehind(10, positions, groups, runs);
      std::printf("ten keys, %u groups, %u positions: %u of %u rewrites leave somebody behind\n", groups,
                  positions, left, runs);
      if (groups == 1) EXPECT_EQ(left, 0U);
      if (groups > 1) EXPECT_GT(left, 0U);
      EXPECT_LT(left, runs / 10);
    }
}

// What the search below finds first, in the order of size.
struct Stuck {
  std::vector<Member> members;
  std::vector<Step> steps;
  Placement target;
};

bool findStuck(std::vector<Member> const& members, U32 positions, Stuck& found) {
  Differ differ({});
  for (Placement const& start : placements(members, positions))
    for (Placement const& target : placements(members, positions)) {
      std::vector<U32> order = firstOrder(members.size());
      do {
        U64 newest = 0;
        std::vector<Step> const first = writes(members, start, firstOrder(members.size()), newest);
        std::vector<Step> const steps = joined(first, writes(members, target, order, newest));
        if (arrives(differ, steps, target)) continue;
        found = {members, steps, target};
        return true;
      } while (std::next_permutation(order.begin(), order.end()));
    }
  return false;
}

// Members of up to two groups with the given number of keys: each key's group and priority.
std::vector<std::vector<Member>> casts(U32 keys) {
  std::vector<std::vector<Member>> all;
  U32 const kinds = 2 * keys;
  U64 count = 1;
  for (U32 i = 0; i < keys; ++i) count *= kinds;
  for (U64 n = 0; n < count; ++n) {
    std::vector<Member> members;
    U64 digits = n;
    for (U32 i = 0; i < keys; ++i, digits /= kinds)
      members.push_back({static_cast<U16>(digits % kinds / keys), static_cast<U32>(digits % kinds % keys)});
    bool const canonical = std::is_sorted(
        members.begin(), members.end(),
        [](Member const& a, Member const& b) { return a.pg != b.pg ? a.pg < b.pg : a.prio < b.prio; });
    if (canonical) all.push_back(members);
  }
  return all;
}

TEST(Liveness, noRewriteOfTwoKeysIsLeftUnfinishedInAnyGroups) {
  Stuck found;
  for (U32 positions : {2U, 3U, 4U})
    for (std::vector<Member> const& members : casts(2)) EXPECT_FALSE(findStuck(members, positions, found));
}

TEST(Liveness, theSmallestUnfinishedRewrite) {
  Stuck found;
  for (U32 keys : {3U, 4U})
    for (U32 positions = keys; positions <= 5; ++positions)
      for (std::vector<Member> const& members : casts(keys)) {
        if (!findStuck(members, positions, found)) continue;
        std::printf("%u keys, %u positions: %s\n", keys, positions, shown(found.steps, "stuck").c_str());
        return;
      }
  FAIL();
}

}  // namespace
}  // namespace Testing
