// SPDX-License-Identifier: Apache-2.0
// Deadlocks: rings are found and broken, everything else is skipped.
#include "ostra/type_info.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;
using testing::AnyOf;

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

TEST_F(Deadlock, TwoEntriesTradePlaces) {
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

TEST_F(Deadlock, SkipsAnEntryThatWantsAnotherPositionNow) {
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

TEST_F(Deadlock, SkipsADeleteMarkedRecordWithoutATableIndex) {
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

// 3 claims beside the listed claims of a ring of 1 and 2, as a forged state: its chain enters the ring.
TEST_F(Deadlock, ChainIntoARingStopsAtASeenKeyAndBreaksNothing) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  want(1, 2);
  want(2, 1);
  write({.key = 3, .ti = 1});
  record(3).p = {OpId(1), 1, PendingType::Occupied};
  state().blocked.clear();
  state().blocked.insert(EntryKey(3));
  FacilityLines lines("VantrelFastImpl/7");
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_THAT(
      lines.take(),
      ElementsAre("VantrelFastImpl/7 checking deadlock", "VantrelFastImpl/7 [1] occupied 1 pending 3",
                  "VantrelFastImpl/7 [2] occupied 2 pending 1", "VantrelFastImpl/7 [1] occupied 1 pending 2",
                  "VantrelFastImpl/7 stopping. already seen 1", "VantrelFastImpl/7 checking deadlock done"));
  EXPECT_EQ(engine->deadlockCount(), 0U);
  record(3).p = {OpId(0), noIndex, PendingType::None};
}

TEST_F(Deadlock, RingEnteredFromOutsideStaysUntilALaterRun) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  want(1, 2);
  want(2, 1);
  write({.key = 3, .ti = 1});
  record(3).p = {OpId(1), 1, PendingType::Occupied};
  state().blocked.insert(EntryKey(3));
  bool const outsiderFirst = *state().blocked.begin() == EntryKey(3);
  engine->checkDeadlock();
  if (outsiderFirst) {
    EXPECT_EQ(engine->deadlockCount(), 0U);
    record(3).p = {OpId(0), noIndex, PendingType::None};
    state().blocked.insert(EntryKey(1));
    engine->checkDeadlock();
  }
  EXPECT_EQ(engine->deadlockCount(), 1U);
  if (known(3)) record(3).p = {OpId(0), noIndex, PendingType::None};
}

TEST_F(Deadlock, ChainThatEndsOnASettledEntryDeletesNothing) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  want(1, 2);
  want(2, 3);
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_EQ(record(1).sti, 1U);
  EXPECT_EQ(record(2).sti, 2U);
  EXPECT_EQ(engine->deadlockCount(), 0U);
}

TEST_F(Deadlock, TheVictimIsTheKeyThatTheSearchStartedFrom) {
  for (U64 key = 1; key <= 4; ++key) put({.key = key, .ti = static_cast<U32>(key)});
  for (U64 key = 1; key <= 4; ++key) want(key, static_cast<U32>(key % 4 + 1));
  RingRecords records;
  auto const calls = checked();
  auto const taken = records.take();
  ASSERT_FALSE(taken.empty());
  ASSERT_TRUE(taken[0].starts_with("deadlock check key:%q [1,"));
  std::string const start = taken[0].substr(taken[0].size() - 2, 1);
  EXPECT_EQ(calls[0], "deadlock " + start + "@" + start);
}

TEST_F(Deadlock, DeleteMarkedRecordNamingItsClaimIsARingMember) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  want(2, 1);
  write({.key = 1, .ti = 2, .del = true});
  write({.key = 2, .ti = 1, .del = true});
  EXPECT_FALSE(checked().empty());
  EXPECT_EQ(engine->deadlockCount(), 1U);
}

TEST_F(Deadlock, TheCheckAndTheCleanUpCanBeInvokedByName) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  want(2, 1);
  engine->typeInfo().invoke(*engine, "checkDeadlock");
  EXPECT_EQ(engine->deadlockCount(), 1U);
  client->take();
  engine->typeInfo().invoke(*engine, "doCleanup");
  EXPECT_THAT(client->take(),
              testing::UnorderedElementsAre("del 1@2", "del 2@1", "delStatus 1", "delStatus 2", "flush"));
}

TEST_F(Deadlock, OversizeRecordInAChainThrowsTheSizeError) {
  auto const big = make<Oversize>();
  auto const own = make<FastVantrelImpl>("own", big, debugConfig, debugStatus, client, 1U);
  for (U64 key : {1, 2}) {
    big->entryQuietlyIs(config({.key = key, .ti = 1}));
    own->handleEntryHelper(EntryKey(key));
  }
  big->oversize = true;
  EXPECT_THROW(own->checkDeadlock(), Pallo::InvalidSizeException);
}

TEST_F(Deadlock, AfterARunTheBlockedSetIsEmptyWhateverWasFound) {
  put({.key = 1, .ti = 1});
  want(2, 1);
  want(3, 1);
  EXPECT_FALSE(state().blocked.empty());
  EXPECT_THAT(checked(), IsEmpty());
  EXPECT_TRUE(state().blocked.empty());
  put({.key = 4, .ti = 4});
  want(1, 4);
  want(4, 1);
  EXPECT_FALSE(checked().empty());
  EXPECT_TRUE(state().blocked.empty());
}

TEST_F(DeadlockDeathTest, ACandidateWithoutStateFailsItsAssertion) {
  forge();
  state().blocked.insert(EntryKey(9));
  EXPECT_DEATH(engine->checkDeadlock(), HasSubstr("assertion failed: c, model file FastVantrelImpl,"));
}

// Nobody holds 3 any more, and the claim of 2 on it still waits for its retry when the chain from 1 comes by.
TEST_F(DeadlockDeathTest, QueuedClaimWithoutOccupantFailsFromAnyStart) {
  forge();
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  put({.key = 2, .ti = 3});
  engine->processDelete(EntryKey(3), false);
  EXPECT_THAT(queued(), ElementsAre(2));
  want(1, 2);
  EXPECT_DEATH(engine->checkDeadlock(), HasSubstr("assertion failed: PValue, model file FastVantrelImpl,"));
}

TEST_F(DeadlockDeathTest, OccupiedClaimWithoutOccupantFails) {
  forge();
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  want(1, 2);
  state().positions.current.remove(2);
  EXPECT_DEATH(engine->checkDeadlock(), HasSubstr("assertion failed: PValue, model file FastVantrelImpl,"));
}
