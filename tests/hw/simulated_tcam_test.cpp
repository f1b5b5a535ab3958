// SPDX-License-Identifier: Apache-2.0
#include "hw/simulated_tcam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "ostra/type_info.h"
#include "shoal/local_table.h"

namespace Hw {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;
using Vantrel::TableKey;

EntryConfig record(U64 key, U64 opId, U16 pg, U32 prio, U32 ti) {
  EntryConfig e(EntryKey(key), OpId(opId), static_cast<U32>(key), pg, prio);
  e.tableIndexIs(TableKey(0), ti);
  return e;
}
// What the engine hands to a delete: group 0, the position to clear.
EntryConfig deleteRecord(U64 key, OpId opId, U32 prio, U32 ti) {
  return record(key, opId.value(), 0, prio, ti);
}

class SimulatedTcamTest : public testing::Test {
 protected:
  // The rule that a call breaks, with the text it is told with.
  template <class Call>
  std::optional<Rule> ruleBroken(Call call) {
    try {
      call();
    } catch (Violation const& violation) {
      said_ = violation.what();
      return violation.rule();
    }
    return std::nullopt;
  }
  OpId acknowledged(U64 key) const { return status_->entry(EntryKey(key)).opId(); }

  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<SimulatedTcam> tcam_ = Ostra::make<SimulatedTcam>("tcam", status_, 1024);
  std::string said_;
};

TEST_F(SimulatedTcamTest, addAcknowledgesAndTakesThePosition) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  EXPECT_EQ(acknowledged(1), OpId(11));
  ASSERT_TRUE(tcam_->at(100));
  EXPECT_EQ(tcam_->at(100)->key, EntryKey(1));
  EXPECT_EQ(tcam_->adds(), 1U);
  EXPECT_EQ(tcam_->entries(), 1U);
  EXPECT_EQ(tcam_->audit(), "");
}

TEST_F(SimulatedTcamTest, updateInPlaceAcknowledges) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->updateEntry(record(1, 12, 0, 10, 100));
  EXPECT_EQ(acknowledged(1), OpId(12));
  EXPECT_EQ(tcam_->updates(), 1U);
}

TEST_F(SimulatedTcamTest, updateBeforeAMoveIsAcknowledgedAtTheMove) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->updateEntry(record(1, 12, 0, 10, 200));
  EXPECT_EQ(acknowledged(1), OpId(11));
  EXPECT_EQ(tcam_->entry(EntryKey(1))->ti, 100U);
  tcam_->moveEntry(record(1, 12, 0, 10, 200));
  EXPECT_EQ(acknowledged(1), OpId(12));
  EXPECT_EQ(tcam_->entry(EntryKey(1))->ti, 200U);
  EXPECT_FALSE(tcam_->at(100));
  EXPECT_EQ(tcam_->moves(), 1U);
}

TEST_F(SimulatedTcamTest, updateBeforeAMoveMayNameAnOccupiedPosition) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 10, 200));
  EXPECT_NO_THROW(tcam_->updateEntry(record(1, 13, 0, 10, 200)));
}

TEST_F(SimulatedTcamTest, requestedDeleteIsAcknowledgedWithTheMarker) {
  tcam_->addEntry(record(1, 11, 3, 10, 100));
  tcam_->deleteEntry(deleteRecord(1, OpId::deleteAcknowledge(), 10, 100));
  EXPECT_EQ(acknowledged(1), OpId::deleteAcknowledge());
  EXPECT_EQ(tcam_->entries(), 0U);
  EXPECT_EQ(tcam_->deletes(), 1U);
  EXPECT_EQ(tcam_->audit(), "");
}

TEST_F(SimulatedTcamTest, otherDeletesRemoveTheStatus) {
  tcam_->addEntry(record(1, 11, 3, 10, 100));
  tcam_->addEntry(record(2, 12, 3, 10, 200));
  tcam_->deleteEntry(deleteRecord(1, OpId(11), 10, 100));
  tcam_->deleteEntryDeadlock(deleteRecord(2, OpId(12), 10, 200));
  EXPECT_EQ(status_->size(), 0U);
  EXPECT_EQ(tcam_->deletes(), 1U);
  EXPECT_EQ(tcam_->deadlockDeletes(), 1U);
}

TEST_F(SimulatedTcamTest, withoutAStatusTableItOnlyChecks) {
  auto const tcam = Ostra::make<SimulatedTcam>("tcam", nullptr, 8);
  tcam->addEntry(record(1, 11, 0, 10, 1));
  tcam->deleteEntry(deleteRecord(1, OpId::deleteAcknowledge(), 10, 1));
  EXPECT_EQ(tcam->violations(), 0U);
}

TEST_F(SimulatedTcamTest, equalPrioritiesAndOtherGroupsNeverClash) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 10, 99));
  tcam_->addEntry(record(3, 13, 1, 99, 98));
  tcam_->addEntry(record(4, 14, 1, 99, 101));
  tcam_->addEntry(record(5, 15, 2, 1, 102));
  EXPECT_EQ(tcam_->violations(), 0U);
}

// Each rule, broken on purpose.

TEST_F(SimulatedTcamTest, recordsNameOnePosition) {
  EntryConfig const none(EntryKey(1), OpId(11), 1, 0, 10);
  EXPECT_EQ(ruleBroken([&] { tcam_->addEntry(none); }), Rule::OnePosition);
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  EntryConfig two = record(1, 12, 0, 10, 101);
  two.tableIndexIs(TableKey(1), 102);
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(two); }), Rule::OnePosition);
  EXPECT_EQ(ruleBroken([&] { tcam_->updateEntry(none); }), Rule::OnePosition);
  EXPECT_EQ(ruleBroken([&] { tcam_->deleteEntry(none); }), Rule::OnePosition);
  EXPECT_THAT(said_, HasSubstr("delete of key 1, which names 0"));
}

TEST_F(SimulatedTcamTest, positionsAreThoseOfTheRow) {
  EXPECT_EQ(ruleBroken([&] { tcam_->addEntry(record(1, 11, 0, 10, 1024)); }), Rule::PositionInRow);
  EXPECT_THAT(said_, HasSubstr("add of key 1 to position 1024, the row has 1024"));
  EXPECT_FALSE(ruleBroken([&] { tcam_->addEntry(record(1, 11, 0, 10, 1023)); }));
}

TEST_F(SimulatedTcamTest, addAndMoveNeedAFreePosition) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 10, 200));
  EXPECT_EQ(ruleBroken([&] { tcam_->addEntry(record(3, 13, 0, 10, 100)); }), Rule::PositionFree);
  EXPECT_THAT(said_, AllOf(HasSubstr("add of key 3 to position 100"),
                           HasSubstr("key 1 (group 0, priority 10, position 100)")));
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(record(2, 13, 0, 10, 100)); }), Rule::PositionFree);
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(record(2, 13, 0, 10, 200)); }), Rule::PositionFree);
  EXPECT_EQ(tcam_->violations(), 3U);
  EXPECT_EQ(tcam_->audit(), "");
}

TEST_F(SimulatedTcamTest, refusesAKeyThatIsThere) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  EXPECT_EQ(ruleBroken([&] { tcam_->addEntry(record(1, 12, 0, 10, 101)); }), Rule::KeyAbsent);
  EXPECT_THAT(said_, HasSubstr("add at 101: key 1 (group 0, priority 10, position 100) is there already"));
}

TEST_F(SimulatedTcamTest, whatIsChangedMustBeThere) {
  EXPECT_EQ(ruleBroken([&] { tcam_->deleteEntry(deleteRecord(1, OpId(1), 10, 100)); }), Rule::KeyPresent);
  EXPECT_EQ(ruleBroken([&] { tcam_->deleteEntryDeadlock(deleteRecord(1, OpId(1), 10, 100)); }),
            Rule::KeyPresent);
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(record(1, 1, 0, 10, 100)); }), Rule::KeyPresent);
  EXPECT_EQ(ruleBroken([&] { tcam_->updateEntry(record(1, 1, 0, 10, 100)); }), Rule::KeyPresent);
  EXPECT_THAT(said_, HasSubstr("update of key 1, which is not in the row"));
}

TEST_F(SimulatedTcamTest, deleteNamesThePositionOfTheEntry) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 10, 101));
  EXPECT_EQ(ruleBroken([&] { tcam_->deleteEntry(deleteRecord(1, OpId(11), 10, 101)); }),
            Rule::PositionOfEntry);
  EXPECT_THAT(said_, HasSubstr("delete at 101: key 1 (group 0, priority 10, position 100)"));
  EXPECT_EQ(tcam_->entries(), 2U);
}

TEST_F(SimulatedTcamTest, prioritiesAscendAfterAnAdd) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  EXPECT_EQ(ruleBroken([&] { tcam_->addEntry(record(2, 12, 0, 9, 500)); }), Rule::PrioritiesAscend);
  EXPECT_THAT(said_, HasSubstr("add: key 1 (group 0, priority 10, position 100) lies before "
                               "key 2 (group 0, priority 9, position 500)"));
  EXPECT_EQ(acknowledged(2), OpId(0)) << "the handler threw before the acknowledgement";
  EXPECT_EQ(ruleBroken([&] { tcam_->addEntry(record(3, 13, 0, 11, 50)); }), Rule::PrioritiesAscend);
  EXPECT_THAT(tcam_->audit(), HasSubstr("lies before"));
}

TEST_F(SimulatedTcamTest, prioritiesAscendAfterAMove) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 20, 200));
  tcam_->addEntry(record(3, 13, 0, 30, 300));
  EXPECT_FALSE(ruleBroken([&] { tcam_->moveEntry(record(2, 14, 0, 20, 150)); }));
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(record(2, 15, 0, 20, 350)); }), Rule::PrioritiesAscend);
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(record(2, 16, 0, 20, 50)); }), Rule::PrioritiesAscend);
}

TEST_F(SimulatedTcamTest, aKeyKeepsItsGroupAndPriority) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 20, 200));
  tcam_->updateEntry(record(1, 13, 7, 99, 100));
  tcam_->moveEntry(record(1, 13, 7, 99, 150));
  EXPECT_EQ(tcam_->entry(EntryKey(1))->pg, 0);
  EXPECT_EQ(tcam_->entry(EntryKey(1))->prio, 10U);
  EXPECT_EQ(ruleBroken([&] { tcam_->moveEntry(record(1, 14, 7, 10, 300)); }), Rule::PrioritiesAscend);
}

TEST_F(SimulatedTcamTest, aHandlerThatReturnsLetsTheRowGoOn) {
  std::vector<Rule> rules;
  tcam_->violationHandlerIs([&](Violation const& violation) { rules.push_back(violation.rule()); });
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->addEntry(record(2, 12, 0, 20, 100));  // has nowhere to go: dropped
  EXPECT_EQ(acknowledged(2), OpId(0));
  tcam_->addEntry(record(3, 13, 0, 5, 101));  // breaks the order: done all the same
  EXPECT_EQ(acknowledged(3), OpId(13));
  EXPECT_THAT(rules, ElementsAre(Rule::PositionFree, Rule::PrioritiesAscend));
  EXPECT_THAT(tcam_->positions(), ElementsAre(Pair(100U, EntryKey(1)), Pair(101U, EntryKey(3))));
  tcam_->violationHandlerIs(nullptr);
  EXPECT_THROW(tcam_->addEntry(record(1, 14, 0, 10, 300)), Violation);
}

TEST_F(SimulatedTcamTest, everythingIsReachedByName) {
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->flush();
  Ostra::TypeInfo const& type = tcam_->typeInfo();
  EXPECT_EQ(type.read(*tcam_, "adds"), Ostra::Value(U64{1}));
  EXPECT_EQ(type.read(*tcam_, "flushes"), Ostra::Value(U64{1}));
  EXPECT_EQ(type.read(*tcam_, "size"), Ostra::Value(U64{1024}));
  EXPECT_THAT(type.members(*tcam_, "positions"),
              ElementsAre(Pair(Ostra::Value(U64{100}), Ostra::Value(U64{1}))));
  type.write(*tcam_, "moveLatency", U64{3});
  EXPECT_EQ(tcam_->moveLatency(), 3U);
  type.invoke(*tcam_, "latencyIs", {U64{7}});
  EXPECT_EQ(tcam_->addLatency(), 7U);
  EXPECT_EQ(tcam_->deleteLatency(), 7U);
  EXPECT_THROW(type.write(*tcam_, "violations", U64{0}), Ostra::AttributeException);
}

TEST_F(SimulatedTcamTest, watchersSeeCountersAndPositions) {
  struct Watcher : SimulatedTcam::Notifiee {
    void onCounter() override { ++counters; }
    void onPosition(U32 ti) override { positions.push_back(ti); }
    int counters = 0;
    std::vector<U32> positions;
  } watcher;
  watcher.notifierIs(tcam_);
  tcam_->addEntry(record(1, 11, 0, 10, 100));
  tcam_->moveEntry(record(1, 12, 0, 10, 90));
  EXPECT_EQ(watcher.counters, 2);
  EXPECT_THAT(watcher.positions, ElementsAre(100U, 90U, 100U)) << "made at 90 before it is broken at 100";
}

// The same rules over a flat array, by full scans.
class Model {
 public:
  explicit Model(U32 size) : row_(size) {}

  std::optional<Rule> add(EntryConfig const& r) {
    if (find(r.key())) return Rule::KeyAbsent;
    if (auto const rule = cannotPlace(r)) return rule;
    row_[position(r)] = SimulatedTcam::Entry{r.key(), r.opId(), r.pg(), r.prio(), position(r)};
    return orderRule();
  }
  std::optional<Rule> move(EntryConfig const& r) {
    auto* const e = find(r.key());
    if (!e) return Rule::KeyPresent;
    if (auto const rule = cannotPlace(r)) return rule;
    row_[position(r)] = **e;
    e->reset();
    return orderRule();
  }
  std::optional<Rule> update(EntryConfig const& r) const {
    return const_cast<Model*>(this)->find(r.key()) ? std::nullopt : std::optional(Rule::KeyPresent);
  }
  std::optional<Rule> del(EntryConfig const& r) {
    auto* const e = find(r.key());
    if (!e) return Rule::KeyPresent;
    if (e != &row_[position(r)]) return Rule::PositionOfEntry;
    e->reset();
    return std::nullopt;
  }
  bool inOrder() const { return !orderRule(); }
  std::vector<EntryKey> keys() const {
    std::vector<EntryKey> keys;
    for (auto const& e : row_)
      if (e) keys.push_back(e->key);
    return keys;
  }

 private:
  using Slot = std::optional<SimulatedTcam::Entry>;
  static U32 position(EntryConfig const& r) { return r.tableIndex(TableKey(0)); }
  Slot* find(EntryKey key) {
    for (Slot& e : row_)
      if (e && e->key == key) return &e;
    return nullptr;
  }
  std::optional<Rule> cannotPlace(EntryConfig const& r) const {
    if (position(r) >= row_.size()) return Rule::PositionInRow;
    if (row_[position(r)]) return Rule::PositionFree;
    return std::nullopt;
  }
  std::optional<Rule> orderRule() const {
    for (std::size_t i = 0; i < row_.size(); ++i)
      for (std::size_t k = i + 1; k < row_.size(); ++k)
        if (row_[i] && row_[k] && row_[i]->pg == row_[k]->pg && row_[i]->prio > row_[k]->prio)
          return Rule::PrioritiesAscend;
    return std::nullopt;
  }
  std::vector<Slot> row_;
};

class RandomWalk : public testing::TestWithParam<unsigned> {};

// Every call is judged as the model judges it. A walk that broke the order starts afresh: from there on the
// row would only look at the neighbours of what changes, the model at everything.
TEST_P(RandomWalk, judgesLikeTheModel) {
  std::mt19937 random(GetParam());
  auto const pick = [&random](U32 n) { return static_cast<U32>(random() % n); };
  for (int round = 0; round < 200; ++round) {
    auto const tcam = Ostra::make<SimulatedTcam>("tcam", nullptr, 12);
    std::optional<Rule> told;
    tcam->violationHandlerIs([&](Violation const& violation) { told = violation.rule(); });
    Model model(12);
    for (U64 step = 1; step < 200 && model.inOrder(); ++step) {
      EntryConfig const r = record(1 + pick(8), step, static_cast<U16>(pick(2)), pick(3), pick(13));
      told.reset();
      std::optional<Rule> expected;
      switch (pick(5)) {
        case 0:
        case 1:
          tcam->addEntry(r), expected = model.add(r);
          break;
        case 2:
          tcam->moveEntry(r), expected = model.move(r);
          break;
        case 3:
          tcam->updateEntry(r), expected = model.update(r);
          break;
        case 4:
          if (r.tableIndex(TableKey(0)) == 12) continue;
          tcam->deleteEntry(r), expected = model.del(r);
      }
      ASSERT_EQ(told, expected) << "seed " << GetParam() << " round " << round << " step " << step;
      std::vector<EntryKey> keys;
      for (auto const& [ti, key] : tcam->positions()) keys.push_back(key);
      ASSERT_EQ(keys, model.keys());
      ASSERT_EQ(tcam->audit().empty(), model.inOrder()) << tcam->audit();
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Seeds, RandomWalk, testing::Range(1U, 11U));

}  // namespace
}  // namespace Hw
