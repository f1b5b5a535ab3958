// SPDX-License-Identifier: Apache-2.0
// Which records the agent's validator lets the engine see, and that hardware stays in order when a producer
// breaks its rules.
#include "apps/vantreld/validator.h"

#include <gmock/gmock.h>

#include "hw/simulated_tcam.h"
#include "ostra/piecewise_map.h"
#include "testing/validated_table.h"

using namespace Vantrel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace {

struct Wish {
  U64 key;
  U64 opId;
  U32 ti;
  U32 prio = 10;
  U16 pg = 0;
  U32 hdl = 0;  // 0: the key
  bool del = false;
};

class ValidatorTest : public testing::Test {
 protected:
  ValidatorTest() {
    setenv("LUMELOG_DISABLE", "1", 1);
    config->validatorIs(&validator);
    frontEnd = vantrelSmFactory(config, status, nullptr, nullptr, engine, nullptr, nullptr);
  }
  static EntryConfig record(Wish const& w) {
    EntryConfig e(EntryKey(w.key), OpId(w.opId), w.hdl ? w.hdl : static_cast<U32>(w.key), w.pg, w.prio);
    e.tableIndexIs(TableKey(0), w.ti);
    e.isDelIs(w.del);
    return e;
  }
  void put(Wish const& w) { config->entryIs(record(w)); }
  void walk() { frontEnd->handleEntryCollNotify(); }
  // What is said of the key, empty when nothing is wrong.
  std::string reason(U64 key) const {
    auto const at = validator.refused().find(EntryKey(key));
    return at == validator.refused().end() ? "" : at->second;
  }
  U64 calls() const {
    return hardware->adds() + hardware->updates() + hardware->moves() + hardware->deletes() +
           hardware->deadlockDeletes();
  }
  U64 acknowledged(U64 key) const { return status->entry(EntryKey(key)).opId().value(); }

  static constexpr U32 size = 16;
  std::vector<std::string> reports;
  Ostra::Ptr<Testing::ValidatedTable> config = Ostra::make<Testing::ValidatedTable>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<Hw::SimulatedTcam> hardware = Ostra::make<Hw::SimulatedTcam>("tcam", status, size);
  Ostra::Ptr<FastVantrelImpl> engine =
      Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, hardware, 1);
  Vantreld::Validator validator{Mapping::fast(), size, *engine,
                                [this](std::string const& what) { reports.push_back(what); }};
  Ostra::Ptr<VantrelSm> frontEnd;
};

}  // namespace

TEST_F(ValidatorTest, LetsGoodAbsentAndMarkedRecordsThrough) {
  put({1, 0x10001, 3});
  put({1, 0x20001, 4});
  put({.key = 1, .opId = 0x30001, .ti = 4, .del = true});
  config->entryDel(EntryKey(1));
  EXPECT_THAT(reports, IsEmpty());
  EXPECT_THAT(validator.refused(), IsEmpty());
  EXPECT_EQ(hardware->entries(), 0U);
}

TEST_F(ValidatorTest, RefusesWhatBreaksTheOrderInHardware) {
  put({1, 0x10001, 3});
  U64 const before = calls();
  put({.key = 1, .opId = 0x20002, .ti = 4, .prio = 11});
  EXPECT_EQ(reason(1), "its priority changed from 10 to 11: delete the key first");
  put({.key = 1, .opId = 0x30003, .ti = 4, .pg = 1});
  EXPECT_EQ(reason(1), "its group changed from 0 to 1: delete the key first");
  EXPECT_EQ(calls(), before);
  EXPECT_EQ(acknowledged(1), 0x10001U);
  EXPECT_THAT(reports, SizeIs(2));
}

TEST_F(ValidatorTest, RefusesAHandleThatChanges) {
  put({1, 0x10001, 3});
  for (U32 hdl = 100; hdl < 200; ++hdl) put({.key = 1, .opId = 0x20002U + hdl, .ti = 3, .hdl = hdl});
  EXPECT_EQ(reason(1), "its handle changed from 1 to 199: delete the key first");
  EXPECT_THAT(engine->handleToKey(), SizeIs(1));
}

TEST_F(ValidatorTest, LetsADeletedKeyComeBackAsAnother) {
  put({1, 0x50001, 3});
  config->entryDel(EntryKey(1));
  put({.key = 1, .opId = 0x20001, .ti = 5, .prio = 20, .pg = 3, .hdl = 77});
  EXPECT_THAT(reports, IsEmpty());
  EXPECT_EQ(acknowledged(1), 0x20001U);
}

TEST_F(ValidatorTest, LetsANewKeyTakeAHandleOver) {
  put({1, 0x10001, 3});
  put({.key = 2, .opId = 0x20001, .ti = 5, .hdl = 1});
  EXPECT_THAT(reports, IsEmpty());
  EXPECT_EQ(hardware->entries(), 1U) << "the former owner is deleted";
}

TEST_F(ValidatorTest, RefusesVersionsThatGoBackOrMeanSomethingElse) {
  put({1, 0x50001, 3});
  put({1, 0x40001, 4});
  EXPECT_THAT(reason(1), HasSubstr("expected one above 327681, which is programmed"));
  put({2, 0, 4});
  EXPECT_EQ(reason(2), "OpId 0: expected one above 0");
  put({3, OpId::deleteAcknowledge().value() + 5, 4});
  EXPECT_THAT(reason(3), HasSubstr("which acknowledges a delete"));
  EXPECT_EQ(hardware->entries(), 1U);
  put({4, 0x60001, 3});
  put({4, 0x80001, 6});
  put({4, 0xA0001, 3});
  put({4, 0x90001, 3});
  EXPECT_THAT(reason(4), HasSubstr("which waits"));
}

TEST_F(ValidatorTest, KeepsWhatIsProgrammedUnderADamagedRecord) {
  put({1, 0x10001, 3});
  U64 const before = calls();
  config->damagedIs(EntryKey(1), true);
  put({1, 0x20001, 5});
  walk();
  walk();
  EXPECT_EQ(calls(), before);
  EXPECT_EQ(acknowledged(1), 0x10001U);
  EXPECT_THAT(reports, ElementsAre("the record is damaged"));
  config->damagedIs(EntryKey(1), false);
  walk();
  EXPECT_EQ(acknowledged(1), 0x20001U);
  EXPECT_THAT(validator.refused(), IsEmpty());
}

TEST_F(ValidatorTest, ForgetsARefusedKeyThatGoes) {
  put({1, 0x10001, 3});
  put({1, 0x20001, size});
  EXPECT_EQ(validator.refusedCount(), 1U);
  config->entryDel(EntryKey(1));
  EXPECT_EQ(validator.refusedCount(), 0U);
  EXPECT_THAT(validator.refused(), IsEmpty());
  EXPECT_EQ(hardware->entries(), 0U);
}

TEST_F(ValidatorTest, EndsTheClaimOfARefusedRecord) {
  put({1, 0x10001, 3});
  put({2, 0x20001, 4});
  put({2, 0x30001, 3});  // waits for key 1
  ASSERT_EQ(engine->numPending(), 1U);
  put({2, 0x40001, size});
  EXPECT_EQ(engine->numPending(), 0U);
  EXPECT_EQ(acknowledged(2), 0x20001U);
  config->entryDel(EntryKey(1));
  EXPECT_EQ(hardware->positions().count(4), 1U) << "it stays where it is";
  put({2, 0x50001, 3});
  EXPECT_EQ(acknowledged(2), 0x50001U);
}

TEST_F(ValidatorTest, LeavesARingWithARefusedMember) {
  put({1, 0x10001, 3});
  put({2, 0x20001, 4});
  put({1, 0x30001, 4});
  config->damagedIs(EntryKey(1), true);
  put({2, 0x40001, 3});
  EXPECT_EQ(hardware->deadlockDeletes(), 0U);
  config->damagedIs(EntryKey(1), false);
  walk();
  EXPECT_EQ(acknowledged(1), 0x30001U);
  EXPECT_EQ(acknowledged(2), 0x40001U);
}

TEST_F(ValidatorTest, ListsAThousandAndCountsAll) {
  for (U64 key = 1; key <= 1500; ++key) put({key, 0x10001, size});
  EXPECT_THAT(validator.refused(), SizeIs(Vantreld::Validator::mostListed));
  EXPECT_EQ(validator.refusedCount(), 1500U);
  EXPECT_THAT(reports, SizeIs(1500));
  for (U64 key = 1; key <= 1500; ++key) config->entryDel(EntryKey(key));
  EXPECT_EQ(validator.refusedCount(), 0U);
  EXPECT_THAT(validator.refused(), IsEmpty());
}
