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

// A claim on an occupied position outlives its occupant when the wake-up is lost; the next check meets it and
// stops.
TEST(LostWakeUpsDeathTest, nextCheckStopsAtAClaimWithoutOccupant) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  auto const run = [] {
    Differ differ({});
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
  };
  EXPECT_DEATH(run(), "PValue.*FastVantrelImpl");
}

}  // namespace
}  // namespace Testing
