// SPDX-License-Identifier: Apache-2.0
// A dependant table that fails during a drain: the front end retries the key that it handed over, and no
// other. Each case runs on engine and model.
#include <gmock/gmock.h>

#include "testing/differ.h"

namespace Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr U64 version(U64 n) { return n << 16; }

U32 placeOf(Differ const& differ, U64 key) {
  for (ModelRecord const& r : differ.model().records())
    if (r.key == key) return r.at;
  return nowhere;
}

// Key 2 waits for the position of key 1, and its dependants fail from now on.
void waitAndFail(Differ& differ) {
  differ.run(put(record(1, version(1), 1, 0, 0, 0)));
  differ.run(put(record(2, version(2), 2, 0, 0, 0)));
  differ.run(fail(2, -1));
}

TEST(LostWakeUps, failureInTheDrainForgetsTheDrainedKey) {
  Differ differ({});
  waitAndFail(differ);
  differ.run(put(record(1, version(3), 1, 0, 0, 5)));
  EXPECT_EQ(placeOf(differ, 1), 5U);
  EXPECT_THAT(differ.model().failed(), ElementsAre(1));
  differ.run(fail(2, 0));
  differ.run(advance(10.0));
  EXPECT_THAT(differ.model().failed(), IsEmpty());
  EXPECT_EQ(placeOf(differ, 2), nowhere);
  EXPECT_EQ(differ.idleClaim(), 2U);
}

TEST(LostWakeUps, drainedKeyComesBackWhenNotifiedAgain) {
  Differ differ({});
  waitAndFail(differ);
  differ.run(put(record(1, version(3), 1, 0, 0, 5)));
  differ.run(fail(2, 0));
  differ.run(notify(2));
  EXPECT_EQ(placeOf(differ, 2), 0U);
  EXPECT_EQ(differ.idleClaim(), std::nullopt);
}

TEST(LostWakeUps, keysQueuedBehindTheFailedOneRunInTheNextDrain) {
  Differ differ({});
  waitAndFail(differ);
  differ.run(put(record(3, version(3), 3, 0, 1, 8)));
  differ.run(put(record(4, version(4), 4, 0, 0, 9)));  // behind key 3, out of order
  differ.run(put(record(5, version(5), 5, 0, 0, 3)));
  differ.run(remove(1));
  EXPECT_THAT(differ.model().failed(), ElementsAre(1));
  differ.run(remove(3));
  EXPECT_EQ(placeOf(differ, 4), 9U);
}

// The drain stops at key 4, so key 2 stays in the blocked set, where the next check finds it in a ring with
// key 1.
TEST(LostWakeUps, victimWithFailingDependantsIsNotRetried) {
  Differ differ({});
  differ.run(put(record(1, version(1), 1, 0, 0, 0)));
  differ.run(put(record(2, version(2), 2, 0, 0, 1)));
  differ.run(put(record(3, version(3), 3, 0, 1, 2)));
  differ.run(put(record(4, version(4), 4, 0, 0, 5)));        // behind key 3, out of order
  differ.run(put(record(2, version(5), 2, 0, 0, 2)));        // where key 3 is
  differ.run(put(record(1, version(6), 1, 0, 0, 1)));        // where key 2 is
  differ.run(put(record(2, version(7), 2, 0, 0, 0), true));  // where key 1 is
  differ.run(fail(4, -1));
  differ.run(
      put(record(3, version(8), 3, 0, 1, 9)));  // wakes key 2, which waits again, then key 4, which fails
  EXPECT_THAT(differ.model().blocked(), ElementsAre(2));
  differ.run(fail(4, 0));
  differ.run(fail(2, -1));
  differ.run(put(record(5, version(9), 5, 0, 1, 20)));
  ASSERT_EQ(differ.events().size(), 2U);
  EXPECT_EQ(differ.events()[1].kind, EventKind::DeleteDeadlock);
  EXPECT_EQ(differ.events()[1].entry.key().value(), 2U);
  EXPECT_EQ(placeOf(differ, 2), nowhere);
  EXPECT_EQ(differ.model().counters().numDeadlock, 0U);
  EXPECT_THAT(differ.model().failed(), ElementsAre(3, 5));
}

// With breakMixedRings the key that failed is retried like the notified one.
class KeptWakeUps : public ::testing::Test {
 protected:
  KeptWakeUps() { differ.run(set("breakMixedRings", true, "engine")); }
  Differ differ{{}};
};

TEST_F(KeptWakeUps, DrainedKeyThatFailsIsRetriedByTheTimer) {
  waitAndFail(differ);
  differ.run(put(record(1, version(3), 1, 0, 0, 5)));
  EXPECT_EQ(placeOf(differ, 1), 5U);
  EXPECT_THAT(differ.model().failed(), ElementsAre(2));
  EXPECT_EQ(differ.model().counters().numPending, 0U) << "no claim without an obstacle";
  differ.run(advance(10.0));
  EXPECT_THAT(differ.model().failed(), ElementsAre(2)) << "it fails again";
  differ.run(fail(2, 0));
  differ.run(advance(10.0));
  EXPECT_THAT(differ.model().failed(), IsEmpty());
  EXPECT_EQ(placeOf(differ, 2), 0U);
}

TEST_F(KeptWakeUps, KeysBehindTheFailedOneRunInTheSameDrain) {
  differ.run(put(record(1, version(1), 1, 0, 20, 5)));
  differ.run(put(record(2, version(2), 2, 0, 30, 2)));
  differ.run(put(record(3, version(3), 3, 0, 30, 3)));
  differ.run(fail(2, -1));
  differ.run(put(record(1, version(4), 1, 0, 20, 1)));
  EXPECT_THAT(differ.model().failed(), ElementsAre(2));
  EXPECT_EQ(placeOf(differ, 3), 3U);
  EXPECT_THAT(differ.model().workq(), IsEmpty());
}

// Key 1 is to go behind key 2, key 2 to where key 3 is, key 3 to where key 1 is. Key 3 is the victim.
TEST_F(KeptWakeUps, VictimThatFailsIsRetriedAndCounted) {
  differ.run(put(record(1, version(1), 1, 0, 0, 0)));
  differ.run(put(record(2, version(2), 2, 0, 1, 1)));
  differ.run(put(record(3, version(3), 3, 1, 0, 3)));
  differ.run(put(record(3, version(4), 3, 1, 0, 0)));
  differ.run(put(record(2, version(5), 2, 0, 1, 3)));
  differ.run(fail(3, -1));
  differ.run(put(record(1, version(6), 1, 0, 0, 2)));
  EXPECT_EQ(differ.model().counters().numMixedRings, 1U);
  EXPECT_THAT(differ.model().failed(), ElementsAre(3));
  EXPECT_EQ(placeOf(differ, 2), 3U);
  EXPECT_EQ(placeOf(differ, 3), nowhere);
  differ.run(fail(3, 0));
  differ.run(advance(10.0));
  EXPECT_EQ(placeOf(differ, 3), 0U);
}

// The steps that lead to a claim that has outlived its occupant, and to a check that follows it.
void followAClaimWithoutOccupant(Differ& differ) {
  differ.run(put(record(1, version(1), 1, 0, 0, 0)));
  differ.run(put(record(2, version(2), 2, 0, 0, 1)));
  differ.run(put(record(2, version(3), 2, 0, 0, 0), true));
  differ.run(put(record(1, version(4), 1, 0, 0, 5), true));
  differ.run(notify(2));
  differ.run(fail(2, -1));
  differ.run(notify(1));  // wakes key 2, which fails
  differ.run(fail(2, 0));
  differ.run(put(record(3, version(5), 3, 0, 0, 3)));
  differ.run(put(record(3, version(6), 3, 0, 0, 1)));  // waits for key 2, and the check follows
}

// A claim on an occupied position outlives its occupant when the wake-up is lost; the next check meets it and
// stops.
TEST(LostWakeUpsDeathTest, nextCheckStopsAtAClaimWithoutOccupant) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  auto const run = [] {
    Differ differ({});
    followAClaimWithoutOccupant(differ);
  };
  EXPECT_DEATH(run(), "PValue.*FastVantrelImpl");
}

TEST_F(KeptWakeUps, NoClaimOutlivesItsOccupant) {
  followAClaimWithoutOccupant(differ);
  EXPECT_EQ(differ.idleClaim(), std::nullopt);
  differ.run(advance(10.0));
  EXPECT_EQ(placeOf(differ, 2), 0U);
  EXPECT_EQ(placeOf(differ, 3), 1U);
}

// A claim that outlived its occupant is retried when the keeping is switched on.
TEST(LostWakeUps, switchingOnWakesAClaimThatWasLost) {
  Differ differ({});
  waitAndFail(differ);
  differ.run(put(record(1, version(3), 1, 0, 0, 5)));
  differ.run(fail(2, 0));
  EXPECT_EQ(differ.idleClaim(), 2U);
  differ.run(set("breakMixedRings", true, "engine"));
  differ.run(put(record(9, version(9), 9, 0, 0, 9)));
  EXPECT_EQ(placeOf(differ, 2), 0U);
}

}  // namespace
}  // namespace Testing
