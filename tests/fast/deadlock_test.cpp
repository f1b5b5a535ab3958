// SPDX-License-Identifier: Apache-2.0
// Deadlocks: rings are found and broken, everything else is skipped.
#include "tests/support/fast_world.h"

using namespace TestSupport;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
class Deadlock : public FastWorld {
 protected:
  // Moves without a deadlock check: dispatch alone.
  void want(U64 key, U32 ti) {
    write({.key = key, .ti = ti});
    engine->handleEntryHelper(EntryKey(key));
  }
  Calls checked() {
    client->take();
    engine->checkDeadlock();
    return client->take();
  }
};
using DeadlockDeathTest = Deadlock;
}  // namespace

TEST_F(Deadlock, NothingBlockedTracesNothingAndChangesNothing) {
  put({.key = 1, .ti = 1});
  FacilityLines lines("VantrelFastImpl/9");
  RingRecords records;
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), IsEmpty());
  EXPECT_THAT(records.take(), IsEmpty());
}

TEST_F(Deadlock, TwoEntriesThatWantEachOthersPositionTradePlaces) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  want(2, 1);
  FacilityLines lines("VantrelFastImpl/7");
  RingRecords records;
  auto const calls = checked();
  EXPECT_THAT(calls, AnyOf(ElementsAre("deadlock 1@1", "update 2@1", "move 2@1", "add 1@2"),
                           ElementsAre("deadlock 2@2", "update 1@2", "move 1@2", "add 2@1")));
  EXPECT_EQ(record(1).sti, 2U);
  EXPECT_EQ(record(2).sti, 1U);
  EXPECT_EQ(engine->deadlockCount(), 1U);
  EXPECT_EQ(engine->numDeadlock(), 1U);
  EXPECT_THAT(state().blocked, IsEmpty());
  std::string const victim = calls[0].substr(9, 1);
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/1 found deadlock " + victim));
  EXPECT_THAT(records.take(), Contains("found deadlock key:%q [1," + victim + "]"));
}

TEST_F(Deadlock, RingsAreBrokenByHandlingTheKeyThatClosesThem) {
  for (U64 key = 1; key <= 5; ++key) put({.key = key, .ti = static_cast<U32>(key)});
  for (U64 key = 1; key <= 5; ++key) put({.key = key, .ti = static_cast<U32>(key % 5 + 1)});
  for (U64 key = 1; key <= 5; ++key) EXPECT_EQ(record(key).sti, key % 5 + 1) << key;
  EXPECT_EQ(engine->deadlockCount(), 1U);
  EXPECT_EQ(engine->numPending(), 0U);
}

TEST_F(Deadlock, ChainsAreTracedStepByStep) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  FacilityLines lines("VantrelFastImpl/7");
  RingRecords records;
  checked();
  EXPECT_THAT(
      lines.take(),
      ElementsAre("VantrelFastImpl/7 checking deadlock", "VantrelFastImpl/7 [2] occupied 2 pending 1",
                  "VantrelFastImpl/7 skipping pending move 2", "VantrelFastImpl/7 checking deadlock done"));
  EXPECT_THAT(records.take(), ElementsAre("deadlock check key:%q [1,1]"));
}

TEST_F(Deadlock, ABlockedEntryThatTheProducerRemovedIsSkipped) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  want(2, 1);
  table->entryQuietlyDel(EntryKey(1));
  table->entryQuietlyDel(EntryKey(2));
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), Contains(HasSubstr("skipping pending delete ")));
  EXPECT_EQ(engine->deadlockCount(), 0U);
}

TEST_F(Deadlock, AnEntryThatWaitsForItsFirstAddIsSkipped) {
  put({.key = 1, .ti = 1});
  want(2, 1);
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/7 skipping pending move 2"));
}

TEST_F(Deadlock, AnEntryWhoseConfigurationNamesAnotherPositionIsSkipped) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  want(2, 1);
  write({.key = 1, .ti = 3});
  write({.key = 2, .ti = 3});
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), Contains(HasSubstr("skipping pending move ")));
}

TEST_F(Deadlock, ADeleteMarkedRecordWithoutATableIndexIsAMismatch) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  want(2, 1);
  for (U64 key : {1, 2}) {
    EntryConfig marked(EntryKey(key), OpId(0x9000000), static_cast<U32>(key), 0, 10);
    marked.isDelIs(true);
    table->entryQuietlyIs(marked);
  }
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), Contains(HasSubstr("skipping pending move ")));
}

TEST_F(Deadlock, APriorityBlockedEntryIsSkipped) {
  put({.key = 1, .ti = 1, .prio = 10});
  put({.key = 2, .ti = 5, .prio = 20});
  write({.key = 1, .ti = 9, .prio = 10});
  engine->handleEntryHelper(EntryKey(1));
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/7 skipping prio blocked 1"));
}

TEST_F(Deadlock, AChainThatLeadsIntoARingFromOutsideBreaksNothing) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  put({.key = 3, .ti = 3});
  want(1, 2);
  want(2, 1);
  want(3, 2);  // takes over the claim on 2: 1 has none any more, the ring is open
  EXPECT_EQ(claimant(2), 3U);
  state().blocked.clear();
  state().blocked.insert(EntryKey(3));
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/7 skipping pending move 1"));
}

TEST_F(Deadlock, MembersAlreadySeenByAChainFromOutsideStopTheirOwnChains) {
  // A stale pair of claims that a chain from 3 enters: both members are visited, and the ring stays.
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  put({.key = 3, .ti = 3});
  want(1, 2);
  want(2, 1);
  write({.key = 3, .ti = 1});
  record(3).p = {OpId(1), 1, PendingType::Occupied};  // waits for 1 as well, beside the listed claim of 2
  state().blocked.clear();
  FacilityLines lines("VantrelFastImpl/7");
  state().blocked.insert(EntryKey(3));
  engine->checkDeadlock();
  EXPECT_THAT(lines.take(), Contains(HasSubstr("stopping. already seen 1")));
  EXPECT_EQ(engine->deadlockCount(), 0U);
  record(3).p = {OpId(0), noIndex, PendingType::None};
}

TEST_F(Deadlock, AfterARunTheBlockedSetIsEmptyWhateverWasFound) {
  put({.key = 1, .ti = 1});
  want(2, 1);
  want(3, 1);
  EXPECT_FALSE(state().blocked.empty());
  checked();
  EXPECT_TRUE(state().blocked.empty());
}

TEST_F(DeadlockDeathTest, ACandidateWithoutStateFailsItsAssertion) {
  state().blocked.insert(EntryKey(9));
  EXPECT_DEATH(engine->checkDeadlock(), HasSubstr("assertion failed: c, model file FastVantrelImpl,"));
}

TEST_F(DeadlockDeathTest, AnOccupiedClaimWithoutOccupantFailsItsAssertion) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  state().current.remove(2);
  EXPECT_DEATH(engine->checkDeadlock(), HasSubstr("assertion failed: PValue, model file FastVantrelImpl,"));
}
