// SPDX-License-Identifier: Apache-2.0
// Why an entry waits: the engine says it for each key, and changes nothing by saying so.
#include <ctime>
#include <optional>

#include "ostra/exception.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;
using Kind = WaitReason::Kind;

namespace {

class Reason : public FastWorld {
 protected:
  WaitReason why(U64 key) { return engine->waitReason(EntryKey(key)); }
  void expectOther(WaitReason const& reason, U64 key, U32 prio, U32 ti) {
    ASSERT_TRUE(reason.other);
    EXPECT_EQ(reason.other->key, EntryKey(key));
    EXPECT_EQ(reason.other->prio, prio);
    EXPECT_EQ(reason.other->ti, ti);
  }
};

}  // namespace

TEST_F(Reason, IsNoneForWhoIsUnknownOrWhereItWants) {
  put({.key = 1, .ti = 7});
  EXPECT_EQ(why(1).kind, Kind::None);
  EXPECT_EQ(why(2).kind, Kind::None);
}

TEST_F(Reason, NamesTheOccupant) {
  put({.key = 1, .ti = 7, .prio = 20, .pg = 3});
  put({.key = 2, .ti = 9, .prio = 30, .pg = 3, .opId = 500});
  put({.key = 2, .ti = 7, .prio = 30, .pg = 3, .opId = 600});
  WaitReason const reason = why(2);
  EXPECT_EQ(reason.kind, Kind::Occupied);
  EXPECT_EQ(reason.opId, OpId(600));
  EXPECT_EQ(reason.ti, 7U);
  EXPECT_EQ(reason.programmedAt, 9U);
  EXPECT_EQ(reason.prio, 30U);
  EXPECT_EQ(reason.pg, 3U);
  expectOther(reason, 1, 20, 7);
}

TEST_F(Reason, NamesTheNeighbourBehindWithLessPriority) {
  put({.key = 1, .ti = 7, .prio = 20});
  put({.key = 2, .ti = 6, .prio = 30});
  WaitReason const reason = why(2);
  EXPECT_EQ(reason.kind, Kind::Priority);
  EXPECT_EQ(reason.ti, 6U);
  EXPECT_EQ(reason.programmedAt, noIndex);
  EXPECT_EQ(reason.prio, 30U);
  expectOther(reason, 1, 20, 7);
}

TEST_F(Reason, NamesTheNeighbourBeforeWithMorePriority) {
  put({.key = 1, .ti = 7, .prio = 20});
  put({.key = 2, .ti = 8, .prio = 10});
  EXPECT_EQ(why(2).kind, Kind::Priority);
  expectOther(why(2), 1, 20, 7);
}

// Since the engine first had to let this configuration wait, whatever it waits for since then.
TEST_F(Reason, TellsSinceWhenAConfigurationWaits) {
  put({.key = 1, .ti = 7, .prio = 20});
  U64 const before = static_cast<U64>(std::time(nullptr));
  put({.key = 2, .ti = 7, .prio = 30});
  EXPECT_GE(why(2).since + 1, before);  // its clock ticks some milliseconds late
  EXPECT_LE(why(2).since, static_cast<U64>(std::time(nullptr)));
  constexpr U32 hour = 3600;
  CState_s& c = record(2);
  c.p = {c.p.opId, c.p.ti, c.p.type, waitClock(hour)};
  put({.key = 3, .ti = 8, .prio = 25});
  put({.key = 1, .ti = 6, .prio = 20});
  EXPECT_EQ(why(2).kind, Kind::Priority);
  EXPECT_LE(why(2).since, before - hour + 1);
  put({.key = 2, .ti = 8, .prio = 30});
  EXPECT_EQ(why(2).kind, Kind::Occupied);
  EXPECT_EQ(why(2).ti, 8U);
  EXPECT_GE(why(2).since + 1, before) << "another configuration";
}

// Priorities that count are the first that the engine saw.
TEST_F(Reason, TellsThePriorityThatTheOrderIsJudgedBy) {
  put({.key = 1, .ti = 7, .prio = 20});
  put({.key = 2, .ti = 9, .prio = 30});
  put({.key = 2, .ti = 5, .prio = 10});
  EXPECT_EQ(why(2).prio, 30U);
}

TEST_F(Reason, NamesTheNewerClaimantOfALostClaim) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7, .opId = 600});
  put({.key = 3, .ti = 7, .prio = 40, .opId = 700});
  WaitReason const reason = why(2);
  EXPECT_EQ(reason.kind, Kind::NoClaim);
  EXPECT_EQ(reason.opId, OpId(600));
  EXPECT_EQ(reason.ti, 7U);
  expectOther(reason, 3, 40, noIndex);
  EXPECT_EQ(why(3).kind, Kind::Occupied);
}

TEST_F(Reason, NamesTheClaimantThatGotThere) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7, .opId = 600});
  put({.key = 3, .ti = 7, .prio = 40, .opId = 700});
  EXPECT_THAT(remove(1), ElementsAre("del 1@7", "add 3@7"));
  EXPECT_EQ(why(2).kind, Kind::NoClaim);
  expectOther(why(2), 3, 40, 7);
}

// An older one that is there, or waits, did not take the claim: the key has just not been handled.
TEST_F(Reason, NamesNobodyForWhoWasNotHandled) {
  put({.key = 1, .ti = 7, .opId = 500});
  put({.key = 2, .ti = 9, .opId = 600});
  write({.key = 2, .ti = 7, .opId = 700});
  EXPECT_EQ(why(2).kind, Kind::NoClaim);
  EXPECT_FALSE(why(2).other);
  put({.key = 3, .ti = 7, .opId = 650});
  EXPECT_FALSE(why(2).other);
}

TEST_F(Reason, IsNoneForWhatIsToBeDeleted) {
  put({.key = 1, .ti = 7});
  write({.key = 1, .ti = 9, .del = true});
  EXPECT_EQ(why(1).kind, Kind::None);
  table->entryQuietlyDel(EntryKey(1));
  EXPECT_EQ(why(1).kind, Kind::None);
}

// The retry of 2 fails for good: its claim outlives the occupant.
TEST_F(Reason, NamesNobodyWhenTheObstacleIsGone) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  engine->retryDepsMaxCntIs(1);
  engine->dependants = [](EntryConfig const&, EntryKey const& key) { return key.value() != 2; };
  table->entryQuietlyDel(EntryKey(1));
  EXPECT_THROW(engine->handleEntry(EntryKey(1)), Ostra::InternalException);
  EXPECT_EQ(why(2).kind, Kind::Occupied);
  EXPECT_FALSE(why(2).other);
}

TEST_F(Reason, ReadsDamageAsAbsentAndDoesNotReportIt) {
  auto const damaging = make<Damaging>();
  table = damaging;
  engineIs();
  put({.key = 1, .ti = 7});
  write({.key = 1, .ti = 9});
  EXPECT_EQ(why(1).kind, Kind::NoClaim);
  damaging->corrupt = 1;
  EXPECT_EQ(why(1).kind, Kind::None);
  damaging->corrupt = 0;
  damaging->oversize = 1;
  EXPECT_EQ(why(1).kind, Kind::None);
  damaging->oversize = 0;
  EXPECT_EQ(damaging->corruptions(), 0U);
}
