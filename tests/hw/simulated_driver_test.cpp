// SPDX-License-Identifier: Apache-2.0
// The simulated row as a driver: late, busy, refusing, full, dead, and with contents that outlive it.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <fstream>
#include <map>

#include "hw/simulated_tcam.h"
#include "ostra/exception.h"
#include "shoal/error.h"
#include "tests/support/temp_dir.h"

namespace Hw {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;
using Kind = Outcome::Kind;

EntryConfig entry(U64 key, U64 opId, U32 prio, U32 ti) {
  EntryConfig e(EntryKey(key), OpId(opId), static_cast<U32>(key), 0, prio);
  e.tableIndexIs(TableKey(0), ti);
  e.dataIs(Vantrel::DataKey(0), 100 + key);
  return e;
}

class SimulatedDriverTest : public testing::Test {
 public:
  SimulatedDriverTest() { tcamIs(16); }

 protected:
  void tcamIs(U32 size) {
    tcam = Ostra::make<SimulatedTcam>("tcam", nullptr, size);
    tcam->violationHandlerIs([this](Violation const& v) { violations.emplace_back(v.what()); });
    tcam->completedIs([this](U64 call, Outcome const& outcome) { completed[call] = outcome; });
  }
  Kind write(EntryConfig const& e) { return tcam->write(e, e.tableIndex(TableKey(0)), ++token).kind; }
  Kind erase(U64 key, U32 ti) { return tcam->erase(EntryKey(key), ti, ++token).kind; }
  // Waits for one completion.
  void completeOne() {
    std::size_t const before = completed.size();
    while (completed.size() == before) {
      pollfd ready{tcam->fd(), POLLIN, 0};
      ASSERT_EQ(::poll(&ready, 1, 10000), 1);
      tcam->dispatch();
    }
  }
  // Position and key, and the key's version and data word.
  std::map<U32, std::string> contents() const {
    std::map<U32, std::string> all;
    tcam->contents([&](U32 ti, EntryConfig const* e) {
      all[ti] = e ? fmt::format("{} {} {}", e->key().value(), e->opId().value(), e->data(Vantrel::DataKey(0)))
                  : "unreadable";
    });
    return all;
  }

  TestSupport::TempDir dir;
  std::string const file = dir / "state";
  Ostra::Ptr<SimulatedTcam> tcam;
  std::vector<std::string> violations;
  std::map<U64, Outcome> completed;
  U64 token = 0;
};

TEST_F(SimulatedDriverTest, AMovedKeyIsAtTwoPositions) {
  EXPECT_EQ(write(entry(1, 1, 10, 5)), Kind::Done);
  EXPECT_EQ(write(entry(1, 2, 10, 6)), Kind::Done);
  EXPECT_THAT(tcam->positions(), ElementsAre(Pair(5, EntryKey(1)), Pair(6, EntryKey(1))));
  EXPECT_EQ(tcam->at(5)->opId, OpId(1));
  EXPECT_EQ(tcam->at(6)->opId, OpId(2));
  EXPECT_EQ(tcam->audit(), "");
  EXPECT_EQ(erase(1, 5), Kind::Done);
  EXPECT_THAT(tcam->positions(), ElementsAre(Pair(6, EntryKey(1))));
  EXPECT_EQ(tcam->audit(), "");
  EXPECT_EQ(tcam->adds(), 1U);
  EXPECT_EQ(tcam->moves(), 1U);
  EXPECT_EQ(tcam->deletes(), 0U);
  EXPECT_EQ(tcam->writes(), 3U);
}

TEST_F(SimulatedDriverTest, AMoveCanBeUndone) {
  write(entry(1, 1, 10, 5));
  write(entry(1, 2, 10, 6));
  erase(1, 6);
  EXPECT_EQ(tcam->entry(EntryKey(1))->ti, 5U);
  EXPECT_EQ(tcam->entry(EntryKey(1))->opId, OpId(1));
  EXPECT_EQ(tcam->audit(), "");
}

TEST_F(SimulatedDriverTest, CallsCanBeRepeated) {
  for (int i = 0; i < 2; ++i) EXPECT_EQ(write(entry(1, 1, 10, 5)), Kind::Done);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(erase(1, 5), Kind::Done);
  EXPECT_THAT(violations, IsEmpty());
  EXPECT_EQ(tcam->updates(), 1U);
  EXPECT_EQ(tcam->deletes(), 1U);
}

TEST_F(SimulatedDriverTest, ChecksOrderAndPositions) {
  write(entry(1, 1, 10, 5));
  write(entry(2, 2, 9, 6));
  write(entry(3, 3, 10, 5));
  erase(3, 6);
  write(entry(4, 4, 10, 16));
  write(entry(1, 5, 10, 7));
  write(entry(1, 6, 10, 8));
  EXPECT_THAT(violations, ElementsAre(HasSubstr("do not decrease"), HasSubstr("the position is free"),
                                      HasSubstr("a delete names the position"), HasSubstr("one of the row's"),
                                      HasSubstr("an added key is not in the row")));
}

TEST_F(SimulatedDriverTest, ALateCallIsDoneAtItsTime) {
  tcam->latencyIs(2000);
  EXPECT_EQ(write(entry(1, 1, 10, 5)), Kind::Later);
  EXPECT_EQ(tcam->entries(), 0U) << "nothing is done before its time";
  completeOne();
  EXPECT_EQ(completed[1].kind, Kind::Done);
  EXPECT_EQ(tcam->entries(), 1U);
  EXPECT_EQ(erase(1, 5), Kind::Later);
  completeOne();
  EXPECT_EQ(tcam->entries(), 0U);
}

TEST_F(SimulatedDriverTest, MoodsAreWhatTheRatesSay) {
  struct {
    void (SimulatedTcam::*rate)(double);
    Kind kind;
  } const moods[] = {{&SimulatedTcam::busyRateIs, Kind::Again},
                     {&SimulatedTcam::refusedRateIs, Kind::Refused},
                     {&SimulatedTcam::unknownRateIs, Kind::Unknown}};
  for (auto const& mood : moods) {
    (*tcam.*mood.rate)(0.5);
    std::map<Kind, int> met;
    for (int i = 0; i < 1000; ++i) ++met[write(entry(1, 1, 10, 5))];
    (*tcam.*mood.rate)(0);
    EXPECT_NEAR(met[mood.kind], 500, 100);
    EXPECT_EQ(met[mood.kind] + met[Kind::Done], 1000);
  }
  EXPECT_THROW(tcam->busyRateIs(1.1), Ostra::AttributeException);
  EXPECT_THROW(tcam->busyRateIs(-0.1), Ostra::AttributeException);
}

TEST_F(SimulatedDriverTest, HalfOfTheUnknownCallsAreDone) {
  tcam->unknownRateIs(1);
  int done = 0;
  for (U64 i = 0; i < 1000; ++i) {
    write(entry(1, 1, 10, 5));
    if (tcam->readBack(5).value()) ++done;
    tcam->unknownRateIs(0);
    erase(1, 5);
    tcam->unknownRateIs(1);
  }
  EXPECT_NEAR(done, 500, 100);
}

TEST_F(SimulatedDriverTest, AFullRowRefuses) {
  tcam->capacityIs(2);
  write(entry(1, 1, 10, 1));
  write(entry(2, 2, 10, 2));
  EXPECT_EQ(write(entry(3, 3, 10, 3)), Kind::Refused);
  EXPECT_EQ(write(entry(2, 4, 10, 2)), Kind::Done) << "an update takes no room";
  erase(1, 1);
  EXPECT_EQ(write(entry(3, 3, 10, 3)), Kind::Done);
}

TEST_F(SimulatedDriverTest, DeadHardwareNeverAnswers) {
  tcam->diesAtIs(2);
  EXPECT_EQ(write(entry(1, 1, 10, 1)), Kind::Done);
  EXPECT_EQ(write(entry(2, 2, 10, 2)), Kind::Later);
  EXPECT_EQ(write(entry(3, 3, 10, 3)), Kind::Later);
  tcam->dispatch();
  EXPECT_THAT(completed, IsEmpty());
  EXPECT_EQ(tcam->entries(), 1U);
}

TEST_F(SimulatedDriverTest, ReadsBackWhatAPositionHolds) {
  write(entry(1, 7, 10, 5));
  EXPECT_EQ(tcam->readBack(5).value(), (Held{EntryKey(1), OpId(7)}));
  EXPECT_EQ(tcam->readBack(6).value(), std::nullopt);
}

TEST_F(SimulatedDriverTest, ItsContentsOutliveIt) {
  EXPECT_EQ(tcam->contentsFileIs(file), 0U);
  write(entry(1, 1, 10, 5));
  write(entry(2, 2, 20, 9));
  write(entry(3, 3, 20, 10));
  write(entry(2, 4, 20, 8));  // moved, and not erased yet
  erase(3, 10);
  std::map<U32, std::string> const held{{5, "1 1 101"}, {8, "2 4 102"}, {9, "2 2 102"}};
  EXPECT_EQ(contents(), held);
  tcamIs(16);
  EXPECT_EQ(tcam->contentsFileIs(file), 0U);
  EXPECT_EQ(contents(), held);
  EXPECT_EQ(tcam->audit(), "");
  EXPECT_EQ(tcam->positions().size(), 3U);
  erase(2, 9);
  EXPECT_EQ(tcam->entry(EntryKey(2))->ti, 8U);
  EXPECT_EQ(tcam->writes(), 1U) << "since its start";
}

TEST_F(SimulatedDriverTest, ASmallerRowForgetsWhatLiesBeyond) {
  tcam->contentsFileIs(file);
  write(entry(1, 1, 10, 5));
  write(entry(2, 2, 20, 9));
  tcamIs(9);
  EXPECT_EQ(tcam->contentsFileIs(file), 1U);
  EXPECT_EQ(contents(), (std::map<U32, std::string>{{5, "1 1 101"}}));
  tcamIs(16);
  EXPECT_EQ(tcam->contentsFileIs(file), 0U);
  EXPECT_EQ(contents().size(), 1U);
}

TEST_F(SimulatedDriverTest, ADamagedPositionIsUnreadable) {
  tcam->contentsFileIs(file);
  for (U32 ti = 1; ti <= 3; ++ti) write(entry(ti, 0x5EAF00D500 + ti, 10, ti));
  tcam = nullptr;
  std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
  std::string const text((std::istreambuf_iterator<char>(bytes)), {});
  U64 const opId = 0x5EAF00D502;
  std::size_t const at = text.find(std::string(reinterpret_cast<char const*>(&opId), sizeof opId));
  ASSERT_NE(at, std::string::npos);
  bytes.seekp(static_cast<std::streamoff>(at)).put('\x55');
  bytes.close();
  tcamIs(16);
  tcam->contentsFileIs(file);
  EXPECT_EQ(contents().at(2), "unreadable");
  EXPECT_EQ(contents().size(), 3U);
  EXPECT_EQ(erase(0, 2), Kind::Done);
  EXPECT_EQ(contents().size(), 2U);
  EXPECT_EQ(write(entry(2, 9, 10, 2)), Kind::Done);
  EXPECT_THAT(violations, IsEmpty());
}

TEST_F(SimulatedDriverTest, RefusesAFileThatIsNoSuchFile) {
  std::ofstream(file) << "a letter";
  EXPECT_THROW(tcam->contentsFileIs(file), Shoal::FileException);
  EXPECT_EQ(std::filesystem::file_size(file), 8U);
}

TEST_F(SimulatedDriverTest, RefusesAFileThatAnotherHas) {
  auto const other = Ostra::make<SimulatedTcam>("other", nullptr, 16U);
  other->contentsFileIs(file);
  EXPECT_THROW(tcam->contentsFileIs(file), Shoal::WriterLockedException);
}

}  // namespace
}  // namespace Hw
