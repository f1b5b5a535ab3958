// SPDX-License-Identifier: Apache-2.0
// The engine base: its sequence, its attributes, dispatch, dependants, and the hardware client's status
// writes.
#include "ostra/exception.h"
#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"
#include "tests/support/engine_world.h"

using namespace TestSupport;

namespace {

// A concrete engine that only writes down what the base asks of it.
class Probe : public VantrelImpl {
 public:
  using VantrelImpl::VantrelImpl;
  void checkDeadlock() override { did.push_back("checkDeadlock"); }
  void processPending() override { did.push_back("processPending"); }
  bool processEntry(EntryConfig const& e) override {
    did.push_back("processEntry " + std::to_string(e.key().value()));
    if (makesDirty) dirtyIs(true);
    return result;
  }
  bool processDelete(EntryKey const& key, bool delAck) override {
    did.push_back("processDelete " + std::to_string(key.value()) + (delAck ? " ack" : ""));
    return deleteResult;
  }
  void dumpState() override { did.push_back("dumpState"); }
  bool processDependantTables(EntryConfig const& e, EntryKey const& key) override {
    ++dependantCalls;
    return dependants ? dependants(e, key) : true;
  }
  EntryConfig readDeps(U64 key) { return readAndProcessDeps(EntryKey(key)); }
  Calls take() { return std::exchange(did, {}); }

  Calls did;
  bool result = false;
  bool deleteResult = false;
  bool makesDirty = false;
  int dependantCalls = 0;
  std::function<bool(EntryConfig const&, EntryKey const&)> dependants;
};

class EngineBase : public EngineWorld<FastVantrelImpl> {
 protected:
  EngineBase() : probe(make<Probe>("probe", table, debugConfig, debugStatus, client, 5U)) {}
  Calls handled(U64 key) {
    probe->handleEntry(EntryKey(key));
    return probe->take();
  }
  Ptr<Probe> probe;
};

class CountingWatcher : public VantrelImpl::Notifiee {
 public:
  void onRetryDepsMaxCnt() override { ++count; }
  void onFailedDepCnt() override { ++count; }
  void onDebugEnabled() override { ++count; }
  void onDirty() override { ++count; }
  void onAlwaysProcessPending() override { ++count; }
  void onInitialized() override { ++count; }
  void onHandleToKey(U64 const& handle) override { handles.push_back(handle); }
  void onKeyToHandle(EntryKey const& key) override { keys.push_back(key.value()); }
  int count = 0;
  std::vector<U64> handles, keys;
};

}  // namespace

TEST_F(EngineBase, StartsWithItsDefaults) {
  EXPECT_EQ(probe->name(), "probe");
  EXPECT_EQ(probe->lgId(), 5U);
  EXPECT_EQ(probe->retryDepsMaxCnt(), 1000U);
  EXPECT_EQ(probe->failedDepCnt(), 0U);
  EXPECT_FALSE(probe->debugEnabled());
  EXPECT_TRUE(probe->dirty());
  EXPECT_FALSE(probe->alwaysProcessPending());
  EXPECT_TRUE(probe->initialized());
  EXPECT_THAT(probe->handleToKey(), IsEmpty());
  EXPECT_THAT(probe->keyToHandle(), IsEmpty());
}

TEST_F(EngineBase, NotInitializedDoesNothingAndTracesNothing) {
  FacilityLines lines("VantrelImpl/9");
  RingRecords records;
  probe->initializedIs(false);
  EXPECT_THAT(handled(1), IsEmpty());
  EXPECT_THAT(lines.take(), IsEmpty());
  EXPECT_THAT(records.take(), IsEmpty());
}

TEST_F(EngineBase, UnchangedKeySkipsOnlyThePendingWork) {
  write({.key = 1, .ti = 4});
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "checkDeadlock"));
}

TEST_F(EngineBase, ChangedKeyRunsThePendingWork) {
  write({.key = 1, .ti = 4});
  probe->result = true;
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "processPending", "checkDeadlock"));
}

TEST_F(EngineBase, AlwaysProcessPendingRunsItForUnchangedKeysToo) {
  write({.key = 1, .ti = 4});
  probe->alwaysProcessPendingIs(true);
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "processPending", "checkDeadlock"));
}

TEST_F(EngineBase, NotifyIsTracedAroundTheKey) {
  FacilityLines lines("VantrelImpl/9");
  RingRecords records;
  write({.key = 7, .ti = 4, .opId = 99, .hdl = 3});
  handled(7);
  EXPECT_THAT(lines.take(),
              ElementsAre("VantrelImpl/9 Notify on key=7", "VantrelImpl/9 Finished notify on key=7"));
  EXPECT_THAT(records.take(),
              ElementsAre("notify on key:%q [5,7]", "handling key:%q hdl:%i opId:%q [5,7,3,99]"));
}

TEST_F(EngineBase, SettingTheSameValueNotifiesNobody) {
  CountingWatcher w;
  w.notifierIs(probe);
  probe->retryDepsMaxCntIs(1000);
  probe->failedDepCntIs(0);
  probe->failedDepCntInc(0);
  probe->debugEnabledIs(false);
  probe->dirtyIs(true);
  probe->alwaysProcessPendingIs(false);
  probe->initializedIs(true);
  EXPECT_EQ(w.count, 0);
  probe->retryDepsMaxCntIs(1);
  probe->failedDepCntIs(2);
  probe->failedDepCntInc(3);
  probe->debugEnabledIs(true);
  probe->dirtyIs(false);
  probe->alwaysProcessPendingIs(true);
  probe->initializedIs(false);
  EXPECT_EQ(w.count, 7);
  EXPECT_EQ(probe->failedDepCnt(), 5U);
}

TEST_F(EngineBase, CollectionsNotifyWithTheirKeyOnlyOnChange) {
  CountingWatcher w;
  w.notifierIs(probe);
  probe->keyToHandleIs(EntryKey(7), 3);
  probe->keyToHandleIs(EntryKey(7), 3);
  EXPECT_THAT(w.keys, ElementsAre(7));
  probe->keyToHandleIs(EntryKey(7), 4);
  EXPECT_THAT(w.keys, ElementsAre(7, 7));
  probe->keyToHandleDel(EntryKey(8));
  EXPECT_THAT(w.keys, ElementsAre(7, 7));
  probe->keyToHandleDelAll();
  EXPECT_THAT(w.keys, ElementsAre(7, 7, 7));
  probe->handleToKeyIs(1, EntryKey(7));
  probe->handleToKeyIs(2, EntryKey(8));
  probe->handleToKeyDel(1);
  probe->handleToKeyDel(1);
  probe->handleToKeyDelAll();
  EXPECT_THAT(w.handles, ElementsAre(1, 2, 1, 2));
}

TEST_F(EngineBase, HandleHashIsTheValueXorItsUpperHalf) {
  EXPECT_EQ(VantrelImpl::HandleHash()(0x0000000500000003U), 0x0000000500000003U ^ 0x5U);
}

TEST_F(EngineBase, EveryAttributeCanBeReachedByName) {
  for (char const* name : {"tableConfig", "debugConfig", "debugStatus", "helper", "lgId", "retryDepsMaxCnt",
                           "failedDepCnt", "debugEnabled", "dirty", "alwaysProcessPending", "initialized"})
    EXPECT_NO_THROW(static_cast<void>(probe->typeInfo().read(*probe, name))) << name;
  probe->typeInfo().write(*probe, "retryDepsMaxCnt", U64{12});
  EXPECT_EQ(probe->retryDepsMaxCnt(), 12U);
  EXPECT_THROW(probe->typeInfo().write(*probe, "lgId", U64{2}), Ostra::AttributeException);
  EXPECT_THROW(probe->typeInfo().writeFromOutside(*probe, "initialized", false), Ostra::AttributeException);
  EXPECT_TRUE(probe->initialized());
}

TEST_F(EngineBase, OffersTheseNames) {
  EXPECT_THAT(
      offered(VantrelImpl::staticType()),
      ElementsAre("tableConfig reference", "debugConfig reference", "debugStatus reference",
                  "helper reference", "lgId U32", "retryDepsMaxCnt U32", "failedDepCnt U64",
                  "debugEnabled bool", "dirty bool", "alwaysProcessPending bool", "handleToKey U64 -> U64",
                  "keyToHandle U64 -> U64", "initialized bool", "handleToKeyDelAll ()",
                  "keyToHandleDelAll ()", "failedDepCntInc (U64)", "handleEntry (U64)",
                  "handleEntryHelper (U64)", "checkDeadlock ()", "processPending ()",
                  "processDelete (U64, bool)", "currentOpId (U64)", "numPending U32", "numDeadlock U32",
                  "dumpPending ()", "dumpState ()", "handleDebug ()", "handleInitialized ()"));
  EXPECT_THAT(offered(VantrelHelper::staticType()),
              ElementsAre("tableStatus reference", "delAck (U64)", "delStatus (U64)", "noopAck (U64, U64)",
                          "flush ()"));
}

TEST_F(EngineBase, OperationsByNameReachTheConcreteEngine) {
  Ostra::TypeInfo const& type = probe->typeInfo();
  probe->deleteResult = true;
  EXPECT_EQ(type.invoke(*probe, "processDelete", {U64{4}, true}), Ostra::Value(true));
  type.invoke(*probe, "processPending");
  EXPECT_THAT(probe->take(), ElementsAre("processDelete 4 ack", "processPending"));
  probe->handleToKeyIs(1, EntryKey(2));
  probe->keyToHandleIs(EntryKey(2), 1);
  type.invoke(*probe, "handleToKeyDelAll");
  type.invoke(*probe, "keyToHandleDelAll");
  EXPECT_THAT(probe->handleToKey(), IsEmpty());
  EXPECT_THAT(probe->keyToHandle(), IsEmpty());
  type.invoke(*probe, "failedDepCntInc", {U64{3}});
  EXPECT_EQ(probe->failedDepCnt(), 3U);
}

TEST_F(EngineBase, AWatcherNeedsNoHandler) {
  VantrelImpl::Notifiee watcher;
  watcher.notifierIs(Ptr<VantrelImpl const>(probe.get()));
  probe->retryDepsMaxCntIs(3);
  probe->failedDepCntInc(1);
  probe->debugEnabledIs(true);
  probe->dirtyIs(!probe->dirty());
  probe->alwaysProcessPendingIs(true);
  probe->initializedIs(false);
  probe->handleToKeyIs(1, EntryKey(2));
  probe->keyToHandleIs(EntryKey(2), 1);
  EXPECT_EQ(probe->failedDepCnt(), 1U);
  EXPECT_EQ(probe->handleToKey().at(1), EntryKey(2));
}

TEST_F(EngineBase, RefusesWritesToTheHandlesFromOutside) {
  for (char const* name : {"handleToKey", "keyToHandle", "handleToKeyDelAll", "keyToHandleDelAll"}) {
    try {
      probe->typeInfo().checkOutsider(*probe, name);
      FAIL() << name;
    } catch (Ostra::AttributeException const& error) {
      EXPECT_THAT(error.what(), HasSubstr("the engine keeps who owns which handle itself"));
    }
  }
}

TEST(Helper, AcknowledgesByName) {
  auto const status = make<Shoal::LocalTable<EntryStatus>>("status");
  auto const helper = make<VantrelHelper>("helper", status);
  Ostra::TypeInfo const& type = helper->typeInfo();
  EXPECT_EQ(type.read(*helper, "tableStatus"), Ostra::Value(std::string("status")));
  type.invoke(*helper, "noopAck", {U64{7}, U64{70}});
  EXPECT_EQ(status->entry(EntryKey(7)).opId(), OpId(70));
  type.invoke(*helper, "delAck", {U64{7}});
  EXPECT_EQ(status->entry(EntryKey(7)).opId(), OpId::deleteAcknowledge());
  type.invoke(*helper, "delStatus", {U64{7}});
  EXPECT_EQ(status->size(), 0U);
}

using EngineBaseDeathTest = EngineBase;

TEST_F(EngineBaseDeathTest, TraceIdentifierZeroFailsAnAssertion) {
  EXPECT_DEATH(make<Probe>("p", table, debugConfig, debugStatus, client, 0U),
               HasSubstr("lgId() && \"missing lgId\", model file VantrelImpl,"));
}

TEST_F(EngineBaseDeathTest, MissingConcreteOperationFailsAnAssertion) {
  auto const base = make<VantrelImpl>("b", table, debugConfig, debugStatus, client, 1U);
  EXPECT_DEATH(base->processPending(), HasSubstr("assertion failed: false, model file VantrelImpl,"));
  EXPECT_DEATH(base->processEntry(EntryConfig()),
               HasSubstr("assertion failed: false, model file VantrelImpl,"));
  EXPECT_DEATH(base->processDelete(EntryKey(1), false),
               HasSubstr("assertion failed: false, model file VantrelImpl,"));
  EXPECT_DEATH(base->currentOpId(EntryKey(1)),
               HasSubstr("false && \"Not implemented in base class\", model file VantrelImpl,"));
  EXPECT_DEATH(base->numPending(), HasSubstr("assertion failed: false, model file VantrelImpl,"));
  EXPECT_DEATH(base->numDeadlock(), HasSubstr("VantrelImpl::numDeadlock() const"));
}

TEST_F(EngineBase, OptionalHooksDoNothingInTheBase) {
  auto const base = make<VantrelImpl>("b", table, debugConfig, debugStatus, client, 1U);
  base->checkDeadlock();
  base->dumpPending();
  base->dumpState();
  debugConfig->versionIs(3);
  base->handleDebug();
  EXPECT_EQ(debugStatus->version(), 0U);
  EXPECT_TRUE(base->processDependantTables(EntryConfig(), EntryKey(1)));
  EXPECT_THAT(client->calls, IsEmpty());
}

// Dispatch.

TEST_F(EngineBase, AbsentKeyIsDeletedWithoutAcknowledgement) {
  EXPECT_THAT(handled(9), ElementsAre("processDelete 9", "checkDeadlock"));
}

TEST_F(EngineBase, MarkedRecordIsDeletedWithAcknowledgement) {
  write({.key = 9, .ti = 1, .del = true});
  EXPECT_THAT(handled(9), ElementsAre("processDelete 9 ack", "checkDeadlock"));
}

TEST_F(EngineBase, DeleteOfAKeyWithoutHandleChangesNeitherMap) {
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  handled(9);
  EXPECT_EQ(probe->handleToKey().size(), 1U);
  EXPECT_EQ(probe->keyToHandle().size(), 1U);
}

TEST_F(EngineBase, DeleteForgetsTheKeyAndItsHandle) {
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  table->entryQuietlyDel(EntryKey(1));
  handled(1);
  EXPECT_THAT(probe->handleToKey(), IsEmpty());
  EXPECT_THAT(probe->keyToHandle(), IsEmpty());
}

TEST_F(EngineBase, SameHandleAgainLeavesTheMapsAndProcessesAgain) {
  CountingWatcher w;
  w.notifierIs(probe);
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "checkDeadlock"));
  EXPECT_THAT(w.keys, ElementsAre(1));
  EXPECT_THAT(w.handles, ElementsAre(11));
}

TEST_F(EngineBase, ReusedHandleDeletesItsOldKeyFirst) {
  FacilityLines lines("VantrelImpl/9");
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  lines.take();
  write({.key = 2, .ti = 2, .hdl = 11});
  EXPECT_THAT(handled(2), ElementsAre("processDelete 1", "processEntry 2", "checkDeadlock"));
  EXPECT_THAT(lines.take(), testing::Contains("VantrelImpl/9 Reuse of handle: 11, deleting key: 1"));
  EXPECT_EQ(probe->handleToKey().at(11), EntryKey(2));
  EXPECT_EQ(probe->keyToHandle().at(EntryKey(2)), 11U);
  EXPECT_FALSE(probe->keyToHandle().contains(EntryKey(1)));
}

TEST_F(EngineBase, ReusedHandleReportsAChangeWhenEitherCallDoes) {
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  write({.key = 2, .ti = 2, .hdl = 11});
  probe->deleteResult = true;
  EXPECT_TRUE(probe->handleEntryHelper(EntryKey(2)));
  probe->deleteResult = false;
  EXPECT_FALSE(probe->handleEntryHelper(EntryKey(2)));
}

TEST_F(EngineBase, KeyThatChangesItsHandleIsNamedUnderBoth) {
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  write({.key = 1, .ti = 1, .hdl = 12});
  handled(1);
  EXPECT_EQ(probe->handleToKey().at(11), EntryKey(1));
  EXPECT_EQ(probe->handleToKey().at(12), EntryKey(1));
  EXPECT_EQ(probe->keyToHandle().at(EntryKey(1)), 12U);
}

TEST_F(EngineBase, HandleMapsKeepChangesWhenProgrammingThrows) {
  class Throwing : public Probe {
   public:
    using Probe::Probe;
    bool processEntry(EntryConfig const&) override { throw std::runtime_error("hardware"); }
  };
  auto const throwing = make<Throwing>("t", table, debugConfig, debugStatus, client, 1U);
  write({.key = 1, .ti = 1, .hdl = 11});
  EXPECT_THROW(throwing->handleEntry(EntryKey(1)), std::runtime_error);
  EXPECT_EQ(throwing->handleToKey().at(11), EntryKey(1));
}

TEST_F(EngineBase, DumpRunsOnlyWithDebugOnAndADirtyState) {
  write({.key = 1, .ti = 1});
  probe->debugEnabledIs(true);
  EXPECT_THAT(handled(1), ElementsAre("dumpState", "processEntry 1", "checkDeadlock"));
  EXPECT_FALSE(probe->dirty());
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "checkDeadlock"));
  probe->makesDirty = true;
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "dumpState", "checkDeadlock"));
  probe->dirtyIs(true);
  EXPECT_THAT(handled(1), ElementsAre("dumpState", "processEntry 1", "dumpState", "checkDeadlock"));
  probe->debugEnabledIs(false);
  EXPECT_THAT(handled(1), ElementsAre("processEntry 1", "checkDeadlock"));
  EXPECT_TRUE(probe->dirty());
}

TEST_F(EngineBaseDeathTest, DispatchBeforeInitializationFailsItsAssertion) {
  probe->initializedIs(false);
  EXPECT_DEATH(probe->handleEntryHelper(EntryKey(1)),
               HasSubstr("assertion failed: initialized(), model file VantrelImpl,"));
}

// Dependants.

TEST_F(EngineBase, DependantsThatSucceedAreAskedOnce) {
  write({.key = 1, .ti = 1});
  EXPECT_EQ(probe->readDeps(1).key(), EntryKey(1));
  EXPECT_EQ(probe->dependantCalls, 1);
  EXPECT_EQ(probe->failedDepCnt(), 0U);
}

TEST_F(EngineBase, GivesAKeyUpAfterTheMostDependantAttempts) {
  FacilityLines lines("VantrelImpl/8");
  RingRecords records;
  write({.key = 1, .ti = 1, .opId = 77, .hdl = 11});
  probe->dependants = [](auto&&...) { return false; };
  try {
    probe->handleEntry(EntryKey(1));
    FAIL() << "no exception";
  } catch (Ostra::InternalException const& e) {
    EXPECT_STREQ(e.what(), "Failed to program dependant tables");
  }
  EXPECT_EQ(probe->dependantCalls, 1000);
  EXPECT_EQ(probe->failedDepCnt(), 1U);
  EXPECT_THAT(probe->did, IsEmpty());
  EXPECT_THAT(probe->keyToHandle(), IsEmpty());
  EXPECT_THAT(lines.take(), ElementsAre("VantrelImpl/8 Failed to program dependant tables key:1 hdl:11"));
  EXPECT_THAT(records.take(),
              ElementsAre("notify on key:%q [5,1]",
                          "Failed to program dependant tables key:%q hdl:%i opId:%q [5,1,11,77]"));
}

TEST_F(EngineBase, AMaximumOfZeroOrOneStillTriesOnce) {
  write({.key = 1, .ti = 1});
  probe->dependants = [](auto&&...) { return false; };
  for (U32 const maximum : {0U, 1U}) {
    probe->dependantCalls = 0;
    probe->retryDepsMaxCntIs(maximum);
    EXPECT_THROW(probe->readDeps(1), Ostra::InternalException);
    EXPECT_EQ(probe->dependantCalls, 1) << maximum;
  }
}

TEST_F(EngineBase, ARetryReadsTheRecordAfresh) {
  write({.key = 1, .ti = 1, .prio = 5});
  probe->dependants = [this](auto&&...) {
    if (probe->dependantCalls > 1) return true;
    write({.key = 1, .ti = 1, .prio = 6});
    return false;
  };
  EXPECT_EQ(probe->readDeps(1).prio(), 6U);
  EXPECT_EQ(probe->dependantCalls, 2);
}

TEST_F(EngineBase, AsksDependantsOfAnAbsentKeyOnce) {
  probe->dependants = [](EntryConfig const& e, EntryKey const& key) {
    EXPECT_TRUE(e.empty());
    EXPECT_EQ(key, EntryKey(9));
    return false;
  };
  EXPECT_TRUE(probe->readDeps(9).empty());
  EXPECT_EQ(probe->dependantCalls, 1);
  EXPECT_EQ(probe->failedDepCnt(), 0U);
}

TEST_F(EngineBase, DeleteMarkerBetweenAttemptsEndsTheRetries) {
  write({.key = 1, .ti = 1});
  probe->dependants = [this](auto&&...) {
    write({.key = 1, .ti = 1, .del = true});
    return false;
  };
  EXPECT_TRUE(probe->readDeps(1).isDel());
  EXPECT_EQ(probe->dependantCalls, 2);
}

TEST_F(EngineBase, ACorruptRecordIsReportedAndReadsAsADelete) {
  class Damaged : public Shoal::LocalTable<EntryConfig> {
   public:
    EntryConfig entry(EntryKey const&) const override {
      throw Pallo::CorruptionDetectedException("bad checksum");
    }
  };
  auto const damaged = make<Damaged>();
  auto const engineOnIt = make<Probe>("p", damaged, debugConfig, debugStatus, client, 1U);
  engineOnIt->handleEntry(EntryKey(4));
  EXPECT_THAT(engineOnIt->did, ElementsAre("processDelete 4", "checkDeadlock"));
  EXPECT_EQ(damaged->corruptions(), 1U);
  EXPECT_EQ(damaged->lastCorruption(), "bad checksum");
}

TEST_F(EngineBase, OversizeRecordThrowsTheSizeError) {
  class EighteenPositions : public Shoal::LocalTable<EntryConfig> {
   public:
    EntryConfig entry(EntryKey const&) const override {
      EntryConfig r;
      Traits::image(r)[28] = std::byte{18};
      Traits::accept(r, {12, 1});
      return r;
    }
  };
  auto const engineOnIt = make<Probe>("p", make<EighteenPositions>(), debugConfig, debugStatus, client, 1U);
  EXPECT_THROW(engineOnIt->handleEntry(EntryKey(4)), Pallo::InvalidSizeException);
  EXPECT_EQ(engineOnIt->failedDepCnt(), 0U);
}

// The hardware client.

class StatusWrites : public EngineWorld<FastVantrelImpl> {
 protected:
  StatusWrites() : helper(make<VantrelHelper>("helper", status)) {}
  Ptr<VantrelHelper> helper;
  EntryKey const k{7};
};

TEST_F(StatusWrites, DelAckReplacesAnEarlierAcknowledgement) {
  helper->noopAck(k, OpId(5));
  helper->delAck(k);
  EXPECT_EQ(status->size(), 1U);
  EXPECT_EQ(status->entry(k).opId(), OpId(0xFFFFFFFFFFFF0000U));
}

TEST_F(StatusWrites, NoopAckReplacesTheMarker) {
  helper->delAck(k);
  helper->noopAck(k, OpId(6));
  EXPECT_EQ(status->size(), 1U);
  EXPECT_EQ(status->entry(k), EntryStatus(k, OpId(6)));
}

TEST_F(StatusWrites, DelStatusOfAnAbsentKeyChangesNothing) {
  helper->noopAck(EntryKey(1), OpId(6));
  helper->delStatus(k);
  EXPECT_EQ(status->size(), 1U);
  helper->delStatus(EntryKey(1));
  EXPECT_EQ(status->size(), 0U);
}

TEST_F(StatusWrites, AreTracedWithSignatureAndKey) {
  FacilityLines lines("VantrelImpl/9");
  helper->noopAck(k, OpId(6));
  helper->delAck(k);
  helper->delStatus(k);
  EXPECT_THAT(lines.take(),
              ElementsAre(testing::MatchesRegex("VantrelImpl/9 .*VantrelHelper::noopAck.* key:7"),
                          testing::MatchesRegex("VantrelImpl/9 .*VantrelHelper::delAck.* key:7"),
                          testing::MatchesRegex("VantrelImpl/9 .*VantrelHelper::delStatus.* key:7")));
}

TEST_F(StatusWrites, WithoutAStatusTableNothingIsWrittenOrTraced) {
  FacilityLines lines("VantrelImpl/9");
  auto const bare = make<VantrelHelper>("bare", nullptr);
  bare->noopAck(k, OpId(6));
  bare->delAck(k);
  bare->delStatus(k);
  EXPECT_THAT(lines.take(), IsEmpty());
}

TEST_F(StatusWrites, EngineRunsAgainstTheBaseClientAlone) {
  auto const bare = make<FastVantrelImpl>("e", table, debugConfig, debugStatus, helper, 1U);
  write({.key = 1, .ti = 1});
  bare->handleEntry(EntryKey(1));
  write({.key = 1, .ti = 2});
  bare->handleEntry(EntryKey(1));
  EXPECT_EQ(bare->currentOpId(EntryKey(1)), table->entry(EntryKey(1)).opId());
  write({.key = 2, .ti = 1});
  bare->handleEntry(EntryKey(2));
  write({.key = 1, .ti = 1});
  bare->handleEntry(EntryKey(1));
  write({.key = 2, .ti = 2});
  bare->handleEntry(EntryKey(2));
  EXPECT_EQ(bare->deadlockCount(), 1U);
  EXPECT_EQ(status->size(), 0U);
  table->entryQuietlyDel(EntryKey(1));
  bare->handleEntry(EntryKey(1));
  EXPECT_EQ(bare->currentOpId(EntryKey(1)), OpId(0));
  EXPECT_EQ(bare->currentOpId(EntryKey(2)), table->entry(EntryKey(2)).opId());
  helper->flush();
}

TEST_F(EngineBase, TheBaseEnginesDependantsSucceedAtOnce) {
  class Plain : public VantrelImpl {
   public:
    using VantrelImpl::VantrelImpl;
    EntryConfig readDeps(U64 key) { return readAndProcessDeps(EntryKey(key)); }
  };
  auto const plain = make<Plain>("plain", table, debugConfig, debugStatus, client, 1U);
  write({.key = 1, .ti = 1});
  EXPECT_EQ(plain->readDeps(1), table->entry(EntryKey(1)));
  EXPECT_EQ(plain->failedDepCnt(), 0U);
}

// The record that decides on the acknowledgement of the old key is the new key's, read afresh.
TEST_F(EngineBase, NewOwnersDeleteMarkerAcknowledgesTheOldKey) {
  write({.key = 1, .ti = 1, .hdl = 11});
  handled(1);
  write({.key = 2, .ti = 2, .hdl = 11});
  probe->dependants = [this](EntryConfig const&, EntryKey const& key) {
    EntryConfig marked = table->entry(key);
    marked.isDelIs(true);
    table->entryQuietlyIs(marked);
    return true;
  };
  EXPECT_THAT(handled(2), ElementsAre("processDelete 1 ack", "processEntry 2", "checkDeadlock"));
}

TEST_F(EngineBase, ADeleteForgetsItsHandleWhateverKeyItNames) {
  probe->keyToHandleIs(EntryKey(1), 11);
  probe->handleToKeyIs(11, EntryKey(2));
  handled(1);
  EXPECT_THAT(probe->handleToKey(), IsEmpty());
  EXPECT_THAT(probe->keyToHandle(), IsEmpty());
}
