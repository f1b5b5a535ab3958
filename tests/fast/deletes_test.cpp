// SPDX-License-Identifier: Apache-2.0
// Deletes: which calls reach hardware and status, and which waiters are queued, in which order.
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {
class Deletes : public FastWorld {
 protected:
  // The queue that a delete leaves, without running it.
  std::vector<U64> woken(U64 key) {
    EXPECT_TRUE(engine->processDelete(EntryKey(key), false));
    return queued();
  }
};
using DeletesDeathTest = Deletes;
constexpr U64 marker = 0xFFFFFFFFFFFF0000U;
}  // namespace

TEST_F(Deletes, OfAnUnknownKeyWithAckOnlyWritesDelAck) {
  EXPECT_FALSE(engine->processDelete(EntryKey(1), true));
  EXPECT_THAT(client->take(), ElementsAre("delAck 1"));
  EXPECT_EQ(acknowledged(1), marker);
}

TEST_F(Deletes, OfAnUnknownKeyWithoutAckRemovesItsStatus) {
  EXPECT_FALSE(engine->processDelete(EntryKey(1), false));
  EXPECT_THAT(client->take(), ElementsAre("delStatus 1"));
}

TEST_F(Deletes, OfAnUnknownKeyChangeNoState) {
  put({.key = 5, .ti = 5});
  put({.key = 6, .ti = 5});
  engine->dirtyIs(false);
  for (bool const deadlock : {false, true})
    for (bool const ack : {false, true})
      EXPECT_FALSE(engine->processDeleteHelper(EntryKey(1), deadlock, ack));
  EXPECT_THAT(client->take(), ElementsAre("delStatus 1", "delAck 1", "delStatus 1", "delAck 1"))
      << "a broken ring plays no part";
  EXPECT_FALSE(known(1));
  EXPECT_EQ(state().cstate.size(), 2U);
  EXPECT_EQ(claimant(5), 6U);
  EXPECT_THAT(queued(), IsEmpty());
  EXPECT_FALSE(engine->dirty());
}

TEST_F(Deletes, PassARecordOfGroupZeroWithoutData) {
  EntryConfig full = config({.key = 1, .ti = 6, .prio = 9, .pg = 3});
  for (unsigned i = 0; i <= DataKey::max; ++i) full.dataIs(DataKey(i), i);
  table->entryQuietlyIs(full);
  handle(1);
  EXPECT_TRUE(engine->processDelete(EntryKey(1), false));
  EXPECT_EQ(client->records.back().pg(), 0);
  EXPECT_EQ(client->records.back().datas(), 0U);
}

TEST_F(Deletes, LeaveWaitersOfOtherGroupsInTheRangeAlone) {
  put({.key = 1, .ti = 6, .prio = 20});
  put({.key = 2, .ti = 100, .prio = 20, .pg = 1});
  put({.key = 11, .ti = 4, .prio = 30});
  put({.key = 12, .ti = 8, .prio = 30, .pg = 1});
  EXPECT_EQ(claimant(8), 12U);
  EXPECT_THAT(woken(1), ElementsAre(11));
}

TEST_F(Deletes, OfAPendingEntryWithoutAcknowledgementIsSilent) {
  put({.key = 1, .ti = 1});
  write({.key = 2, .ti = 1});
  engine->handleEntryHelper(EntryKey(2));
  EXPECT_TRUE(blocked(2));
  EXPECT_TRUE(engine->processDelete(EntryKey(2), false));
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_EQ(status->size(), 0U);
  EXPECT_EQ(claimant(1), 0U);
  EXPECT_FALSE(known(2));
  EXPECT_FALSE(blocked(2));
}

TEST_F(Deletes, OfAPendingEntryWithAckOnlyAcknowledges) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  EXPECT_TRUE(engine->processDelete(EntryKey(2), true));
  EXPECT_THAT(client->take(), ElementsAre("delAck 2"));
  EXPECT_EQ(acknowledged(2), marker);
}

TEST_F(Deletes, OfAProgrammedEntryWithAckCarriesTheMarker) {
  put({.key = 1, .ti = 6, .prio = 9, .pg = 3, .hdl = 11});
  EXPECT_TRUE(engine->processDelete(EntryKey(1), true));
  EXPECT_THAT(client->take(), ElementsAre("del 1@6"));
  EntryConfig const& sent = client->records.back();
  EXPECT_EQ(sent.opId().value(), marker);
  EXPECT_EQ(sent.tableIndexs(), 1U);
  EXPECT_EQ(sent.tableIndex(TableKey(0)), 6U);
  EXPECT_EQ(sent.hdl(), 11U);
  EXPECT_EQ(sent.pg(), 0) << "whatever the entry's own group";
  EXPECT_EQ(sent.prio(), 9U);
  EXPECT_EQ(sent.datas(), 0U);
  EXPECT_FALSE(sent.isDel());
}

TEST_F(Deletes, OfAProgrammedEntryWithoutAckCarriesItsOpId) {
  put({.key = 1, .ti = 6, .opId = 77});
  EXPECT_TRUE(engine->processDelete(EntryKey(1), false));
  EXPECT_EQ(client->records.back().opId(), OpId(77));
  EXPECT_EQ(acknowledged(1), 0U);
}

TEST_F(Deletes, ToBreakADeadlockNeverCallsTheOrdinaryDelete) {
  put({.key = 1, .ti = 6});
  EXPECT_TRUE(engine->processDeleteHelper(EntryKey(1), true, false));
  EXPECT_THAT(client->take(), ElementsAre("deadlock 1@6"));
}

TEST_F(Deletes, LeaveNothingOfTheKeyBehind) {
  put({.key = 1, .ti = 6});
  engine->dirtyIs(false);
  U32 const free = cstatePool().cread;
  EXPECT_TRUE(engine->processDelete(EntryKey(1), false));
  EXPECT_FALSE(known(1));
  EXPECT_TRUE(state().positions.current.empty());
  EXPECT_TRUE(state().positions.precedence.empty());
  EXPECT_TRUE(engine->dirty());
  EXPECT_EQ(cstatePool().cread, free + 1);
  EXPECT_THAT(put({.key = 1, .ti = 6}), ElementsAre("del 1@6", "add 1@6"));
}

TEST_F(Deletes, QueueTheFreedPositionsWaiterBeforeTheRange) {
  put({.key = 1, .ti = 6, .prio = 20});
  put({.key = 2, .ti = 2, .prio = 30});
  put({.key = 3, .ti = 6, .prio = 20});
  put({.key = 4, .ti = 8, .prio = 10});
  EXPECT_THAT(woken(1), ElementsAre(3, 2, 4));
}

TEST_F(Deletes, WithoutNeighboursQueueEveryWaiterOfTheGroup) {
  put({.key = 1, .ti = 6, .prio = 20});
  put({.key = 2, .ti = 0, .prio = 30});
  put({.key = 3, .ti = (1U << 19) - 1, .prio = 10});
  put({.key = 4, .ti = 6, .prio = 20, .pg = 1});
  EXPECT_THAT(woken(1), ElementsAre(4, 2, 3)) << "the position's own waiter is woken whatever its group";
}

TEST_F(Deletes, BetweenEqualsQueueOnlyTheFreedPositionsWaiter) {
  put({.key = 1, .ti = 5, .prio = 20});
  put({.key = 2, .ti = 6, .prio = 20});
  put({.key = 3, .ti = 7, .prio = 20});
  put({.key = 10, .ti = 6, .prio = 20});
  put({.key = 11, .ti = 2, .prio = 30});
  put({.key = 12, .ti = 9, .prio = 10});
  EXPECT_THAT(woken(2), ElementsAre(10));
}

TEST_F(Deletes, AnEqualNeighbourAboveKeepsTheLowerSideClosed) {
  put({.key = 1, .ti = 6, .prio = 20});
  put({.key = 2, .ti = 10, .prio = 20});
  put({.key = 11, .ti = 3, .prio = 30});
  put({.key = 12, .ti = 8, .prio = 10});
  EXPECT_THAT(woken(1), ElementsAre(12));
}

TEST_F(Deletes, AnEqualNeighbourBelowKeepsTheUpperSideClosed) {
  put({.key = 1, .ti = 6, .prio = 20});
  put({.key = 2, .ti = 2, .prio = 20});
  put({.key = 11, .ti = 4, .prio = 30});
  put({.key = 12, .ti = 8, .prio = 10});
  EXPECT_THAT(woken(1), ElementsAre(11));
}

TEST_F(Deletes, TheRangeLiesBetweenTheNeighboursOfItsGroup) {
  put({.key = 1, .ti = 10, .prio = 20});
  put({.key = 2, .ti = 5, .prio = 15});
  put({.key = 3, .ti = 15, .prio = 25});
  put({.key = 11, .ti = 4, .prio = 17});
  put({.key = 12, .ti = 6, .prio = 22});
  put({.key = 13, .ti = 14, .prio = 18});
  put({.key = 14, .ti = 16, .prio = 22});
  EXPECT_THAT(woken(1), ElementsAre(12, 13));
}

TEST_F(Deletes, NeighboursOfOtherGroupsDoNotBoundTheRange) {
  put({.key = 1, .ti = 10, .prio = 20, .pg = 1});
  put({.key = 2, .ti = 30, .prio = 1, .pg = 0});
  put({.key = 3, .ti = 0, .prio = 1, .pg = 2});
  put({.key = 11, .ti = 40, .prio = 10, .pg = 1});
  put({.key = 12, .ti = 5, .prio = 30, .pg = 1});
  EXPECT_THAT(woken(1), ElementsAre(12, 11));
}

TEST_F(Deletes, AreTracedOnBothChannels) {
  put({.key = 1, .ti = 6, .opId = 77, .hdl = 11});
  FacilityLines lines("VantrelFastImpl/8");
  RingRecords records;
  engine->processDeleteHelper(EntryKey(1), true, false);
  EXPECT_THAT(lines.take(), ElementsAre("VantrelFastImpl/8 trying to delete 1",
                                        "VantrelFastImpl/8 deleting entry 1 opId 77 deadlock: true",
                                        "VantrelFastImpl/8 walking prio between 0 4294967294"));
  EXPECT_THAT(records.take(),
              ElementsAre("deleting entry key:%q hdl:%i opId: %q deadlock:%i delAck: %i [1,1,11,77,1,0]",
                          "del helper key:%q hdl:%i deadlock:%i [1,1,11,1]"));
  engine->processDelete(EntryKey(1), true);
  engine->processDelete(EntryKey(1), false);
  EXPECT_THAT(lines.take(),
              ElementsAre("VantrelFastImpl/8 trying to delete 1", "VantrelFastImpl/8 not found entry 1",
                          "VantrelFastImpl/8 trying to delete 1", "VantrelFastImpl/8 not found entry 1"));
  EXPECT_THAT(records.take(),
              ElementsAre("del not found key:%q [1,1]", "never added delAck key:%q [1,1]",
                          "del not found key:%q [1,1]", "never added delStatus key:%q [1,1]"));
}

TEST_F(Deletes, OfAPendingEntryAreTraced) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  RingRecords records;
  engine->processDelete(EntryKey(2), true);
  EXPECT_THAT(records.take(), Contains("pending only delAck key:%q [1,2]"));
}

TEST_F(DeletesDeathTest, BeforeInitializationFailTheirAssertion) {
  engine->initializedIs(false);
  EXPECT_DEATH(engine->processDelete(EntryKey(1), false),
               HasSubstr("assertion failed: initialized(), model file FastVantrelImpl,"));
}
