// SPDX-License-Identifier: Apache-2.0
// Clean-up: what an engine withdraws when it is destroyed.
#include "ostra/piecewise_map.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {
class Cleanup : public FastWorld {};
}  // namespace

TEST_F(Cleanup, WithoutHandlesOnlyRecordsAndFlushes) {
  RingRecords records;
  engine = nullptr;
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  EXPECT_THAT(records.take(), ElementsAre("doCleanup [1]"));
}

TEST_F(Cleanup, DeletesEntryThenStatusThenFlushesOnce) {
  put({.key = 1, .ti = 4, .opId = 77});
  status->entryIs(EntryStatus(EntryKey(1), OpId(77)));
  engine = nullptr;
  EXPECT_THAT(client->take(), ElementsAre("del 1@4", "delStatus 1", "flush"));
  EXPECT_EQ(client->records.back().opId(), OpId(77));
  EXPECT_EQ(status->size(), 0U);
}

TEST_F(Cleanup, StatelessKeyWithAHandleLosesItsStatusTwice) {
  engine->keyToHandleIs(EntryKey(5), 5);
  engine = nullptr;
  EXPECT_THAT(client->take(), ElementsAre("delStatus 5", "delStatus 5", "flush"));
}

TEST_F(Cleanup, DropsAPendingEntryWithoutAHardwareCall) {
  put({.key = 1, .ti = 4});
  put({.key = 2, .ti = 4});
  client->take();
  engine->doCleanup();
  EXPECT_THAT(client->take(),
              testing::UnorderedElementsAre("del 1@4", "delStatus 1", "delStatus 2", "flush"));
  EXPECT_THAT(state().cstate, IsEmpty());
  EXPECT_EQ(engine->keyToHandle().size(), 2U) << "the clean-up leaves the handle maps";
}

TEST_F(Cleanup, WithoutAHardwareClientNothingIsFlushed) {
  auto const bare = make<FastVantrelImpl>("bare", table, debugConfig, debugStatus, nullptr, 1U);
  bare->doCleanup();
  EXPECT_THAT(client->take(), IsEmpty());
}

TEST_F(Cleanup, ReferencesAreReleased) {
  U32 const clients = client->references();
  U32 const tables = table->references();
  engine = nullptr;
  EXPECT_EQ(client->references(), clients - 1);
  EXPECT_EQ(table->references(), tables - 1);
}

// The first handle stays listed under the key. A key that takes it up again has no handle that is its own,
// and the clean-up goes by those.
TEST_F(Cleanup, MissesAKeyThatTookAnEarlierHandleUpAgain) {
  put({.key = 7, .ti = 3, .hdl = 70});
  put({.key = 7, .ti = 3, .hdl = 71});
  EXPECT_THAT(engine->handleToKey(), testing::SizeIs(2));
  remove(7);
  EXPECT_EQ(engine->handleToKey().find(70)->second, EntryKey(7));
  put({.key = 7, .ti = 3, .hdl = 70});
  EXPECT_THAT(engine->keyToHandle(), IsEmpty());
  client->take();
  engine->doCleanup();
  EXPECT_THAT(client->take(), ElementsAre("flush")) << "the entry stays in hardware";
  EXPECT_TRUE(known(7));
}

TEST_F(Cleanup, LosesAnEntryToAKeyWithItsEarlierHandle) {
  put({.key = 7, .ti = 3, .hdl = 70});
  put({.key = 7, .ti = 3, .hdl = 71});
  EXPECT_THAT(put({.key = 8, .ti = 5, .hdl = 70}), ElementsAre("del 7@3", "add 8@5"));
}
