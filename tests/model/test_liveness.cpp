// SPDX-License-Identifier: Apache-2.0
// Which entries arrive: in one group all, from any placement; with several groups nearly all. docs/limits.md
// says what a producer does about it. test_mixed_rings has the same with breakMixedRings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "testing/rewrite.h"
#include "testing/shrink.h"
#include "tests/model/scale.h"

namespace Testing {
namespace {

std::string shown(std::vector<Step> const& steps, std::string const& name) {
  return "vantrel replay " + keep({EngineChoice{}, steps}, name);
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
    runs += everyoneArrives(members, 3, slow ? 2 : 4);
    runs += everyoneArrives(members, 4, slow ? 1 : 3);
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

TEST(Liveness, inOneGroupEveryKeyArrivesInRandomRewrites) {
  std::mt19937_64 random(1);
  Differ differ({});
  for (int run = 0; run < (slow ? 600 : 6000); ++run) {
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

// Following who waits for whom from `key`, over occupants and over those that block by priority: whether
// that ends in a ring that one priority-blocked member at least belongs to.
bool waitsForRingThroughPriority(Model const& model, U64 key) {
  std::vector<ModelRecord const*> path;
  while (true) {
    auto const& records = model.records();
    auto const r =
        std::find_if(records.begin(), records.end(), [&](ModelRecord const& x) { return x.key == key; });
    if (r == records.end() || r->why == Wait::None) return false;
    auto const seen = std::find(path.begin(), path.end(), &*r);
    if (seen != path.end())
      return std::any_of(seen, path.end(), [](auto const* x) { return x->why == Wait::Priority; });
    path.push_back(&*r);
    ModelRecord const* const next =
        r->why == Wait::Occupied ? model.occupant(r->waitsFor) : model.outOfOrderWith(*r, r->waitsFor);
    if (!next) return false;
    key = next->key;
  }
}

struct Rewrites {
  U32 groups;
  U32 priorities;
  U32 positions;
  bool apart;  // each group has a range of positions of its own
};

Placement placeApart(std::vector<Member> const& members, Rewrites const& r, std::mt19937_64& random) {
  Placement placement(members.size());
  for (U16 group = 0; group < r.groups; ++group) {
    std::vector<Member> own;
    for (Member const& m : members)
      if (m.pg == group) own.push_back(m);
    Placement const places = randomPlacement(own, r.positions, random);
    std::size_t next = 0;
    for (std::size_t i = 0; i < members.size(); ++i)
      if (members[i].pg == group) placement[i] = group * r.positions + places[next++];
  }
  return placement;
}

// How many of `runs` random rewrites of ten keys, from one consistent placement to another, leave somebody
// behind.
U32 leftBehind(Rewrites const& r, U32 runs) {
  constexpr U32 keys = 10;
  std::mt19937_64 random(r.groups);
  Differ differ({});
  U32 count = 0;
  for (U32 run = 0; run < runs; ++run) {
    std::vector<Member> members;
    for (U32 i = 0; i < keys; ++i)
      members.push_back({static_cast<U16>(random() % r.groups), static_cast<U32>(random() % r.priorities)});
    auto const place = [&] {
      return r.apart ? placeApart(members, r, random) : randomPlacement(members, r.positions, random);
    };
    Placement const start = place();
    Placement const target = place();
    std::vector<U32> order = firstOrder(keys);
    std::shuffle(order.begin(), order.end(), random);
    U64 newest = 0;
    std::vector<Step> const first = writes(members, start, firstOrder(keys), newest);
    if (arrives(differ, joined(first, writes(members, target, order, newest)), target)) continue;
    ++count;
    for (ModelRecord const& x : differ.model().records()) {
      bool const explained = x.at == target[x.key - 1] || waitsForRingThroughPriority(differ.model(), x.key);
      EXPECT_TRUE(explained) << "run " << run << ", key " << x.key;
    }
  }
  std::printf(
      "ten keys, %u groups%s, %2u priorities, %2u positions: %4u of %u rewrites leave somebody behind\n",
      r.groups, r.apart ? " apart" : "", r.priorities, r.positions, count, runs);
  return count;
}

TEST(Liveness, severalGroupsLeaveAPriorityBlockedRing) {
  constexpr U32 runs = slow ? 500 : 5000;
  for (U32 groups : {2U, 3U})
    for (U32 priorities : {2U, 10U})
      for (U32 positions : {10U, 20U, 40U})
        EXPECT_GT(leftBehind({groups, priorities, positions, false}, runs), 0U);
}

TEST(Liveness, oneGroupOnePriorityOrGroupsApartLeaveNobody) {
  constexpr U32 runs = slow ? 500 : 5000;
  EXPECT_EQ(leftBehind({1, 10, 10, false}, runs), 0U);
  EXPECT_EQ(leftBehind({3, 1, 10, false}, runs), 0U);
  EXPECT_EQ(leftBehind({3, 10, 10, true}, runs), 0U);
}

// Three keys, four positions:   0: key 1   1: key 2   2: free   3: key 3 (of the other group)
// Key 1 (priority 0) is to go to 2, behind key 2 (priority 1), which is to go to 3, where key 3 is, which
// is to go to 0, where key 1 is. Key 1 waits for the order and not for an occupant, so nobody sees the ring.
std::vector<Step> smallestUnfinished() {
  std::vector<Member> const members = {{0, 0}, {0, 1}, {1, 0}};
  U64 newest = 0;
  std::vector<Step> const first = writes(members, {0, 1, 3}, {0, 1, 2}, newest);
  return joined(first, writes(members, {2, 3, 0}, {0, 1, 2}, newest));
}

TEST(Liveness, smallestPriorityBlockedRingIsNotBroken) {
  Differ differ({});
  EXPECT_FALSE(arrives(differ, smallestUnfinished(), {2, 3, 0}));
  EXPECT_TRUE(arrived(differ.model(), {0, 1, 3}));
  EXPECT_EQ(differ.model().counters().numDeadlock, 0U);
  EXPECT_EQ(differ.model().counters().numPending, 3U);
  for (U64 key : {1U, 2U, 3U}) EXPECT_TRUE(waitsForRingThroughPriority(differ.model(), key));
}

TEST(Liveness, takingAMemberOutAndBackLetsTheOthersThrough) {
  for (U32 out : {1U, 2U, 3U}) {
    Differ differ({});
    EXPECT_FALSE(arrives(differ, smallestUnfinished(), {2, 3, 0}));
    Vantrel::EntryConfig const wanted = differ.model().table().at(out);
    differ.run(remove(out));
    differ.run(put(wanted));
    EXPECT_TRUE(arrived(differ.model(), {2, 3, 0})) << "key " << out;
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

TEST(Liveness, noRewriteOfTwoKeysIsLeftUnfinishedInAnyGroups) {
  Stuck found;
  for (U32 positions : {2U, 3U, 4U})
    for (std::vector<Member> const& members : casts(2)) EXPECT_FALSE(findStuck(members, positions, found));
}

TEST(Liveness, searchFindsNothingBelowThreeKeysFourPositions) {
  Stuck found;
  for (std::vector<Member> const& members : casts(3)) EXPECT_FALSE(findStuck(members, 3, found));
  bool any = false;
  for (std::vector<Member> const& members : casts(3)) any = any || findStuck(members, 4, found);
  EXPECT_TRUE(any);
}

}  // namespace
}  // namespace Testing
