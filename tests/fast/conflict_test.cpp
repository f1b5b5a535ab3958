// SPDX-License-Identifier: Apache-2.0
// Conflict detection: who may take a position, and who keeps the claim on one.
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {
class Conflict : public FastWorld {};
using ConflictDeathTest = Conflict;
}  // namespace

TEST_F(Conflict, StaleConfigurationEndsAnyClaim) {
  put({.key = 1, .ti = 1, .opId = 100});
  put({.key = 2, .ti = 2, .opId = 101});
  EXPECT_TRUE(conflicts({.key = 1, .ti = 2, .opId = 200}));
  EXPECT_EQ(claimant(2), 1U);
  EXPECT_TRUE(conflicts({.key = 1, .ti = 2, .opId = 100}));
  EXPECT_EQ(claimant(2), 0U);
  EXPECT_EQ(record(1).p.ti, noIndex);
  EXPECT_EQ(record(1).p.type, PendingType::None);
}

TEST_F(Conflict, MarksTheEngineDirtyWhateverTheOutcome) {
  put({.key = 1, .ti = 1, .opId = 100});
  struct Case {
    Put put;
    bool conflicting;
  };
  for (Case const& c :
       {Case{{.key = 1, .ti = 1, .opId = 100}, true}, Case{{.key = 1, .ti = 1, .opId = 101}, false},
        Case{{.key = 2, .ti = 1, .opId = 102}, true}, Case{{.key = 3, .ti = 3, .opId = 103}, false}}) {
    engine->dirtyIs(false);
    EXPECT_EQ(conflicts(c.put), c.conflicting) << c.put.key << " " << c.put.opId;
    EXPECT_TRUE(engine->dirty());
  }
}

TEST_F(Conflict, RepeatedPriorityClaimIsRefreshedInPlace) {
  put({.key = 1, .ti = 1, .prio = 9, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 50}));
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 55}));
  EXPECT_EQ(record(2).p.opId, OpId(55));
  EXPECT_EQ(claimant(5), 2U);
  EXPECT_EQ(state().pending.count(), 1U);
}

TEST_F(Conflict, OlderConfigurationGivesUpItsNewerClaim) {
  put({.key = 1, .ti = 1, .prio = 9, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 50}));
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 40}));
  EXPECT_EQ(claimant(5), 0U);
  EXPECT_EQ(record(2).p.ti, noIndex);
}

TEST_F(Conflict, AClaimChangesItsReasonInPlace) {
  put({.key = 1, .ti = 1, .prio = 9, .opId = 10});
  put({.key = 3, .ti = 5, .prio = 9, .opId = 11});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 50}));
  EXPECT_EQ(record(2).p.type, PendingType::Occupied);
  engine->processDelete(EntryKey(3), false);
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 51}));
  EXPECT_EQ(record(2).p.type, PendingType::Priority);
  EXPECT_EQ(claimant(5), 2U);
  EXPECT_EQ(state().pending.count(), 1U);
}

TEST_F(Conflict, FirstSightMakesARecordEvenWhenTheAnswerIsTrue) {
  put({.key = 1, .ti = 1});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .prio = 7, .pg = 3, .hdl = 22}));
  ASSERT_TRUE(known(2));
  EXPECT_EQ(record(2).opId, OpId(0));
  EXPECT_EQ(record(2).sti, noIndex);
  EXPECT_EQ(record(2).hdl, 22U);
  EXPECT_EQ(record(2).prio, 7U);
  EXPECT_EQ(record(2).pg, 3);
  table->entryQuietlyIs(EntryConfig(EntryKey(4), OpId(0), 4, 0, 0));
  EXPECT_TRUE(engine->isConflicting(table->entry(EntryKey(4)))) << "OpId zero is never newer";
  EXPECT_TRUE(known(4));
}

TEST_F(Conflict, TheFirstPriorityAndGroupStay) {
  put({.key = 1, .ti = 1, .prio = 5, .pg = 1});
  put({.key = 1, .ti = 2, .prio = 9, .pg = 3});
  EXPECT_EQ(record(1).prio, 5U);
  EXPECT_EQ(record(1).pg, 1);
}

TEST_F(Conflict, FreePositionBetweenEqualsIsNotBlocked) {
  put({.key = 1, .ti = 1, .prio = 4});
  put({.key = 2, .ti = 3, .prio = 4});
  EXPECT_FALSE(conflicts({.key = 3, .ti = 2, .prio = 4}));
}

TEST_F(Conflict, NeighbourBelowWithGreaterPriorityBlocks) {
  put({.key = 1, .ti = 1, .prio = 5});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 2, .prio = 4}));
  EXPECT_EQ(record(2).p.type, PendingType::Priority);
  EXPECT_EQ(record(2).p.ti, 2U);
  EXPECT_EQ(claimant(2), 2U);
  EXPECT_TRUE(blocked(2));
}

TEST_F(Conflict, NeighbourAboveWithSmallerPriorityBlocks) {
  put({.key = 1, .ti = 9, .prio = 3});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 2, .prio = 4}));
  EXPECT_EQ(record(2).p.type, PendingType::Priority);
}

TEST_F(Conflict, OnlyTheNearestNeighboursCount) {
  put({.key = 1, .ti = 1, .prio = 5});
  put({.key = 2, .ti = 3, .prio = 5});
  put({.key = 3, .ti = 9, .prio = 5});
  record(1).prio = 100;  // out of order already, farther away
  EXPECT_FALSE(conflicts({.key = 4, .ti = 5, .prio = 5}));
}

TEST_F(Conflict, NeighbourOfAnotherGroupNeverBlocks) {
  put({.key = 1, .ti = (1U << 19) - 1, .prio = 100, .pg = 0});
  put({.key = 2, .ti = 0, .prio = 1, .pg = 2});
  EXPECT_FALSE(conflicts({.key = 3, .ti = 5, .prio = 50, .pg = 1}));
}

TEST_F(Conflict, OwnPositionNeverBlocksAndItsWaiterIsQueued) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_FALSE(conflicts({.key = 1, .ti = 1}));
  EXPECT_THAT(queued(), ElementsAre(2));
}

TEST_F(Conflict, NewerOpIdKeepsTheClaimOnAnOccupiedPosition) {
  put({.key = 1, .ti = 1, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .opId = 50}));
  EXPECT_TRUE(conflicts({.key = 3, .ti = 1, .opId = 40}));
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_EQ(record(3).p.ti, noIndex);
  EXPECT_TRUE(blocked(3));
  EXPECT_TRUE(conflicts({.key = 3, .ti = 1, .opId = 60}));
  EXPECT_EQ(claimant(1), 3U);
  EXPECT_EQ(record(2).p.ti, noIndex);
  EXPECT_EQ(record(2).p.opId, OpId(0));
  EXPECT_TRUE(blocked(2));
}

TEST_F(Conflict, EqualOpIdTakesTheClaimOver) {
  put({.key = 1, .ti = 1, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .opId = 50}));
  EXPECT_TRUE(conflicts({.key = 3, .ti = 1, .opId = 50}));
  EXPECT_EQ(claimant(1), 3U);
}

TEST_F(Conflict, NewerOpIdKeepsThePriorityClaimToo) {
  put({.key = 1, .ti = 1, .prio = 9, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 50}));
  EXPECT_TRUE(conflicts({.key = 3, .ti = 5, .prio = 4, .opId = 40}));
  EXPECT_EQ(claimant(5), 2U);
  EXPECT_EQ(record(3).p.ti, noIndex);
  EXPECT_TRUE(blocked(3));
  EXPECT_TRUE(conflicts({.key = 3, .ti = 5, .prio = 4, .opId = 50}));
  EXPECT_EQ(claimant(5), 3U);
  EXPECT_EQ(record(2).p.ti, noIndex);
}

TEST_F(Conflict, AClaimThatIsAskedForAgainIsRefreshedInPlace) {
  put({.key = 1, .ti = 1, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .opId = 50}));
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .opId = 55}));
  EXPECT_EQ(record(2).p.opId, OpId(55));
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_EQ(state().pending.count(), 1U);
}

TEST_F(Conflict, AClaimMovesWithTheConfiguration) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  EXPECT_TRUE(conflicts({.key = 3, .ti = 1}));
  EXPECT_TRUE(conflicts({.key = 3, .ti = 2}));
  EXPECT_EQ(claimant(1), 0U);
  EXPECT_EQ(claimant(2), 3U);
  EXPECT_FALSE(conflicts({.key = 3, .ti = 7}));
  EXPECT_EQ(claimant(2), 0U);
  EXPECT_FALSE(blocked(3));
}

TEST_F(Conflict, TakingAFreePositionEndsAnothersClaimOnIt) {
  put({.key = 1, .ti = 1, .prio = 9});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4}));
  EXPECT_EQ(claimant(5), 2U);
  EXPECT_FALSE(conflicts({.key = 3, .ti = 5, .prio = 9}));
  EXPECT_EQ(claimant(5), 0U);
  EXPECT_EQ(record(2).p.ti, noIndex);
}

TEST_F(Conflict, AKeyThatIsFreeLeavesTheBlockedSet) {
  put({.key = 1, .ti = 1});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1}));
  EXPECT_TRUE(blocked(2));
  EXPECT_FALSE(conflicts({.key = 2, .ti = 2}));
  EXPECT_FALSE(blocked(2));
  EXPECT_EQ(claimant(1), 0U);
}

TEST_F(Conflict, IsTracedOnBothChannels) {
  put({.key = 1, .ti = 1, .prio = 9, .opId = 10});
  FacilityLines lines("VantrelFastImpl/8");
  RingRecords records;
  EXPECT_TRUE(conflicts({.key = 2, .ti = 5, .prio = 4, .opId = 50, .hdl = 22}));
  EXPECT_THAT(lines.take(), ElementsAre("VantrelFastImpl/8 entry 2 entry opid 50 current opId 0",
                                        "VantrelFastImpl/8 prio blocked 2 prio:4 by 1 at 1 prio:9"));
  EXPECT_THAT(records.take(),
              ElementsAre("new entry key:%q hdl:%i entry opid:%q current opId%q [1,2,22,50,0]",
                          "key:%q hdl:%i prio:%i blocked by key:%q prio:%i at ti:%i [1,2,22,4,1,9,1]",
                          "conflicting key:%q hdl:%i prio:%i opId:%q [1,2,22,4,50]"));
  EXPECT_FALSE(conflicts({.key = 2, .ti = 0, .opId = 51}));
  EXPECT_THAT(records.take(), ElementsAre("not conflicting key:%q hdl:%i prio:%i opId:%q [1,2,22,4,51]"));
}

TEST_F(ConflictDeathTest, NewerClaimOfTheSameKeyTracesAndFails) {
  put({.key = 1, .ti = 1, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .opId = 50}));
  write({.key = 2, .ti = 1, .opId = 40});
  EXPECT_DEATH(engine->isConflicting(table->entry(EntryKey(2))),
               HasSubstr("assertion failed: c->key != cp->key, model file FastVantrelImpl,"));
  EXPECT_DEATH(engine->isConflicting(table->entry(EntryKey(2))), HasSubstr("key=2 eOpId: 40 pOpId: 50"));
}

TEST_F(ConflictDeathTest, MisplacedClaimFailsItsAssertion) {
  forge();
  put({.key = 1, .ti = 1, .opId = 10});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 1, .opId = 50}));
  record(2).p.ti = 3;
  write({.key = 2, .ti = 1, .opId = 60});
  EXPECT_DEATH(engine->isConflicting(table->entry(EntryKey(2))),
               HasSubstr("assertion failed: c->p.ti == *ti, model file FastVantrelImpl,"));
}

TEST_F(ConflictDeathTest, VanishedSlotFailsItsAssertion) {
  forge();
  put({.key = 1, .ti = 1, .opId = 10});
  put({.key = 3, .ti = 3, .opId = 11});
  EXPECT_TRUE(conflicts({.key = 2, .ti = 3, .opId = 50}));
  state().pending.remove(3);
  record(2).p.ti = 1;  // clearing it takes the slot that is being filled
  write({.key = 2, .ti = 1, .opId = 60});
  EXPECT_DEATH(engine->isConflicting(table->entry(EntryKey(2))),
               HasSubstr("assertion failed: PValue, model file FastVantrelImpl,"));
}
