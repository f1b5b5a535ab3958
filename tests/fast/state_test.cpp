// SPDX-License-Identifier: Apache-2.0
// Construction, attributes, mappings, the record pool.
#include "ostra/exception.h"
#include "ostra/type_info.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {

class Watcher : public FastVantrelImpl::Notifiee {
 public:
  void onPrioGrpShift() override { ++count; }
  void onState() override { ++count; }
  void onDeadlockCount() override { ++count; }
  void onBreakMixedRings() override { ++count; }
  void onNumMixedRings() override { ++count; }
  int count = 0;
};

class EngineState : public FastWorld {};
using FastStateDeathTest = EngineState;

class Atcam : public EngineWorld<FastVantrelAtcamImpl> {};
using AtcamDeathTest = Atcam;

}  // namespace

TEST_F(EngineState, StartsEmptyWithItsDefaults) {
  EXPECT_TRUE(engine->initialized());
  EXPECT_EQ(engine->prioGrpShift(), 19U);
  EXPECT_EQ(engine->deadlockCount(), 0U);
  EXPECT_EQ(engine->numDeadlock(), 0U);
  EXPECT_EQ(engine->numPending(), 0U);
  ASSERT_NE(engine->state(), nullptr);
  EXPECT_EQ(state().lgId(), 1U);
  EXPECT_THAT(state().cstate, IsEmpty());
  EXPECT_THAT(state().blocked, IsEmpty());
  // Boost makes of 16 the next size that it has.
  EXPECT_EQ(state().cstate.bucket_count(), FastState::Records(16).bucket_count());
  EXPECT_EQ(state().blocked.bucket_count(), FastState::Keys(16).bucket_count());
  EXPECT_GE(state().cstate.bucket_count(), 16U);
  EXPECT_EQ(state().cstate.max_load_factor(), 1.0F);
  EXPECT_EQ(state().blocked.max_load_factor(), 1.0F);
}

TEST_F(EngineState, RecordsAreFortyEightBytes) { EXPECT_EQ(sizeof(CState_s), 48U); }

TEST_F(EngineState, RoomForKeysKeepsMapAndPoolFromGrowing) {
  put({.key = 1, .ti = 1});
  U32 const keys = cstatePool().cread + 100;
  engine->roomForKeysIs(keys);
  EXPECT_GE(cstatePool().cread, keys);
  std::size_t const buckets = state().cstate.bucket_count();
  EXPECT_GT(buckets, keys);
  U32 const records = cstatePool().clen;
  for (U64 key = 2; key < 100; ++key) put({.key = key, .ti = static_cast<U32>(key)});
  EXPECT_EQ(state().cstate.bucket_count(), buckets);
  EXPECT_EQ(cstatePool().clen, records);
}

TEST_F(EngineState, AttributesNotifyOnlyOnChange) {
  Watcher w;
  w.notifierIs(engine);
  engine->deadlockCountInc(0);
  engine->deadlockCountIs(0);
  engine->prioGrpShiftIs(19);
  engine->stateIs(engine->state());
  engine->breakMixedRingsIs(false);
  engine->numMixedRingsIs(0);
  EXPECT_EQ(w.count, 0);
  EXPECT_EQ(engine->deadlockCountInc(3), 3U);
  EXPECT_EQ(engine->deadlockCountInc(0xFFFFFFFF), 2U);
  engine->deadlockCountIs(9);
  engine->prioGrpShiftIs(20);
  EXPECT_EQ(w.count, 4);
  engine->breakMixedRingsIs(true);
  engine->numMixedRingsIs(1);
  EXPECT_EQ(w.count, 6);
}

TEST_F(EngineState, InitializingAgainKeepsTheState) {
  FastState* const before = engine->state();
  engine->initializedIs(false);
  FacilityLines lines("VantrelFastImpl/8");
  engine->handleInitialized();
  EXPECT_EQ(engine->state(), before);
  EXPECT_TRUE(engine->initialized());
  EXPECT_THAT(lines.take(), testing::ElementsAre("VantrelFastImpl/8 handleInitialized"));
}

TEST_F(EngineState, UnknownKeyHasOpIdZero) {
  EXPECT_EQ(engine->currentOpId(EntryKey(5)), OpId(0));
  put({.key = 5, .ti = 1, .opId = 77});
  EXPECT_EQ(engine->currentOpId(EntryKey(5)), OpId(77));
}

TEST_F(EngineState, NumPendingIsZeroBeforeInitialization) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  EXPECT_EQ(engine->numPending(), 1U);
  engine->initializedIs(false);
  EXPECT_EQ(engine->numPending(), 0U);
  engine->initializedIs(true);
}

TEST_F(EngineState, EveryAttributeCanBeReachedByName) {
  engine->typeInfo().write(*engine, "prioGrpShift", U64{20});
  EXPECT_EQ(engine->prioGrpShift(), 20U);
  EXPECT_NO_THROW(engine->typeInfo().writeFromOutside(*engine, "prioGrpShift", U64{19}));
  EXPECT_THROW(engine->typeInfo().writeFromOutside(*engine, "prioGrpShift", U64{33}),
               Ostra::AttributeException);
  put({.key = 1, .ti = 1});
  EXPECT_THROW(engine->typeInfo().writeFromOutside(*engine, "prioGrpShift", U64{20}),
               Ostra::AttributeException);
  EXPECT_THROW(engine->typeInfo().writeFromOutside(*engine, "state", std::string("x")),
               Ostra::AttributeException);
  EXPECT_EQ(engine->typeInfo().read(*engine, "deadlockCount"), Ostra::Value(U64{0}));
  EXPECT_EQ(engine->typeInfo().read(*engine, "retryDepsMaxCnt"), Ostra::Value(U64{1000}));
  EXPECT_THAT(client->take(), testing::ElementsAre());
  engine->typeInfo().invoke(*engine, "processDeleteHelper", {U64{1}, true, false});
  EXPECT_THAT(client->take(), testing::ElementsAre("deadlock 1@1"));
}

TEST_F(EngineState, OffersTheNamesOfThisClassBeyondTheBase) {
  std::vector<std::string> const base = offered(VantrelImpl::staticType());
  std::vector<std::string> fast = offered(FastVantrelImpl::staticType());
  ASSERT_TRUE(std::equal(base.begin(), base.end(), fast.begin()));
  std::vector<std::string> const atcam = offered(FastVantrelAtcamImpl::staticType());
  ASSERT_TRUE(std::equal(fast.begin(), fast.end(), atcam.begin()));
  EXPECT_THAT(std::vector(atcam.begin() + static_cast<std::ptrdiff_t>(fast.size()), atcam.end()),
              testing::ElementsAre("maxPartitions U32"));
  fast.erase(fast.begin(), fast.begin() + static_cast<std::ptrdiff_t>(base.size()));
  EXPECT_THAT(fast,
              testing::ElementsAre("prioGrpShift U32", "state reference", "deadlockCount U32",
                                   "deadlockCountInc (U32)", "breakMixedRings bool", "numMixedRings U32",
                                   "processDeleteHelper (U64, bool, bool)", "doCleanup ()"));
}

TEST_F(EngineState, OperationsByNameAnswer) {
  Ostra::TypeInfo const& type = engine->typeInfo();
  put({.key = 1, .ti = 1, .opId = 70000});
  EXPECT_EQ(type.invoke(*engine, "currentOpId", {U64{1}}), Ostra::Value(U64{70000}));
  EXPECT_EQ(type.invoke(*engine, "currentOpId", {U64{2}}), Ostra::Value(U64{0}));
  EXPECT_EQ(type.invoke(*engine, "deadlockCountInc", {U64{2}}), Ostra::Value(U64{2}));
  EXPECT_EQ(engine->deadlockCount(), 2U);
  EXPECT_EQ(type.invoke(*engine, "processDelete", {U64{1}, false}), Ostra::Value(true));
  EXPECT_THAT(client->take(), testing::ElementsAre("del 1@1"));
  EXPECT_EQ(type.invoke(*engine, "currentOpId", {U64{1}}), Ostra::Value(U64{0}));
}

TEST_F(EngineState, AWatcherNeedsNoHandler) {
  FastVantrelImpl::Notifiee watcher;
  watcher.notifierIs(Ptr<FastVantrelImpl const>(engine.get()));
  FastState* const own = engine->state();
  engine->prioGrpShiftIs(20);
  engine->deadlockCountIs(1);
  FastState other;
  engine->stateIs(&other);
  EXPECT_EQ(engine->numPending(), 0U);
  engine->stateIs(own);
  EXPECT_EQ(engine->deadlockCount(), 1U);
}

TEST_F(EngineState, PtiPacksGroupAndPosition) {
  EXPECT_EQ(engine->pti(3, 1000), 1573864U);
  EXPECT_EQ(engine->pti(3, 1000), 0x1803E8U);
  EXPECT_EQ(engine->lti(1573864), 1000U);
  EXPECT_EQ(engine->pti(0, (1U << 19) - 1), (1U << 19) - 1);
  EXPECT_EQ(engine->pti(8191, 0), 0xFFF80000U);
}

TEST_F(EngineState, ShiftsOfThirtyTwoAndMoreAreWellDefined) {
  engine->prioGrpShiftIs(32);
  EXPECT_EQ(engine->pti(0, 0xFFFFFFFE), 0xFFFFFFFEU);
  EXPECT_EQ(engine->lti(0xFFFFFFFE), 0xFFFFFFFEU);
}

TEST_F(FastStateDeathTest, PositionOrGroupOutsideTheMappingFails) {
  EXPECT_DEATH(engine->pti(0, 1U << 19),
               HasSubstr("assertion failed: ti < ( 1UL << prioGrpShift() ), model file FastVantrelImpl,"));
  EXPECT_DEATH(
      engine->pti(8192, 0),
      HasSubstr("assertion failed: pg < ( 1UL << ( 32 - prioGrpShift() ) ), model file FastVantrelImpl,"));
}

TEST_F(Atcam, MapsPartitionThenOffset) {
  engineIs(4U);
  EXPECT_EQ(engine->prioGrpShift(), 16U);
  EXPECT_EQ(engine->maxPartitions(), 4U);
  EXPECT_EQ(engine->pti(1, 4001), 66536U);
  EXPECT_EQ(engine->lti(66536), 4001U);
  EXPECT_EQ(engine->pti(3, 262143), 0x3FFFFU);
  EXPECT_EQ(engine->lti(0x3FFFF), 262143U);
}

TEST_F(AtcamDeathTest, WrongPartitionOrOffsetTooFarFails) {
  engineIs(4U);
  EXPECT_DEATH(engine->pti(2, 4001),
               HasSubstr("assertion failed: pg == partition, model file FastVantrelImpl,"));
  EXPECT_DEATH(engine->pti(0, 262144),
               HasSubstr("assertion failed: offset < ( 1UL << 16 ), model file FastVantrelImpl,"));
}

TEST_F(Atcam, ProgramsInterleavedPartitionsIndependently) {
  engineIs(2U);
  EXPECT_THAT(put({.key = 1, .ti = 10, .prio = 5, .pg = 0}), testing::ElementsAre("add 1@10"));
  EXPECT_THAT(put({.key = 2, .ti = 13, .prio = 1, .pg = 1}), testing::ElementsAre("add 2@13"));
  EXPECT_THAT(put({.key = 3, .ti = 12, .prio = 4, .pg = 0}), IsEmpty())
      << "out of order in its own partition";
  EXPECT_THAT(put({.key = 4, .ti = 14, .prio = 6, .pg = 0}), testing::ElementsAre("add 4@14"));
}

TEST_F(Atcam, CleansUpWithItsOwnMappingAndOnce) {
  engineIs(4U);
  put({.key = 1, .ti = 4001, .pg = 1});
  engine = nullptr;
  EXPECT_THAT(client->take(), testing::ElementsAre("del 1@4001", "delStatus 1", "flush"));
}
