// SPDX-License-Identifier: Apache-2.0
// Programming: add, update, move, acknowledge, and which waiters are queued.
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {
class Programming : public FastWorld {
 protected:
  // The queue that programming the configuration leaves, without running it.
  std::vector<U64> woken(Put const& p) {
    EXPECT_TRUE(engine->processEntry(config(p)));
    return queued();
  }
  // A claim without a hardware call: the entry waits at ti behind a higher priority at 0.
  void wait(U64 key, U32 ti, U32 prio, U16 pg = 0) {
    EXPECT_THAT(put({.key = key, .ti = ti, .prio = prio, .pg = pg}), IsEmpty());
  }
};
using ProgrammingDeathTest = Programming;
constexpr U64 version = 0x10000;
}  // namespace

TEST_F(Programming, ANewEntryIsAddedAndIndexed) {
  EXPECT_THAT(put({.key = 1, .ti = 4, .pg = 2, .opId = 77}), ElementsAre("add 1@4"));
  EXPECT_EQ(record(1).sti, 4U);
  EXPECT_EQ(record(1).opId, OpId(77));
  EXPECT_EQ(state().positions.current.at(4), &record(1));
  EXPECT_EQ(state().positions.precedence.at(engine->pti(2, 4)), &record(1));
  EXPECT_EQ(client->records.back(), table->entry(EntryKey(1)));
}

TEST_F(Programming, SameLowBitsAndPositionIsOnlyAcknowledged) {
  put({.key = 1, .ti = 4, .opId = 5 * version + 3});
  EXPECT_THAT(put({.key = 1, .ti = 4, .opId = (5 + 65535) * version + 3}), ElementsAre("noop 1"));
  EXPECT_EQ(acknowledged(1), (5 + 65535) * version + 3);
  EXPECT_EQ(engine->currentOpId(EntryKey(1)).value(), (5 + 65535) * version + 3);
}

TEST_F(Programming, SameLowBitsTooManyVersionsAheadIsWritten) {
  put({.key = 1, .ti = 4, .opId = 5 * version + 3});
  EXPECT_THAT(put({.key = 1, .ti = 4, .opId = (5 + 65536) * version + 3}), ElementsAre("update 1@4"));
}

TEST_F(Programming, DifferentLowBitsAreWritten) {
  put({.key = 1, .ti = 4, .opId = 5 * version + 3});
  EXPECT_THAT(put({.key = 1, .ti = 4, .opId = 5 * version + 4}), ElementsAre("update 1@4"));
  EXPECT_EQ(acknowledged(1), 0U) << "the acknowledgement of a write is the hardware layer's";
}

TEST_F(Programming, ChangedConfigurationIsUpdatedThenMoved) {
  put({.key = 1, .ti = 4, .opId = 5 * version + 3});
  EXPECT_THAT(put({.key = 1, .ti = 9, .opId = 6 * version + 4}), ElementsAre("update 1@9", "move 1@9"));
  EXPECT_EQ(record(1).sti, 9U);
  EXPECT_EQ(state().positions.current.at(4), nullptr);
  EXPECT_EQ(state().positions.current.at(9), &record(1));
  EXPECT_EQ(state().positions.precedence.at(4), nullptr);
  EXPECT_EQ(state().positions.precedence.at(9), &record(1));
}

TEST_F(Programming, UnchangedConfigurationIsOnlyMoved) {
  put({.key = 1, .ti = 4, .opId = 5 * version + 3});
  EXPECT_THAT(put({.key = 1, .ti = 9, .opId = 6 * version + 3}), ElementsAre("move 1@9"));
}

TEST_F(Programming, RejectedConfigurationCallsNothing) {
  put({.key = 1, .ti = 4});
  write({.key = 2, .ti = 4});
  EXPECT_FALSE(engine->processEntry(table->entry(EntryKey(2))));
  EXPECT_THAT(client->take(), IsEmpty());
  write({.key = 3, .ti = 5});
  EXPECT_TRUE(engine->processEntry(table->entry(EntryKey(3))));
}

TEST_F(Programming, TheWaiterOfAVacatedPositionMovesIn) {
  put({.key = 1, .ti = 4});
  put({.key = 2, .ti = 4});
  EXPECT_THAT(put({.key = 1, .ti = 5}), ElementsAre("update 1@5", "move 1@5", "add 2@4"));
}

// What a move queues, without the drain: a wrongly woken entry would be blocked again with the same claim.
TEST_F(Programming, MoveUpwardWakesClaimsOfTheOpenedRange) {
  put({.key = 1, .ti = 3, .prio = 20});
  for (U32 ti = 4; ti <= 10; ++ti) wait(100 + ti, ti, 15);
  wait(200, 2, 25);
  EXPECT_THAT(woken({.key = 1, .ti = 11, .prio = 20}), ElementsAre(104, 105, 106, 107, 108, 109, 110));
}

TEST_F(Programming, MoveFromTenToThreeWakesClaimsOnFourToNine) {
  put({.key = 1, .ti = 10, .prio = 20});
  for (U32 ti = 4; ti <= 9; ++ti) wait(100 + ti, ti, 30);
  wait(103, 2, 30);
  EXPECT_THAT(woken({.key = 1, .ti = 3, .prio = 20}), ElementsAre(104, 105, 106, 107, 108, 109));
}

TEST_F(Programming, QueuesTheVacatedPositionsWaiterFirst) {
  put({.key = 1, .ti = 10, .prio = 20});
  wait(101, 4, 30);
  wait(102, 10, 20);
  EXPECT_THAT(woken({.key = 1, .ti = 3, .prio = 20}), ElementsAre(102, 101));
}

TEST_F(Programming, ClaimsOfOtherGroupsInTheRangeAreLeftAlone) {
  put({.key = 1, .ti = 10, .prio = 20, .pg = 0});
  put({.key = 2, .ti = 12, .prio = 20, .pg = 1});
  wait(101, 5, 30, 0);
  wait(102, 6, 30, 1);
  EXPECT_THAT(woken({.key = 1, .ti = 3, .prio = 20}), ElementsAre(101));
}

TEST_F(Programming, MovingDownAnEqualNeighbourAboveOpensNothing) {
  put({.key = 1, .ti = 10, .prio = 20});
  put({.key = 2, .ti = 11, .prio = 20});
  wait(101, 5, 30);
  EXPECT_THAT(woken({.key = 1, .ti = 3, .prio = 20}), IsEmpty());
}

TEST_F(Programming, MovingUpAnEqualNeighbourBelowOpensNothing) {
  put({.key = 1, .ti = 10, .prio = 20});
  put({.key = 2, .ti = 9, .prio = 20});
  wait(101, 15, 10);
  EXPECT_THAT(woken({.key = 1, .ti = 20, .prio = 20}), IsEmpty());
}

TEST_F(Programming, MovingDownFromAnEqualBelowOpensWhatIsAboveIt) {
  put({.key = 1, .ti = 20, .prio = 20});
  put({.key = 2, .ti = 10, .prio = 20});
  wait(101, 7, 30);
  wait(102, 15, 30);
  EXPECT_THAT(woken({.key = 1, .ti = 5, .prio = 20}), ElementsAre(102)) << "7 still has 2 above it";
}

TEST_F(Programming, MovingUpFromAnEqualAboveOpensWhatIsBelowIt) {
  put({.key = 1, .ti = 3, .prio = 20});
  put({.key = 2, .ti = 10, .prio = 20});
  wait(101, 5, 15);
  wait(102, 15, 15);
  EXPECT_THAT(woken({.key = 1, .ti = 20, .prio = 20}), ElementsAre(101)) << "15 still has 2 below it";
}

TEST_F(Programming, AMoveBetweenEqualNeighboursWakesNobody) {
  put({.key = 1, .ti = 2, .prio = 20});
  put({.key = 2, .ti = 5, .prio = 20});
  put({.key = 3, .ti = 9, .prio = 20});
  wait(101, 7, 30);
  wait(102, 3, 30);
  EXPECT_THAT(woken({.key = 2, .ti = 6, .prio = 20}), IsEmpty());
}

TEST_F(Programming, UpdateAndMoveGetTheFullConfiguration) {
  put({.key = 1, .ti = 4, .prio = 6});
  EntryConfig full = config({.key = 1, .ti = 8, .prio = 7, .pg = 0});
  for (unsigned i = 0; i <= DataKey::max; ++i) full.dataIs(DataKey(i), 1000 + i);
  table->entryQuietlyIs(full);
  client->records.clear();
  handle(1);
  EXPECT_THAT(client->records, ElementsAre(full, full));
}

TEST_F(Programming, TracesItsFunctionName) {
  FacilityLines lines("VantrelFastImpl/8");
  put({.key = 1, .ti = 4});
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/8 processEntry"));
}

TEST_F(Programming, IsTracedInTheRingBuffer) {
  RingRecords records;
  put({.key = 1, .ti = 4, .prio = 6, .opId = version + 1, .hdl = 11});
  EXPECT_THAT(records.take(), Contains("add key:%q hdl:%i [1,1,11]"));
  put({.key = 1, .ti = 4, .prio = 6, .opId = 2 * version + 1, .hdl = 11});
  EXPECT_THAT(records.take(), Contains("noopAck key:%q hdl:%i opId:%q [1,1,11,131073]"));
  put({.key = 1, .ti = 8, .prio = 6, .opId = 3 * version + 2, .hdl = 11});
  auto const taken = records.take();
  EXPECT_THAT(taken, Contains("update key:%q hdl:%i [1,1,11]"));
  EXPECT_THAT(taken, Contains("mov key:%q hdl:%i %i prio:%i to:%i [1,1,11,4,6,8]"));
}

TEST_F(Programming, TheWalkIsTraced) {
  put({.key = 1, .ti = 10, .prio = 20});
  FacilityLines lines("VantrelFastImpl/8");
  put({.key = 1, .ti = 3, .prio = 20});
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/8 walking prio between 4 9"));
}

TEST_F(ProgrammingDeathTest, EntryWithoutExactlyOneTableIndexFails) {
  EntryConfig none(EntryKey(1), OpId(1), 1, 0, 0);
  EntryConfig two = none;
  two.tableIndexIs(TableKey(1), 5);
  EXPECT_DEATH(engine->processEntry(none),
               HasSubstr("assertion failed: entry.tableIndexs() == 1, model file FastVantrelImpl,"));
  EXPECT_DEATH(engine->processEntry(two), HasSubstr("assertion failed: entry.tableIndexs() == 1,"));
}

TEST_F(ProgrammingDeathTest, ProgrammingBeforeInitializationFails) {
  engine->initializedIs(false);
  EXPECT_DEATH(engine->processEntry(config({.key = 1, .ti = 1})),
               HasSubstr("assertion failed: initialized(), model file FastVantrelImpl,"));
}

TEST_F(ProgrammingDeathTest, MoveFromAnUnlistedPositionFails) {
  forge();
  put({.key = 1, .ti = 4});
  state().positions.current.remove(4);
  write({.key = 1, .ti = 5});
  EXPECT_DEATH(handle(1), HasSubstr("assertion failed: rc, model file FastVantrelImpl,"));
}

TEST_F(ProgrammingDeathTest, MoveFromOutsideThePrecedenceIndexFails) {
  forge();
  put({.key = 1, .ti = 4});
  state().positions.precedence.remove(4);
  write({.key = 1, .ti = 5});
  EXPECT_DEATH(handle(1), HasSubstr("assertion failed: rc, model file FastVantrelImpl,"));
}

// The conflict check lets only newer configurations through: the record is damaged behind its back.
TEST_F(ProgrammingDeathTest, OpIdNotNewerThanTheProgrammedOneFails) {
  put({.key = 1, .ti = 4});
  write({.key = 1, .ti = 4});
  auto const damage = [this] {
    Lumelog::Log log;
    log.tapIs([this](std::string_view text, auto) {
      if (text.starts_with("not conflicting key:")) record(1).opId = OpId(~U64{0});
    });
    lg = &log;
    handle(1);
  };
  EXPECT_DEATH(damage(), HasSubstr("assertion failed: entry.opId() > c->opId, model file FastVantrelImpl,"));
}
