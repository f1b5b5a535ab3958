// SPDX-License-Identifier: Apache-2.0
// What docs/limits.md says of hardware that refuses, is full, or outlives its agent.
#include <gmock/gmock.h>

#include "hw/adoption.h"
#include "hw/simulated_tcam.h"
#include "ostra/piecewise_map.h"
#include "shoal/local_table.h"
#include "tests/support/temp_dir.h"
#include "vantrel/vantrel.h"

namespace Hw {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

constexpr EntryKey key(1);

EntryConfig entry(U64 opId, U32 prio, U32 ti, U64 data = 0) {
  EntryConfig e(key, OpId(opId), 1, 0, prio);
  e.tableIndexIs(TableKey(0), ti);
  e.dataIs(Vantrel::DataKey(0), data);
  return e;
}

// An agent that takes over the row's contents when it starts, and keeps them when it goes.
class Agent {
 public:
  Agent(std::string const& file, EntryConfig const& wanted) {
    tcam->contentsFileIs(file);
    config->entryIs(wanted);
    adopted = adopt(*engine, *executor, *tcam, *config);
    frontEnd = Vantrel::vantrelSmFactory(config, status, nullptr, nullptr, engine, nullptr, nullptr);
  }
  ~Agent() {
    frontEnd = nullptr;
    executor->detach();
  }

  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Shoal::LocalTable<Vantrel::EntryStatus>> const status =
      Ostra::make<Shoal::LocalTable<Vantrel::EntryStatus>>();
  Ostra::Ptr<SimulatedTcam> const tcam = Ostra::make<SimulatedTcam>("tcam", nullptr, 16);
  Ostra::Ptr<Executor> const executor =
      Ostra::make<Executor>("executor", status, *tcam, Ostra::make<Keel::TimerfdWheel>());
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine =
      Ostra::make<Vantrel::FastVantrelImpl>("engine", config, nullptr, nullptr, executor, 1);
  Ostra::Ptr<Vantrel::VantrelSm> frontEnd;
  Adopted adopted;
};

class Limits : public testing::Test {
 protected:
  OpId acknowledged(Agent const& agent) const { return agent.status->entry(key).opId(); }

  TestSupport::TempDir dir;
  std::string const file = dir / "state";
};

TEST_F(Limits, ARefusedMoveLeavesItsKeyOut) {
  Agent agent(file, entry(0x10000, 10, 5));
  agent.tcam->capacityIs(1);
  agent.config->entryIs(entry(0x20000, 10, 6));
  EXPECT_FALSE(agent.tcam->entry(key));
  EXPECT_TRUE(agent.executor->failed().contains(key));
  EXPECT_EQ(acknowledged(agent), OpId()) << "the version before is not in effect any more";
  agent.config->entryIs(entry(0x30001, 10, 6));
  EXPECT_EQ(agent.tcam->at(6)->opId, OpId(0x30001)) << "a next version is tried again";
  EXPECT_EQ(acknowledged(agent), OpId(0x30001));
}

TEST_F(Limits, ARefusedUpdateIsTriedInTheNextVersion) {
  Agent agent(file, entry(0x10001, 10, 5));
  agent.tcam->refusedRateIs(1);
  agent.config->entryIs(entry(0x20002, 10, 5));
  EXPECT_EQ(agent.tcam->at(5)->opId, OpId(0x10001));
  EXPECT_EQ(acknowledged(agent), OpId(0x10001));
  agent.tcam->refusedRateIs(0);
  agent.config->entryIs(entry(0x30002, 10, 5));
  EXPECT_EQ(agent.tcam->at(5)->opId, OpId(0x30002)) << "a next version is tried again";
  EXPECT_EQ(acknowledged(agent), OpId(0x30002));
}

TEST_F(Limits, TheSameRecordIsAdoptedUnwritten) {
  { Agent const first(file, entry(0x10000, 10, 5)); }
  Agent const second(file, entry(0x10000, 10, 5));
  EXPECT_EQ(second.adopted.entries, 1U);
  EXPECT_EQ(second.tcam->writes(), 0U);
  EXPECT_EQ(acknowledged(second), OpId(0x10000));
}

TEST_F(Limits, AnotherPriorityIsErasedAndAddedAnew) {
  { Agent const first(file, entry(0x10000, 10, 5)); }
  Agent const second(file, entry(0x20000, 20, 5));
  EXPECT_EQ(second.adopted.erased, 1U);
  EXPECT_EQ(second.tcam->deletes(), 1U);
  EXPECT_EQ(second.tcam->adds(), 1U);
  EXPECT_EQ(second.tcam->at(5)->prio, 20U);
}

TEST_F(Limits, OnlyVersionOneIsErasedWhenItDiffers) {
  { Agent const first(file, entry(0x10000, 10, 5)); }
  {
    Agent const second(file, entry(2, 10, 5, 7));
    EXPECT_EQ(second.adopted.erased, 0U);
    EXPECT_EQ(second.tcam->at(5)->opId, OpId(2));
  }
  Agent const third(file, entry(1, 10, 5, 8));
  EXPECT_EQ(third.adopted.erased, 1U);
  EXPECT_EQ(third.tcam->deletes(), 1U);
  EXPECT_EQ(third.tcam->at(5)->opId, OpId(1));
}

TEST_F(Limits, VersionsBegunAnewAreRewrittenInPlace) {
  { Agent const first(file, entry(0x50000, 10, 5)); }
  Agent const second(file, entry(0x10000, 10, 5));
  EXPECT_EQ(second.adopted.erased, 0U);
  EXPECT_EQ(second.tcam->updates(), 1U);
  EXPECT_EQ(second.tcam->deletes(), 0U);
  EXPECT_EQ(acknowledged(second), OpId(0x10000));
}

}  // namespace
}  // namespace Hw
