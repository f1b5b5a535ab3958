// SPDX-License-Identifier: Apache-2.0
// With breakMixedRings every consistent target is reached, and no more victims are taken than rings need.
// VANTREL_REWRITES is the number of random rewrites for each number of groups, VANTREL_CASTS=1 tries every
// cast of four keys, and longer earlier histories of three.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <string>

#include "testing/rewrite.h"
#include "testing/shrink.h"
#include "tests/model/scale.h"

namespace Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Step switchOn() { return set("breakMixedRings", true, "engine"); }

class Mixed : public ::testing::Test {
 protected:
  Mixed() { differ.run(switchOn()); }

  std::string shown(std::vector<Step> const& steps) {
    return "vantrel replay " + keep({EngineChoice{}, joined({switchOn()}, steps)}, "mixed-rings");
  }
  U32 mixedRings() const { return differ.model().counters().numMixedRings; }
  U32 ringsOfAnyKind() const { return mixedRings() + differ.model().counters().numDeadlock; }
  U32 waiting() const { return differ.model().counters().numPending; }
  U32 placeOf(U64 key) const {
    for (ModelRecord const& r : differ.model().records())
      if (r.key == key) return r.at;
    return nowhere;
  }
  void runAll(std::vector<Step> const& steps) {
    for (Step const& step : steps) run(step);
  }
  void run(Step const& step) {
    differ.run(step);
    for (Event const& event : differ.events())
      if (event.kind == EventKind::DeleteDeadlock) victims.push_back(event.entry.key().value());
  }

  Differ differ{{}};
  std::vector<U64> victims;
};

// Three keys, four positions:   0: key 1   1: key 2   2: free   3: key 3 (of the other group)
// Key 1 is to go to 2, behind key 2 of higher priority, key 2 to 3, key 3 to 0.
std::vector<Member> const three = {{0, 0}, {0, 1}, {1, 0}};
constexpr U64 version(U64 n) { return n << 16; }

std::vector<Step> smallestRing() {
  U64 newest = 0;
  std::vector<Step> const first = writes(three, {0, 1, 3}, {0, 1, 2}, newest);
  return joined(first, writes(three, {2, 3, 0}, {0, 1, 2}, newest));
}

TEST_F(Mixed, BreaksTheSmallestRingAtTheLowestPrecedence) {
  runAll(smallestRing());
  EXPECT_TRUE(arrived(differ.model(), {2, 3, 0}));
  EXPECT_THAT(victims, ElementsAre(3));
  EXPECT_EQ(mixedRings(), 1U);
  EXPECT_EQ(waiting(), 0U);
}

TEST_F(Mixed, PrefersAVictimThatIsToBeRewritten) {
  std::vector<Step> steps = smallestRing();
  steps[3].entry = record(1, version(4) + 1, 1, 0, 0, 2);
  runAll(steps);
  EXPECT_TRUE(arrived(differ.model(), {2, 3, 0}));
  EXPECT_THAT(victims, ElementsAre(1));
}

TEST_F(Mixed, BreaksNothingWhileAMemberIsToGoElsewhere) {
  std::vector<Step> steps = smallestRing();
  steps.insert(steps.end() - 1, put(record(2, version(7), 2, 0, 1, 9), true));  // not notified yet
  runAll(steps);
  EXPECT_THAT(victims, IsEmpty());
  run(notify(2));
  EXPECT_TRUE(arrived(differ.model(), {2, 9, 0}));
  EXPECT_THAT(victims, IsEmpty());
}

TEST_F(Mixed, BreaksARingOnceNoMemberGoesElsewhere) {
  std::vector<Step> steps = smallestRing();
  steps.insert(steps.end() - 1, put(record(2, version(7), 2, 0, 1, 9), true));
  runAll(steps);
  run(put(record(2, version(8), 2, 0, 1, 3), true));
  EXPECT_THAT(victims, IsEmpty());
  run(notify(9));
  EXPECT_THAT(victims, ElementsAre(3));
  EXPECT_TRUE(arrived(differ.model(), {2, 3, 0}));
}

// Keys 1 and 2 of one group are to change sides, which their priorities forbid.
TEST_F(Mixed, LeavesARingThatContradictsItself) {
  runAll({put(record(1, version(1), 1, 0, 0, 0)), put(record(2, version(2), 2, 0, 1, 1)),
          put(record(1, version(3), 1, 0, 0, 2)), put(record(2, version(4), 2, 0, 1, 0))});
  EXPECT_THAT(victims, IsEmpty());
  EXPECT_EQ(waiting(), 2U);
  run(put(record(2, version(5), 2, 0, 1, 3)));
  EXPECT_TRUE(arrived(differ.model(), {2, 3}));
}

// Key 4 lies between keys 1 and 2. It goes, and now key 1 waits for key 2, which waits for key 3 as before.
TEST_F(Mixed, FindsARingThatALeavingEntryCloses) {
  runAll({put(record(1, version(1), 1, 0, 0, 0)), put(record(2, version(2), 2, 0, 1, 1)),
          put(record(4, version(3), 4, 0, 1, 2)), put(record(3, version(4), 3, 1, 0, 4)),
          put(record(1, version(5), 1, 0, 0, 3)), put(record(2, version(6), 2, 0, 1, 4)),
          put(record(3, version(7), 3, 1, 0, 0))});
  EXPECT_THAT(victims, IsEmpty());
  run(put(record(4, version(8), 4, 0, 1, 9)));
  EXPECT_THAT(victims, ElementsAre(3));
  EXPECT_TRUE(arrived(differ.model(), {3, 4, 0, 9}));
}

TEST(MixedRings, SwitchingOnFindsARingThatStands) {
  Differ differ({});
  for (Step const& step : smallestRing()) differ.run(step);
  EXPECT_TRUE(arrived(differ.model(), {0, 1, 3}));
  differ.run(switchOn());
  EXPECT_TRUE(arrived(differ.model(), {0, 1, 3})) << "nothing is done before the next key";
  differ.run(put(record(9, version(9), 9, 1, 0, 9)));
  differ.run(remove(9));
  EXPECT_TRUE(arrived(differ.model(), {2, 3, 0}));
  EXPECT_EQ(differ.model().counters().numMixedRings, 1U);
}

TEST(MixedRings, SwitchingOffLeavesRingsAgain) {
  Differ differ({});
  differ.run(switchOn());
  differ.run(set("breakMixedRings", false, "engine"));
  for (Step const& step : smallestRing()) differ.run(step);
  EXPECT_EQ(differ.model().counters().numPending, 3U);
  EXPECT_EQ(differ.model().counters().numMixedRings, 0U);
}

// Every earlier state that `before` puts of any member anywhere can lead to, every consistent target, every
// order of writing it.
class EveryTarget : public Mixed {
 protected:
  void everyoneArrives(std::vector<Member> const& members, U32 positions, U32 before) {
    std::vector<Placement> const targets = placements(members, positions);
    std::vector<Step> earlier;
    extend(members, positions, before, targets, earlier);
  }
  void extend(std::vector<Member> const& members, U32 positions, U32 before,
              std::vector<Placement> const& targets, std::vector<Step>& earlier) {
    if (before == 0) return writeTargets(members, targets, earlier);
    for (U32 i = 0; i < members.size(); ++i)
      for (U32 ti = 0; ti < positions; ++ti) {
        earlier.push_back(
            put(record(i + 1, version(earlier.size() + 1), i + 1, members[i].pg, members[i].prio, ti)));
        extend(members, positions, before - 1, targets, earlier);
        earlier.pop_back();
      }
  }
  void writeTargets(std::vector<Member> const& members, std::vector<Placement> const& targets,
                    std::vector<Step> const& earlier) {
    for (Placement const& target : targets) {
      std::vector<U32> order = firstOrder(members.size());
      do {
        U64 newest = version(earlier.size());
        std::vector<Step> const steps = joined(earlier, writes(members, target, order, newest));
        ++runs;
        ASSERT_TRUE(arrives(differ, steps, target)) << shown(steps);
      } while (std::next_permutation(order.begin(), order.end()));
    }
  }
  void say(char const* what) {
    std::printf("%s: %llu rewrites, %u rings of occupants, %u others\n", what,
                static_cast<unsigned long long>(runs), differ.model().counters().numDeadlock, mixedRings());
  }
  U64 runs = 0;
};

TEST_F(EveryTarget, IsReachedByThreeKeysFromAnyEarlierState) {
  bool const all = environment("VANTREL_CASTS", 0) != 0;
  for (std::vector<Member> const& members : casts(3)) {
    everyoneArrives(members, 3, slow ? 1 : 2);
    everyoneArrives(members, 4, slow ? 0 : all ? 3 : 1);
    if (HasFatalFailure()) return;
  }
  say("three keys, from any earlier state");
}

// From every placement to every other one.
TEST_F(EveryTarget, IsReachedByThreeKeysOnFourPositions) {
  for (std::vector<Member> const& members : casts(3))
    for (Placement const& start : placements(members, 4)) {
      U64 newest = 0;
      writeTargets(members, placements(members, 4), writes(members, start, firstOrder(3), newest));
      if (HasFatalFailure()) return;
    }
  say("three keys on four positions");
  EXPECT_GT(mixedRings(), 0U);
}

TEST_F(EveryTarget, IsReachedByFourKeysOnFullTables) {
  std::vector<std::vector<Member>> const all = casts(4);
  std::size_t const stride = environment("VANTREL_CASTS", 0) ? 1 : slow ? 100 : 20;
  for (std::size_t i = 0; i < all.size(); i += stride)
    for (Placement const& start : placements(all[i], 4)) {
      U64 newest = 0;
      writeTargets(all[i], placements(all[i], 4), writes(all[i], start, firstOrder(4), newest));
      if (HasFatalFailure()) return;
    }
  say("four keys on four positions");
}

// Groups are mixed over the same positions, of which nine tenths at least are taken.
class RandomRewrites : public Mixed {
 protected:
  struct Rewrite {
    std::vector<Member> members;
    Placement start;
    Placement target;
    std::vector<U32> order;
  };
  Rewrite draw(U32 groups, U32 keys, U32 positions) {
    Rewrite r;
    U32 const priorities = 1 + static_cast<U32>(random() % keys);
    for (U32 i = 0; i < keys; ++i)
      r.members.push_back({static_cast<U16>(random() % groups), static_cast<U32>(random() % priorities)});
    r.start = randomPlacement(r.members, positions, random);
    r.target = randomPlacement(r.members, positions, random);
    r.order = firstOrder(keys);
    std::shuffle(r.order.begin(), r.order.end(), random);
    return r;
  }
  std::vector<Step> stepsOf(Rewrite const& r) {
    U64 newest = 0;
    std::vector<Step> const first = writes(r.members, r.start, firstOrder(r.members.size()), newest);
    return joined(first, writes(r.members, r.target, r.order, newest));
  }
  std::mt19937_64 random{environment("VANTREL_SEED", 1)};
};

TEST_F(RandomRewrites, LeaveNobodyInOneToFourGroups) {
  U64 const runs = environment("VANTREL_REWRITES", slow ? 100 : 1000);
  for (U32 groups : {1U, 2U, 3U, 4U}) {
    U32 const mixedBefore = mixedRings();
    for (U64 run = 0; run < runs; ++run) {
      U32 const keys = 9 + static_cast<U32>(random() % 8);
      Rewrite const r = draw(groups, keys, keys + static_cast<U32>(random() % 2));
      std::vector<Step> const steps = stepsOf(r);
      ASSERT_TRUE(arrives(differ, steps, r.target)) << "run " << run << "; " << shown(steps);
      ASSERT_EQ(waiting(), 0U);
    }
    U32 const mixed = mixedRings() - mixedBefore;
    std::printf(
        "9 to 16 keys, %u groups, at most one position free: %llu rewrites, all arrive, %u mixed rings\n",
        groups, static_cast<unsigned long long>(runs), mixed);
    EXPECT_EQ(mixed == 0, groups == 1) << "one group needs no victim but for rings of occupants";
  }
}

// The fewest entries that have to be taken out and put back, by search over what each member may be: at its
// old place, out, or at its new place.
class FewestVictims {
 public:
  FewestVictims(std::vector<Member> const& members, Placement const& start, Placement const& target)
      : members_(members), start_(start), target_(target) {}

  U32 find() {
    std::vector<U8> const first(members_.size(), atStart);
    std::map<std::vector<U8>, U32> cost{{first, 0}};
    std::deque<std::vector<U8>> queue{first};  // by rising cost
    for (;;) {
      std::vector<U8> const state = queue.front();
      queue.pop_front();
      if (std::count(state.begin(), state.end(), atTarget) == std::ssize(state)) return cost[state];
      for (std::size_t i = 0; i < state.size(); ++i) {
        if (state[i] == atTarget) continue;
        try_(state, i, atTarget, 0, cost, queue);
        if (state[i] == atStart) try_(state, i, out, 1, cost, queue);
      }
    }
  }

 private:
  static constexpr U8 atStart = 0;
  static constexpr U8 out = 1;
  static constexpr U8 atTarget = 2;

  void try_(std::vector<U8> state, std::size_t i, U8 to, U32 price, std::map<std::vector<U8>, U32>& cost,
            std::deque<std::vector<U8>>& queue) {
    U32 const whole = cost[state] + price;
    state[i] = to;
    if (!legal(state)) return;
    auto const [at, isNew] = cost.try_emplace(state, whole);
    if (!isNew && at->second <= whole) return;
    at->second = whole;
    if (price == 0)
      queue.push_front(state);
    else
      queue.push_back(state);
  }
  U32 place(std::vector<U8> const& state, std::size_t i) const {
    return state[i] == out ? nowhere : state[i] == atStart ? start_[i] : target_[i];
  }
  bool legal(std::vector<U8> const& state) const {
    for (std::size_t a = 0; a < state.size(); ++a)
      for (std::size_t b = 0; b < state.size(); ++b) {
        U32 const pa = place(state, a);
        U32 const pb = place(state, b);
        if (a == b || pa == nowhere || pb == nowhere) continue;
        if (pa == pb) return false;
        if (members_[a].pg == members_[b].pg && pa < pb && members_[a].prio > members_[b].prio) return false;
      }
    return true;
  }
  std::vector<Member> const& members_;
  Placement const& start_;
  Placement const& target_;
};

TEST_F(RandomRewrites, TakeFewVictimsBesideTheFewestPossible) {
  U64 taken = 0;
  U64 fewest = 0;
  U64 more = 0;
  U64 const runs = slow ? 200 : 5000;
  for (U64 run = 0; run < runs; ++run) {
    U32 const keys = 4 + static_cast<U32>(random() % 3);
    Rewrite const r = draw(2 + static_cast<U32>(random() % 2), keys, keys + static_cast<U32>(random() % 2));
    std::vector<Step> const steps = stepsOf(r);
    U32 const before = ringsOfAnyKind();
    ASSERT_TRUE(arrives(differ, steps, r.target)) << shown(steps);
    U32 const here = ringsOfAnyKind() - before;
    U32 const least = FewestVictims(r.members, r.start, r.target).find();
    ASSERT_GE(here, least) << shown(steps);
    taken += here;
    fewest += least;
    if (here > least) ++more;
  }
  std::printf("four to six keys: %llu rewrites, %llu victims, %llu at least, more than needed in %llu\n",
              static_cast<unsigned long long>(runs), static_cast<unsigned long long>(taken),
              static_cast<unsigned long long>(fewest), static_cast<unsigned long long>(more));
  EXPECT_GT(fewest, 0U);
  EXPECT_LE(taken * 10, fewest * 12);
}

}  // namespace
}  // namespace Testing
