// SPDX-License-Identifier: Apache-2.0
// Dump and audit: exact lines in exact order, and every inconsistency the audit can find.
#include "vantrel/diag/dump.h"
#include "tests/support/fast_world.h"
#include "vantrel/core/trace.h"

using namespace TestSupport;

namespace {

class Dump : public FastWorld {
 protected:
  // The lines at level 9; the entry trace at 8 is checked once, below.
  Calls dumped() {
    FacilityLines lines("VantrelFastImpl/9");
    engine->dumpState();
    Calls taken = lines.take();
    std::erase_if(taken, [](std::string const& line) { return line.starts_with("VantrelFastImpl/8"); });
    for (std::string& line : taken) line.erase(0, std::string("VantrelFastImpl/9 ").size());
    return taken;
  }
  std::string lineOf(U32 index, EntryConfig const& c, CState_s const& r) {
    FacilityLines lines("VantrelFastImpl/9");
    dumpEntry(index, c, &r, OpId(), maximum);
    return lines.take().at(0).substr(std::string("VantrelFastImpl/9 ").size());
  }
  void loud() { traceSettingIs("VantrelFastImpl/9"); }
  OpId maximum;
};
using DumpDeathTest = Dump;

}  // namespace

TEST_F(Dump, OversizeRecordThrowsTheSizeError) {
  auto const big = make<Oversize>();
  auto const own = make<FastVantrelImpl>("own", big, debugConfig, debugStatus, client, 1U);
  big->entryQuietlyIs(config({.key = 1, .ti = 1}));
  own->handleEntry(EntryKey(1));
  EXPECT_NO_THROW(own->dumpState());
  big->oversize = true;
  EXPECT_THROW(own->dumpState(), Pallo::InvalidSizeException);
  big->oversize = false;
}

TEST_F(Dump, OneEntrysLineHasEveryPart) {
  CState_s r{EntryKey(77), OpId(11), {OpId(12), 9, PendingType::Occupied}, 5, 4, 30, 1};
  EntryConfig c(EntryKey(77), OpId(12), 5, 1, 30);
  c.tableIndexIs(TableKey(0), 9);
  EXPECT_EQ(lineOf(4, c, r), "[4]=77->cti:9 cOpId:12 sti:4 sOpId:11 pending:9 pOpId:12 OCC prio:30 pg:1");
  EXPECT_EQ(maximum, OpId(12));
  r.p.type = PendingType::Priority;
  r.p.opId = OpId(99);
  EXPECT_EQ(lineOf(4, c, r), "[4]=77->cti:9 cOpId:12 sti:4 sOpId:11 pending:9 pOpId:99 PRIO prio:30 pg:1");
  EXPECT_EQ(maximum, OpId(99));
  r.p.type = PendingType::None;
  EXPECT_EQ(lineOf(4, c, r), "[4]=77->cti:9 cOpId:12 sti:4 sOpId:11 pending:9 pOpId:99 prio:30 pg:1");
}

// Each of the three, when it is the greatest that is shown.
TEST_F(Dump, ALineRaisesTheMaximumToEveryOpIdItShows) {
  CState_s r{EntryKey(77), OpId(11), {OpId(12), 9, PendingType::Occupied}, 5, 4, 30, 1};
  EntryConfig c(EntryKey(77), OpId(13), 5, 1, 30);
  c.tableIndexIs(TableKey(0), 9);
  lineOf(4, c, r);
  EXPECT_EQ(maximum, OpId(13)) << "wanted";
  r.opId = OpId(14);
  lineOf(4, c, r);
  EXPECT_EQ(maximum, OpId(14)) << "programmed";
  r.p.opId = OpId(15);
  lineOf(4, c, r);
  EXPECT_EQ(maximum, OpId(15)) << "waiting";
  r.sti = r.p.ti = noIndex;
  r.opId = r.p.opId = OpId(16);
  lineOf(noIndex, EntryConfig(EntryKey(0), OpId(0), 0, 0, 0), r);
  lineOf(4, c, r);
  EXPECT_EQ(maximum, OpId(15)) << "what a line does not show does not count, and it never falls";
}

TEST_F(Dump, IdleRecordShowsOnlyPriorityAndGroup) {
  CState_s const r{EntryKey(77), OpId(0), {OpId(0), noIndex, PendingType::None}, 5, noIndex, 30, 1};
  EntryConfig c(EntryKey(77), OpId(12), 5, 1, 30);
  c.tableIndexIs(TableKey(0), 9);
  EXPECT_EQ(lineOf(noIndex, c, r), "[A]=77->cti:9 cOpId:12 prio:30 pg:1");
  EXPECT_EQ(lineOf(noIndex, EntryConfig(), r), "[A]=77->delete prio:30 pg:1");
}

TEST_F(Dump, AnEmptyEngineWritesOnlyTheCurrentHeading) {
  EXPECT_THAT(dumped(), ElementsAre("Current [ti]=key"));
}

TEST_F(Dump, SectionsComeInOrderEachAscending) {
  put({.key = 2, .ti = 5, .prio = 10, .opId = 22});
  put({.key = 1, .ti = 1, .prio = 10, .opId = 21});
  put({.key = 3, .ti = 5, .prio = 10, .opId = 23});
  EXPECT_THAT(dumped(), ElementsAre("Precedence [pti]=key",                                       //
                                    "[1]=1->cti:1 cOpId:21 sti:1 sOpId:21 prio:10 pg:0",          //
                                    "[5]=2->cti:5 cOpId:22 sti:5 sOpId:22 prio:10 pg:0",          //
                                    "Pending [ti]=key -> pending_ti",                             //
                                    "[5]=3->cti:5 cOpId:23 pending:5 pOpId:23 OCC prio:10 pg:0",  //
                                    "Current [ti]=key",                                           //
                                    "[A]=3->cti:5 cOpId:23 pending:5 pOpId:23 OCC prio:10 pg:0",  //
                                    "[1]=1->cti:1 cOpId:21 sti:1 sOpId:21 prio:10 pg:0",          //
                                    "[5]=2->cti:5 cOpId:22 sti:5 sOpId:22 prio:10 pg:0"));
}

TEST_F(Dump, PrecedenceIsListedUnderThePrecedenceIndex) {
  put({.key = 1, .ti = 1000, .pg = 3, .opId = 21});
  EXPECT_THAT(dumped(), Contains("[1573864]=1->cti:1000 cOpId:21 sti:1000 sOpId:21 prio:10 pg:3"));
}

TEST_F(Dump, AKeyThatTheProducerRemovedPrintsDelete) {
  put({.key = 1, .ti = 1, .opId = 21});
  table->entryQuietlyDel(EntryKey(1));
  EXPECT_THAT(dumped(), Contains("[1]=1->delete sti:1 sOpId:21 prio:10 pg:0"));
}

TEST_F(Dump, FunctionEntryIsTraced) {
  FacilityLines lines("VantrelFastImpl/8");
  engine->dumpState();
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("dumpState")));
}

TEST_F(Dump, ChangesNothing) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  dumped();
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_EQ(record(1).sti, 1U);
  EXPECT_THAT(client->calls, IsEmpty());
}

TEST_F(Dump, RunsAroundEachKeyWhileDebugIsOn) {
  engine->debugEnabledIs(true);
  FacilityLines lines("VantrelFastImpl/9");
  put({.key = 1, .ti = 1, .opId = 21});
  auto const taken = lines.take();
  EXPECT_EQ(std::ranges::count(taken, "VantrelFastImpl/9 Current [ti]=key"), 2);
  EXPECT_FALSE(engine->dirty());
}

TEST_F(Dump, PendingListsTheClaimsOnly) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  FacilityLines lines("VantrelFastImpl/8");
  engine->dumpPending();
  EXPECT_THAT(lines.take(), ElementsAre("VantrelFastImpl/8 Pending key=2 index: 7"));
}

TEST_F(Dump, PendingBeforeInitializationWritesNothing) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  engine->initializedIs(false);
  FacilityLines lines("VantrelFastImpl/9");
  engine->dumpPending();
  EXPECT_THAT(lines.take(), IsEmpty());
  engine->initializedIs(true);
}

// A position that no record claims is looked up under key 0. Where there is such a key, it is dumped, under
// its own position.
TEST_F(Dump, AnUnclaimedIndexShowsKeyZeroIfThereIsOne) {
  forge();
  put({.key = 0, .ti = 3, .opId = 21});
  *state().positions.current.insert(9) = &record(0);
  EXPECT_THAT(dumped(),
              ElementsAre("Precedence [pti]=key", "[3]=0->cti:3 cOpId:21 sti:3 sOpId:21 prio:10 pg:0",
                          "Current [ti]=key", "[3]=0->cti:3 cOpId:21 sti:3 sOpId:21 prio:10 pg:0",
                          "[3]=0->cti:3 cOpId:21 sti:3 sOpId:21 prio:10 pg:0"));
  state().positions.current.remove(9);
}

TEST_F(DumpDeathTest, MisplacedClaimIsFatalAfterTheDump) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  auto const damage = [this] {
    loud();
    record(2).p.ti = 8;
    engine->dumpState();
  };
  EXPECT_DEATH(damage(), testing::ContainsRegex("\\[7\\]=2->[^\n]* OCC prio:10 pg:0\n"
                                                "[^\n]*pending index mismatch 2 at 8 expected at 7\n"));
  EXPECT_DEATH(damage(), testing::ContainsRegex("Current(.|\n)*assertion failed: fatal == false, model file "
                                                "FastVantrelImpl,"));
}

TEST_F(DumpDeathTest, DuplicatePositionIsFatalAfterTheDump) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 8});
  auto const damage = [this] {
    loud();
    record(2).sti = 7;
    state().positions.current.remove(8);
    engine->dumpState();
  };
  EXPECT_DEATH(damage(), testing::ContainsRegex(
                             "duplicate ti 7 key (1 existing key 2\n.*\\[7\\]=1->|"
                             "2 existing key 1\n.*\\[7\\]=2->)(.|\n)*assertion failed: fatal == false, model "
                             "file FastVantrelImpl,"))
      << "the later one is there then";
}

TEST_F(DumpDeathTest, DuplicatePositionStopsOnADifferingCount) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 8});
  put({.key = 3, .ti = 9});
  auto const damage = [this] {
    loud();
    record(2).sti = 7;
    state().positions.current.remove(8);
    state().positions.current.remove(9);
    engine->dumpState();
  };
  EXPECT_DEATH(damage(),
               testing::ContainsRegex("duplicate ti 7 (.|\n)*Occupied \\[ti\\] count: 1 current 2(.|\n)*"
                                      "assertion failed: count == occupied.size"));
}

TEST_F(DumpDeathTest, AnIndexWithoutARecordFailsItsAssertion) {
  put({.key = 1, .ti = 7});
  auto const damage = [this] {
    loud();
    *state().positions.current.insert(9) = &record(1);
    engine->dumpState();
  };
  EXPECT_DEATH(damage(), HasSubstr("assertion failed: c, model file FastVantrelImpl,"));
}

TEST_F(DumpDeathTest, CountMismatchListsTheIndexThenIsFatal) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 8});
  auto const damage = [this] {
    loud();
    state().positions.current.remove(8);
    engine->dumpState();
  };
  EXPECT_DEATH(damage(), testing::ContainsRegex("Occupied \\[ti\\] count: 1 current 2\n.*\\[7\\]\n"));
  EXPECT_DEATH(damage(),
               HasSubstr("assertion failed: count == occupied.size(), model file FastVantrelImpl,"));
}

TEST_F(DumpDeathTest, ANullRecordFailsItsAssertion) {
  OpId max;
  EXPECT_DEATH(dumpEntry(1, EntryConfig(), nullptr, OpId(), max),
               HasSubstr("assertion failed: c, model file FastVantrelImpl,"));
}
