// SPDX-License-Identifier: Apache-2.0
// The planner's writes, given to the engine: what reaches hardware call by call, in the order in which they
// were planned and in others.
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "producer/producer.h"
#include "shoal/local_table.h"
#include "tests/producer/planner/edits.h"
#include "vantrel/vantrel.h"

namespace Planning {
namespace {

using namespace Vantrel;

// Does each call at once, until the engine cleans up.
class CheckedHardware : public VantrelHelper {
 public:
  using Of = std::function<Hardware&(U64 key)>;  // the flat lists of a key's group
  CheckedHardware(Of of, Ostra::Ptr<TableStatus> status)
      : VantrelHelper("hardware", std::move(status)), of_(std::move(of)) {}
  bool ended = false;
  void addEntry(EntryConfig const& e) override {
    of_(e.key().value()).add(e.key().value(), {position(e), e.prio(), static_cast<U32>(e.data(DataKey(0)))});
    noopAck(e.key(), e.opId());
  }
  void moveEntry(EntryConfig const& e) override {
    of_(e.key().value()).move(e.key().value(), position(e));
    noopAck(e.key(), e.opId());
  }
  void updateEntry(EntryConfig const& e) override { ADD_FAILURE() << "an update of key " << e.key(); }
  void deleteEntry(EntryConfig const& e) override {
    if (!ended) of_(e.key().value()).remove(e.key().value());
    delAck(e.key());
  }
  void deleteEntryDeadlock(EntryConfig const& e) override { ADD_FAILURE() << "a ring with key " << e.key(); }

 private:
  static U32 position(EntryConfig const& e) { return e.tableIndex(TableKey(0)); }
  Of of_;
};

// An engine with its tables. A sink for planned writes of one group.
class Agent {
 public:
  explicit Agent(CheckedHardware::Of of)
      : hardware_(Ostra::make<CheckedHardware>(std::move(of), status_)),
        engine_(Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr, hardware_, 1)) {}
  ~Agent() { hardware_->ended = true; }

  // All as planned; a delete when what is ahead of it is acknowledged. What is written between two deletes is
  // given to the engine in this order, or in a random one.
  void write(std::vector<Write> const& writes, std::mt19937* shuffled, U16 pg = 0) {
    std::vector<U64> keys;
    for (Write const& write : writes) {
      if (write.what == Do::Delete) handOver(keys, shuffled);
      EntryKey const key(write.key);
      if (write.what == Do::Delete) {
        producer_.markDeleted(key);
        engine_->handleEntry(key);
        EXPECT_TRUE(producer_.acknowledged(key));
        producer_.remove(key);
        engine_->handleEntry(key);
        continue;
      }
      if (write.what == Do::Move) {
        producer_.move(key, write.position);
      } else {
        U64 const rule = write.rule;
        producer_.put(
            {.key = key, .pg = pg, .prio = write.priority, .ti = write.position, .data = {&rule, 1}});
      }
      keys.push_back(write.key);
    }
    handOver(keys, shuffled);
    EXPECT_EQ(engine_->deadlockCount(), 0U);
  }

 private:
  void handOver(std::vector<U64>& keys, std::mt19937* shuffled) {
    if (shuffled) std::shuffle(keys.begin(), keys.end(), *shuffled);
    for (U64 const key : keys) engine_->handleEntry(EntryKey(key));
    for (U64 const key : keys) EXPECT_TRUE(producer_.acknowledged(EntryKey(key))) << "key " << key;
    keys.clear();
  }

  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<CheckedHardware> hardware_;
  Ostra::Ptr<FastVantrelImpl> engine_;
  Producer producer_{config_, status_, Mapping::fast()};
};

struct Case {
  World world;
  U32 size;
};
class EngineEdits : public testing::TestWithParam<Case> {};

void edit(Case const& c, bool shuffle) {
  for (U64 seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Hardware hardware;
    Agent agent([&hardware](U64) -> Hardware& { return hardware; });
    std::mt19937 random(static_cast<U32>(seed));
    Edits edits(seed, c.world, {.size = c.size}, hardware,
                [&](std::vector<Write> const& writes) { agent.write(writes, shuffle ? &random : nullptr); });
    for (int i = 0; i < 200; ++i) {
      edits.one();
      if (testing::Test::HasFailure()) return;
    }
    EXPECT_GT(hardware.moves, 0U);
  }
}

TEST_P(EngineEdits, ArriveWithoutRingsInPlannedOrder) { edit(GetParam(), false); }
TEST_P(EngineEdits, ArriveWithoutRingsInAnyOrder) { edit(GetParam(), true); }

INSTANTIATE_TEST_SUITE_P(Worlds, EngineEdits,
                         testing::Values(Case{World::Mixed, 20}, Case{World::Dense, 25}, Case{World::All, 15},
                                         Case{World::Sparse, 10}));

TEST(EngineGroups, ArriveInterleavedOverTheSamePositions) {
  constexpr U64 keysOfAGroup = 1000000;
  std::array<Hardware, 3> hardware;
  Agent agent([&hardware](U64 key) -> Hardware& { return hardware[key / keysOfAGroup]; });
  std::mt19937 random(1);
  std::vector<std::unique_ptr<Edits>> groups;
  for (U16 pg = 0; pg < hardware.size(); ++pg) {
    Planner::Settings const window{
        .begin = pg, .size = 15, .stride = 3, .firstKey = 1 + U64{pg} * keysOfAGroup};
    groups.push_back(std::make_unique<Edits>(
        pg, World::Dense, window, hardware[pg],
        [&agent, &random, pg](std::vector<Write> const& writes) { agent.write(writes, &random, pg); }));
  }
  for (int i = 0; i < 600; ++i) {
    groups[random() % groups.size()]->one();
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
}  // namespace Planning
