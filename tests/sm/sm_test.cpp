// SPDX-License-Identifier: Apache-2.0
// The front end: factories, reactors, walks, flushes, counters, retries.
#include "keel/virtual_wheel.h"
#include "ostra/exception.h"
#include "ostra/type_info.h"
#include "tests/support/engine_world.h"

using namespace TestSupport;

namespace {

class FlushWatcher : public VantrelFlushStatus::Notifiee {
 public:
  void onTableCounter() override { ++table; }
  void onFlushCounter() override { ++flush; }
  int table = 0, flush = 0;
};

// An engine that records keys and fails on order.
class KeyEngine : public VantrelImpl {
 public:
  using VantrelImpl::VantrelImpl;
  void handleEntry(EntryKey const& key) override {
    keys.push_back(key.value());
    if (onKey) onKey(key.value());
    if (internal.contains(key.value())) throw Ostra::InternalException("Failed to program dependant tables");
    if (other.contains(key.value())) throw std::runtime_error("other");
  }
  void handleDebug() override {
    ++debugs;
    if (onDebug) onDebug();
  }
  std::vector<U64> take() { return std::exchange(keys, {}); }
  std::vector<U64> keys;
  std::set<U64> internal, other;
  std::function<void(U64)> onKey;
  std::function<void()> onDebug;
  int debugs = 0;
};

class FrontEnd : public EngineWorld<FastVantrelImpl> {
 protected:
  FrontEnd()
      : keyEngine(make<KeyEngine>("engine", table, debugConfig, debugStatus, client, 1U)),
        flushStatus(make<VantrelFlushStatus>("flushStatus")),
        wheel(make<Keel::VirtualWheel>()) {}

  Ptr<VantrelSm> create() {
    return sm = vantrelSmFactory(table, status, debugConfig, debugStatus, keyEngine, flushStatus, wheel);
  }
  void tell(U64 key) {
    if (table->entry(EntryKey(key)).empty()) write({.key = key, .ti = static_cast<U32>(key)});
    table->notifyEntry(EntryKey(key));
  }
  std::vector<U64> failed() {
    std::vector<U64> keys;
    for (auto const& [key, value] : sm->failedKey()) keys.push_back(key.value());
    return keys;
  }

  Ptr<KeyEngine> keyEngine;
  Ptr<VantrelFlushStatus> flushStatus;
  Ptr<Keel::VirtualWheel> wheel;
  Ptr<VantrelSm> sm;
};

}  // namespace

TEST_F(FrontEnd, StartsWithDefaultsAndOneWalkOfTheTable) {
  create();
  EXPECT_TRUE(sm->initialized());
  EXPECT_TRUE(sm->initialFlushed());
  EXPECT_EQ(sm->retryPeriod(), 10.0);
  EXPECT_FALSE(sm->retryTimerSet());
  EXPECT_THAT(sm->failedKey(), IsEmpty());
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  EXPECT_EQ(flushStatus->tableCounter(), 1);
  EXPECT_EQ(flushStatus->flushCounter(), 1);
  EXPECT_EQ(sm->tableConfig(), table);
  EXPECT_EQ(sm->tableStatus(), status);
  EXPECT_EQ(sm->debugConfig(), debugConfig);
  EXPECT_EQ(sm->debugStatus(), debugStatus);
  EXPECT_EQ(sm->retryFailedTimer(), wheel);
}

TEST_F(FrontEnd, StartWalksEveryKeyOnceThenFlushesOnce) {
  write({.key = 1, .ti = 1});
  write({.key = 2, .ti = 2});
  create();
  EXPECT_THAT(keyEngine->take(), testing::UnorderedElementsAre(1, 2));
  EXPECT_THAT(client->take(), ElementsAre("flush"));
}

TEST_F(FrontEnd, TableCounterWrapsAndNotifies) {
  flushStatus->tableCounterIs(255);
  FlushWatcher w;
  w.notifierIs(flushStatus);
  create();
  EXPECT_EQ(flushStatus->tableCounter(), 0);
  EXPECT_EQ(w.table, 1);
  EXPECT_EQ(w.flush, 1);
}

TEST_F(FrontEnd, FlushCounterWraps) {
  flushStatus->flushCounterIs(255);
  create();
  EXPECT_EQ(flushStatus->flushCounter(), 0);
}

TEST_F(FrontEnd, TwoFrontEndsOnOneFlushStatusMoveItTwice) {
  auto const first = create();
  create();
  EXPECT_EQ(flushStatus->tableCounter(), 2);
  EXPECT_EQ(flushStatus->flushCounter(), 2);
}

TEST_F(FrontEnd, SameCounterValueNotifiesNobody) {
  flushStatus->tableCounterIs(4);
  flushStatus->flushCounterIs(4);
  FlushWatcher w;
  w.notifierIs(flushStatus);
  flushStatus->tableCounterIs(4);
  flushStatus->flushCounterIs(4);
  EXPECT_EQ(w.table + w.flush, 0);
}

// Who is told of the counter finds the hardware flushed, and the front end saying so.
TEST_F(FrontEnd, FlushComesBeforeInitialFlushedAndTheCounter) {
  class Told : public VantrelFlushStatus::Notifiee {
   public:
    void onFlushCounter() override { onTold(); }
    std::function<void()> onTold;
  };
  Told watcher;
  watcher.notifierIs(flushStatus);
  sm = vantrelSmFactory(nullptr, status, debugConfig, debugStatus, keyEngine, flushStatus, wheel);
  int told = 0;
  watcher.onTold = [&] {
    ++told;
    EXPECT_THAT(client->take(), ElementsAre("flush"));
    EXPECT_TRUE(sm->initialFlushed());
  };
  sm->tableConfigIs(table);
  EXPECT_EQ(told, 1);
}

TEST_F(FrontEnd, WithoutFlushStatusNeverReportsTheFirstFlush) {
  flushStatus = nullptr;
  create();
  EXPECT_FALSE(sm->initialFlushed());
  sm->handleEntry();
  EXPECT_FALSE(sm->initialFlushed());
  EXPECT_THAT(client->take(), ElementsAre("flush", "flush"));
}

TEST_F(FrontEnd, WithoutInputsItIsInert) {
  sm = vantrelSmFactory(nullptr, status, nullptr, debugStatus, keyEngine, flushStatus, nullptr);
  EXPECT_TRUE(sm->initialized());
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_EQ(flushStatus->tableCounter(), 1);
  EXPECT_EQ(flushStatus->flushCounter(), 0);
  tell(1);
  debugConfig->versionInc(1);
  sm->handleEntryCollNotify();
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_EQ(keyEngine->debugs, 0);
  EXPECT_THAT(client->take(), IsEmpty()) << "there was nothing to walk";
  EXPECT_FALSE(sm->initialFlushed());
  EXPECT_EQ(flushStatus->flushCounter(), 0);
}

TEST_F(FrontEnd, KeyNotificationReachesTheEngine) {
  create();
  tell(7);
  EXPECT_THAT(keyEngine->take(), ElementsAre(7));
  table->entryIs(config({.key = 8, .ti = 8}));
  table->entryDel(EntryKey(8));
  EXPECT_THAT(keyEngine->take(), ElementsAre(8, 8));
}

TEST_F(FrontEnd, SecondWalkFlushesButLeavesTheFlushCounter) {
  create();
  client->take();
  write({.key = 1, .ti = 1});
  table->notifyEntryColl();
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  EXPECT_EQ(flushStatus->flushCounter(), 1);
}

TEST_F(FrontEnd, ReplacingTheTableByAnotherWalksTheNewOneOnce) {
  create();
  client->take();
  auto const other = make<Shoal::LocalTable<EntryConfig>>("other");
  other->entryQuietlyIs(config({.key = 5, .ti = 5}));
  other->entryQuietlyIs(config({.key = 6, .ti = 6}));
  sm->tableConfigIs(other);
  EXPECT_THAT(keyEngine->take(), testing::UnorderedElementsAre(5, 6));
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  EXPECT_EQ(flushStatus->flushCounter(), 1);
  tell(1);
  EXPECT_THAT(keyEngine->take(), IsEmpty()) << "the old table is no longer watched";
  other->notifyEntry(EntryKey(5));
  EXPECT_THAT(keyEngine->take(), ElementsAre(5));
  sm->hasNotificationActiveIs(true);
  EXPECT_THAT(client->take(), IsEmpty()) << "one watch, one walk";
}

TEST_F(FrontEnd, ReplacingTheTableByItselfRunsNothing) {
  create();
  client->take();
  sm->tableConfigIs(table);
  EXPECT_THAT(client->take(), IsEmpty());
}

TEST_F(FrontEnd, NullTableDropsTheReactorAndANewOneIsWalked) {
  create();
  client->take();
  sm->tableConfigIs(nullptr);
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_EQ(sm->tableConfig(), nullptr);
  tell(1);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  sm->tableConfigIs(table);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  sm->tableConfigDel();
  sm->tableConfigDel();
  EXPECT_EQ(sm->tableConfig(), nullptr);
}

TEST_F(FrontEnd, HearsNothingWhileOffAndWalksOnceSwitchedOn) {
  create();
  sm->hasNotificationActiveIs(false);
  client->take();
  tell(1);
  debugConfig->versionInc(1);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_EQ(keyEngine->debugs, 0);
  sm->hasNotificationActiveIs(true);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  sm->hasNotificationActiveIs(true);
  EXPECT_THAT(client->take(), IsEmpty());
}

TEST_F(FrontEnd, AWatcherMadeWhileSwitchedOffIsOffToo) {
  create();
  sm->hasNotificationActiveIs(false);
  sm->tableConfigDel();
  sm->tableConfigIs(table);
  sm->debugConfigDel();
  sm->debugConfigIs(debugConfig);
  sm->retryFailedTimerDel();
  sm->retryFailedTimerIs(wheel);
  EXPECT_EQ(std::exchange(keyEngine->debugs, 0), 1) << "an input that is set is handled at once";
  tell(1);
  table->notifyEntryColl();
  debugConfig->versionInc(1);
  sm->doScheduleRetry(EntryKey(7));
  wheel->advance(20);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_EQ(keyEngine->debugs, 0);
  sm->hasNotificationActiveIs(true);
  wheel->advance(1);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1, 7));
}

// Setting it walks it, but what comes until notification is on again is missed.
TEST_F(FrontEnd, TableSetWhileOffIsWalkedWhenSwitchedOn) {
  create();
  sm->hasNotificationActiveIs(false);
  auto const other = make<Shoal::LocalTable<EntryConfig>>("other");
  for (bool const made : {false, true}) {
    if (made) sm->tableConfigDel();
    sm->tableConfigIs(made ? table : other);
    client->take();
    keyEngine->take();
    (made ? table : other)->entryIs(config({.key = 5, .ti = 5}));
    EXPECT_THAT(keyEngine->take(), IsEmpty());
    sm->hasNotificationActiveIs(true);
    EXPECT_THAT(keyEngine->take(), ElementsAre(5)) << made;
    EXPECT_THAT(client->take(), ElementsAre("flush")) << made;
    sm->hasNotificationActiveIs(true);
    EXPECT_THAT(client->take(), IsEmpty()) << made;
    sm->hasNotificationActiveIs(false);
  }
}

TEST_F(FrontEnd, TableSetWhileMarkedIsWalkedWhenUnmarked) {
  create();
  client->take();
  sm->markedForDeletionIs(true);
  sm->tableConfigIs(make<Shoal::LocalTable<EntryConfig>>("other"));
  sm->hasNotificationActiveIs(true);
  EXPECT_THAT(client->take(), IsEmpty());
  sm->markedForDeletionIs(false);
  sm->hasNotificationActiveIs(true);
  EXPECT_THAT(client->take(), ElementsAre("flush"));
}

TEST_F(FrontEnd, MarkedForDeletionIgnoresEveryNotification) {
  create();
  client->take();
  sm->markedForDeletionIs(true);
  tell(1);
  debugConfig->versionInc(1);
  auto const other = make<Shoal::LocalTable<EntryConfig>>("other");
  other->entryQuietlyIs(config({.key = 5, .ti = 5}));
  sm->tableConfigIs(other);
  sm->tableConfigDel();
  sm->tableConfigIs(other);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_EQ(keyEngine->debugs, 0);
}

TEST_F(FrontEnd, DestructionLeavesInputsAloneAndDoesNotFlush) {
  create();
  keyEngine->internal = {1};
  tell(1);
  client->take();
  keyEngine->take();
  U8 const counter = flushStatus->tableCounter();
  sm = nullptr;
  tell(1);
  EXPECT_EQ(wheel->earliest(), 10.0) << "the wake-up stays requested";
  wheel->advance(100);
  EXPECT_FALSE(wheel->earliest()) << "and found nobody";
  debugConfig->versionInc(1);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_EQ(flushStatus->tableCounter(), counter);
}

TEST_F(FrontEnd, MayBeDestroyedInItsOwnNotification) {
  create();
  keyEngine->onKey = [this](U64) { sm = nullptr; };
  tell(1);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  tell(1);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
}

TEST_F(FrontEnd, WalkGoesOnWhenItDropsItsTable) {
  write({.key = 1, .ti = 1});
  write({.key = 2, .ti = 2});
  create();
  keyEngine->take();
  keyEngine->onKey = [this](U64) { sm->tableConfigDel(); };
  table->notifyEntryColl();
  EXPECT_THAT(keyEngine->take(), testing::UnorderedElementsAre(1, 2));
  EXPECT_EQ(sm->tableConfig(), nullptr);
}

TEST_F(FrontEnd, DebugVersionChangeReachesTheEngine) {
  create();
  debugConfig->versionInc(1);
  EXPECT_EQ(keyEngine->debugs, 1);
  debugConfig->versionIs(1);
  EXPECT_EQ(keyEngine->debugs, 1);
}

TEST_F(FrontEnd, ReplacingTheDebugTriggerAsksTheEngineAtOnce) {
  create();
  auto const other = debugConfigFactory("other");
  sm->debugConfigIs(other);
  EXPECT_EQ(keyEngine->debugs, 1);
  sm->debugConfigIs(other);
  sm->debugConfigIs(nullptr);
  other->versionInc(1);
  EXPECT_EQ(keyEngine->debugs, 1);
  sm->debugConfigIs(other);
  EXPECT_EQ(keyEngine->debugs, 2);
  sm->debugConfigDel();
  EXPECT_EQ(sm->debugConfig(), nullptr);
}

TEST_F(FrontEnd, NothingIsDeliveredUntilInitialized) {
  create();
  client->take();
  sm->initializedIs(false);
  tell(1);
  sm->handleEntry();
  debugConfig->versionInc(1);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_EQ(keyEngine->debugs, 0);
  sm->handleInitialized();
  EXPECT_EQ(flushStatus->tableCounter(), 2);
  sm->handleInitialized();
  EXPECT_EQ(flushStatus->tableCounter(), 2);
}

TEST_F(FrontEnd, AnEngineThatReportsNoChangeLeavesNoFailedKey) {
  create();
  tell(1);
  EXPECT_THAT(failed(), IsEmpty());
}

TEST_F(FrontEnd, AFailedKeyInAWalkIsKeptAndTheWalkGoesOn) {
  keyEngine->internal = {2};
  for (U64 key : {1, 2, 3}) write({.key = key, .ti = static_cast<U32>(key)});
  create();
  EXPECT_THAT(keyEngine->take(), testing::UnorderedElementsAre(1, 2, 3));
  EXPECT_THAT(failed(), ElementsAre(2));
  EXPECT_THAT(client->take(), ElementsAre("flush"));
}

TEST_F(FrontEnd, OtherExceptionsPassThrough) {
  create();
  keyEngine->other = {1};
  EXPECT_THROW(tell(1), std::runtime_error);
  EXPECT_THAT(failed(), IsEmpty());
}

namespace {
class DamagedWalk : public Shoal::LocalTable<EntryConfig> {
 public:
  std::optional<Place> next(Place const&) const override {
    throw Pallo::CorruptionDetectedException("index damaged");
  }
};
}  // namespace

TEST_F(FrontEnd, ReportsDamageInAWalkThatCountsAsComplete) {
  auto const damaged = make<DamagedWalk>();
  damaged->entryQuietlyIs(config({.key = 5, .ti = 5}));
  damaged->entryQuietlyIs(config({.key = 6, .ti = 6}));
  sm = vantrelSmFactory(damaged, status, debugConfig, debugStatus, keyEngine, flushStatus, wheel);
  EXPECT_THAT(keyEngine->take(), ElementsAre(5));
  EXPECT_EQ(damaged->corruptions(), 1U);
  EXPECT_EQ(damaged->lastCorruption(), "index damaged");
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  EXPECT_EQ(flushStatus->flushCounter(), 1);
  EXPECT_TRUE(sm->initialFlushed());
}

TEST_F(FrontEnd, DamageAtTheFirstKeyEndsTheWalkTheSameWay) {
  class DamagedFirst : public Shoal::LocalTable<EntryConfig> {
   public:
    std::optional<Place> first() const override {
      throw Pallo::CorruptionDetectedException("no first place");
    }
  };
  auto const damaged = make<DamagedFirst>();
  sm = vantrelSmFactory(damaged, status, debugConfig, debugStatus, keyEngine, flushStatus, wheel);
  EXPECT_EQ(damaged->corruptions(), 1U);
  EXPECT_EQ(damaged->lastCorruption(), "no first place");
  EXPECT_THAT(client->take(), ElementsAre("flush"));
  EXPECT_EQ(flushStatus->flushCounter(), 1);
}

// It is not the walked table that is damaged.
TEST_F(FrontEnd, DamageThrownByTheEngineEndsTheWalk) {
  create();
  client->take();
  for (U64 key : {1, 2}) write({.key = key, .ti = static_cast<U32>(key)});
  keyEngine->onKey = [](U64) { throw Pallo::CorruptionDetectedException("another table"); };
  EXPECT_THROW(table->notifyEntryColl(), Pallo::CorruptionDetectedException);
  EXPECT_EQ(keyEngine->take().size(), 1U);
  EXPECT_EQ(table->corruptions(), 0U);
  EXPECT_THAT(client->take(), IsEmpty());
}

TEST_F(FrontEnd, WalkReportsOnlyDamageToTheTable) {
  class BrokenWalk : public Shoal::LocalTable<EntryConfig> {
   public:
    std::optional<Place> next(Place const&) const override {
      if (isSize) throw Pallo::InvalidSizeException("too large");
      throw std::runtime_error("not damage");
    }
    bool isSize = false;
  };
  auto const broken = make<BrokenWalk>();
  broken->entryQuietlyIs(config({.key = 5, .ti = 5}));
  EXPECT_NO_THROW(create());
  client->take();
  EXPECT_THROW(sm->tableConfigIs(broken), std::runtime_error);
  broken->isSize = true;
  EXPECT_THROW(broken->notifyEntryColl(), Pallo::InvalidSizeException);
  EXPECT_EQ(broken->corruptions(), 0U);
  EXPECT_THAT(client->take(), IsEmpty()) << "a walk that was broken off is not flushed";
}

TEST_F(FrontEnd, TracesHandlersWithSignatureFileLineAndName) {
  create();
  FacilityLines lines("VantrelSm/8");
  tell(1);
  sm->handleEntryCollNotify();
  debugConfig->versionInc(1);
  sm->handleRetry();
  sm->handleInitialized();
  auto const taken = lines.take();
  for (char const* operation :
       {"handleEntry", "handleEntryCollNotify", "handleDebug", "handleRetry", "handleInitialized"})
    EXPECT_THAT(taken, Contains(testing::MatchesRegex(std::string("VantrelSm/8 .*VantrelSm::") + operation +
                                                      "\\(.*\\) Vantrel:[0-9]+ " + operation)))
        << operation;
}

// Retries.

TEST_F(FrontEnd, FailuresShareOneWakeUpAndAreRetriedAscending) {
  create();
  keyEngine->internal = {1, 2, 3};
  tell(3);
  EXPECT_TRUE(sm->retryTimerSet());
  EXPECT_EQ(wheel->earliest(), 10.0);
  wheel->advance(4);
  tell(1);
  tell(2);
  EXPECT_EQ(wheel->earliest(), 10.0);
  keyEngine->internal.clear();
  keyEngine->take();
  wheel->advance(5.9);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  wheel->advance(0.2);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1, 2, 3));
  EXPECT_THAT(failed(), IsEmpty());
  EXPECT_FALSE(sm->retryTimerSet());
  wheel->advance(100);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
}

TEST_F(FrontEnd, AKeyThatAlwaysFailsIsRetriedOncePerPeriod) {
  create();
  keyEngine->internal = {1};
  tell(1);
  keyEngine->take();
  for (int pass = 0; pass < 3; ++pass) {
    wheel->advance(10);
    EXPECT_THAT(keyEngine->take(), ElementsAre(1)) << pass;
    EXPECT_THAT(failed(), ElementsAre(1));
  }
}

TEST_F(FrontEnd, FailureInAPassArmsTheNextWakeUpFromThen) {
  create();
  keyEngine->internal = {1};
  tell(1);
  sm->retryPeriodIs(3.0);
  wheel->advance(10);
  EXPECT_TRUE(sm->retryTimerSet());
  EXPECT_EQ(wheel->earliest(), 13.0);
}

TEST_F(FrontEnd, PassVisitsAKeyAddedAboveTheCurrentOne) {
  create();
  keyEngine->internal = {5};
  tell(5);
  keyEngine->take();
  keyEngine->internal.clear();
  keyEngine->onKey = [this](U64 key) {
    if (key != 5) return;
    sm->failedKeyIs(EntryKey(4), true);
    sm->failedKeyIs(EntryKey(9), true);
  };
  sm->handleRetry();
  EXPECT_THAT(keyEngine->take(), ElementsAre(5, 9));
  EXPECT_THAT(failed(), ElementsAre(4));
}

TEST_F(FrontEnd, RetryOfNothingOnlyClearsTheTimerFlag) {
  create();
  sm->retryTimerSetIs(true);
  sm->handleRetry();
  EXPECT_FALSE(sm->retryTimerSet());
  EXPECT_THAT(keyEngine->take(), IsEmpty());
}

TEST_F(FrontEnd, FailedKeysAreSetFoundAndRemoved) {
  create();
  EXPECT_FALSE(sm->failedKeyDel(EntryKey(1)));
  sm->failedKeyIs(EntryKey(1), true);
  sm->failedKeyIs(EntryKey(2), false);
  EXPECT_TRUE(sm->failedKeyDel(EntryKey(1)));
  EXPECT_FALSE(sm->failedKeyDel(EntryKey(2)));
  sm->failedKeyIs(EntryKey(3), true);
  sm->failedKeyDel(sm->failedKey().begin());
  EXPECT_THAT(failed(), IsEmpty());
  sm->failedKeyIs(EntryKey(3), true);
  sm->failedKeyDelAll();
  EXPECT_THAT(failed(), IsEmpty());
}

TEST_F(FrontEnd, FailedKeyIsOverwritesTheValue) {
  create();
  sm->failedKeyIs(EntryKey(1), true);
  sm->failedKeyIs(EntryKey(1), false);
  EXPECT_THAT(failed(), ElementsAre(1));
  EXPECT_FALSE(sm->failedKeyDel(EntryKey(1)));
  sm->failedKeyIs(EntryKey(1), false);
  sm->failedKeyIs(EntryKey(1), true);
  EXPECT_TRUE(sm->failedKeyDel(EntryKey(1)));
}

// The walk, the failure and the pass know no key that means none.
TEST_F(FrontEnd, KeyZeroIsWalkedAndRetried) {
  for (U64 key : {0, 1, 5}) write({.key = key, .ti = static_cast<U32>(key), .opId = 7});
  keyEngine->internal = {0, 1};
  create();
  EXPECT_THAT(keyEngine->take(), testing::UnorderedElementsAre(0, 1, 5));
  EXPECT_THAT(failed(), ElementsAre(0, 1));
  wheel->advance(10);
  EXPECT_THAT(keyEngine->take(), ElementsAre(0, 1)) << "fails again, and is not tried twice";
  EXPECT_THAT(failed(), ElementsAre(0, 1));
  keyEngine->internal = {};
  wheel->advance(10);
  EXPECT_THAT(keyEngine->take(), ElementsAre(0, 1));
  EXPECT_THAT(failed(), IsEmpty());
}

TEST_F(FrontEnd, AKeyRemovedInAPassIsNotTried) {
  create();
  for (U64 key : {1, 2, 3}) sm->failedKeyIs(EntryKey(key), true);
  keyEngine->onKey = [this](U64 key) {
    if (key == 1) sm->failedKeyDel(EntryKey(2));
    if (key == 3) sm->failedKeyDelAll();
  };
  sm->handleRetry();
  EXPECT_THAT(keyEngine->take(), ElementsAre(1, 3));
}

TEST_F(FrontEnd, WithoutAWheelNeverRetriesFailedKeys) {
  wheel = nullptr;
  create();
  keyEngine->internal = {1, 2};
  tell(1);
  tell(2);
  EXPECT_THAT(failed(), ElementsAre(1, 2));
  EXPECT_FALSE(sm->retryTimerSet());
}

TEST_F(FrontEnd, ReplacingTheWheelRunsAPassAtOnce) {
  create();
  keyEngine->internal = {1};
  tell(1);
  keyEngine->internal.clear();
  keyEngine->take();
  auto const other = make<Keel::VirtualWheel>();
  sm->retryFailedTimerIs(other);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  sm->retryFailedTimerIs(other);
  sm->retryFailedTimerIs(nullptr);
  EXPECT_EQ(sm->retryFailedTimer(), nullptr);
  sm->retryFailedTimerDel();
  EXPECT_THAT(keyEngine->take(), IsEmpty());
}

TEST_F(FrontEnd, ReplacingTheWheelByItselfRunsNothing) {
  create();
  keyEngine->internal = {1};
  tell(1);
  keyEngine->take();
  sm->retryFailedTimerIs(wheel);
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_THAT(failed(), ElementsAre(1));
  EXPECT_TRUE(sm->retryTimerSet());
  EXPECT_EQ(wheel->earliest(), 10.0);
  wheel->advance(10);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
}

TEST_F(FrontEnd, APassWhileNotInitializedDropsTheKeys) {
  create();
  keyEngine->internal = {1};
  tell(1);
  keyEngine->take();
  sm->initializedIs(false);
  sm->handleRetry();
  EXPECT_THAT(keyEngine->take(), IsEmpty());
  EXPECT_THAT(failed(), IsEmpty());
}

TEST_F(FrontEnd, OtherExceptionInAPassLeavesTheRestWaiting) {
  create();
  keyEngine->internal = {1, 2, 3};
  for (U64 key : {1, 2, 3}) tell(key);
  keyEngine->internal.clear();
  keyEngine->other = {2};
  EXPECT_THROW(sm->handleRetry(), std::runtime_error);
  EXPECT_THAT(failed(), ElementsAre(3));
  EXPECT_FALSE(sm->retryTimerSet());
}

// Subclasses.

namespace {
class OwnFrontEnd : public VantrelSm {
 public:
  using VantrelSm::VantrelSm;
  template <class... Args>
  static Ptr<OwnFrontEnd> create(Args... args) {
    Ptr<OwnFrontEnd> sm(new OwnFrontEnd(args...));
    sm->hasNotificationActiveIs(true);
    return sm;
  }
  void handleEntry(EntryKey const& key) override { keys.push_back(key.value()); }
  void handleEntry() override {
    ++walks;
    if (walksOn) VantrelSm::handleEntry();
  }
  void handleInitialized() override { ++initializations; }
  std::vector<U64> keys;
  int walks = 0, initializations = 0;
  bool walksOn = true;
};
}  // namespace

TEST_F(FrontEnd, ASubclassMayOverrideTheHandlers) {
  write({.key = 1, .ti = 1});
  auto const own =
      OwnFrontEnd::create(table, status, debugConfig, debugStatus, keyEngine, flushStatus, wheel);
  EXPECT_TRUE(own->initialized()) << "the constructor calls its own handleInitialized";
  EXPECT_EQ(own->initializations, 0);
  EXPECT_EQ(own->walks, 1);
  EXPECT_THAT(own->keys, ElementsAre(1));
  own->handleEntryCollNotify();
  EXPECT_EQ(own->walks, 2);
  own->keys.clear();
  own->failedKeyIs(EntryKey(4), true);
  own->handleRetry();
  EXPECT_THAT(own->keys, IsEmpty()) << "a retry pass calls the front end's own handler";
  EXPECT_THAT(keyEngine->take(), ElementsAre(4));
}

// Of the three, whoever calls: watchers, an input that is replaced, and an operator, who knows names.
TEST_F(FrontEnd, OverriddenHandlersAreReachedThroughTheirSlots) {
  auto const own =
      OwnFrontEnd::create(table, status, debugConfig, debugStatus, keyEngine, flushStatus, wheel);
  own->walksOn = false;
  own->walks = 0;
  tell(7);
  EXPECT_THAT(std::exchange(own->keys, {}), ElementsAre(7));
  table->notifyEntryColl();
  EXPECT_EQ(std::exchange(own->walks, 0), 1);
  own->tableConfigIs(make<Shoal::LocalTable<EntryConfig>>("other"));
  EXPECT_EQ(std::exchange(own->walks, 0), 1);

  auto const& type = own->typeInfo();
  type.invoke(*own, "handleEntry", {U64{8}});
  EXPECT_THAT(std::exchange(own->keys, {}), ElementsAre(8));
  type.invoke(*own, "handleEntryCollNotify");
  EXPECT_EQ(own->walks, 1);
  type.invoke(*own, "handleInitialized");
  EXPECT_EQ(own->initializations, 1);
  static_cast<VantrelSm&>(*own).handleInitialized();
  EXPECT_EQ(own->initializations, 2);
  EXPECT_EQ(flushStatus->tableCounter(), 1) << "the base's was not called again";
  EXPECT_THAT(keyEngine->take(), IsEmpty());
}

TEST_F(FrontEnd, ConstructorThatThrowsReleasesItsInputs) {
  class ThrowingWatcher : public VantrelFlushStatus::Notifiee {
   public:
    void onTableCounter() override { throw std::runtime_error("watcher"); }
  };
  ThrowingWatcher w;
  w.notifierIs(flushStatus);
  U32 const before = table->references();
  EXPECT_THROW(create(), std::runtime_error);
  EXPECT_EQ(table->references(), before);
}

TEST_F(FrontEnd, AttributesCanBeReachedByName) {
  create();
  auto const& type = sm->typeInfo();
  for (char const* name :
       {"tableConfig", "tableStatus", "debugConfig", "debugStatus", "vantrelImpl", "flushStatus",
        "retryFailedTimer", "initialFlushed", "retryPeriod", "retryTimerSet", "initialized"})
    EXPECT_NO_THROW(static_cast<void>(type.read(*sm, name))) << name;
  type.write(*sm, "retryPeriod", 2.5);
  EXPECT_EQ(sm->retryPeriod(), 2.5);
  EXPECT_THROW(type.write(*sm, "retryPeriod", true), Ostra::AttributeException);
  type.invoke(*sm, "handleEntryCollNotify");
  type.invoke(*sm, "doScheduleRetry", {U64{9}});
  EXPECT_THAT(failed(), ElementsAre(9));
  EXPECT_THROW(type.writeFromOutside(*sm, "initialized", false), Ostra::AttributeException);
}

TEST_F(FrontEnd, OffersTheseNames) {
  EXPECT_THAT(
      offered(VantrelSm::staticType()),
      ElementsAre("tableConfig reference", "tableStatus reference", "debugConfig reference",
                  "debugStatus reference", "vantrelImpl reference", "flushStatus reference",
                  "retryFailedTimer reference", "initialFlushed bool", "handleEntry (U64)",
                  "handleEntryCollNotify ()", "handleDebug ()", "doScheduleRetry (U64)", "retryPeriod double",
                  "retryTimerSet bool", "failedKey U64 -> bool", "failedKeyDelAll ()", "handleRetry ()",
                  "initialized bool", "handleInitialized ()"));
  EXPECT_THAT(offered(VantrelFlushStatus::staticType()), ElementsAre("tableCounter U8", "flushCounter U8"));
}

TEST_F(FrontEnd, FailedKeysAreKeptAndDroppedByName) {
  create();
  auto const& type = sm->typeInfo();
  for (U64 key : {1, 2, 3}) type.memberIs(*sm, "failedKey", key, true);
  EXPECT_THAT(failed(), ElementsAre(1, 2, 3));
  type.memberDel(*sm, "failedKey", U64{2});
  EXPECT_THAT(failed(), ElementsAre(1, 3));
  type.invoke(*sm, "failedKeyDelAll");
  EXPECT_THAT(failed(), IsEmpty());
}

TEST_F(FrontEnd, RefusesWritesFromOutsideWithTheReason) {
  create();
  auto const why = [&](auto const& entity, char const* name, Ostra::Value const& value) -> std::string {
    try {
      entity->typeInfo().writeFromOutside(*entity, name, value);
    } catch (Ostra::AttributeException const& error) {
      return error.what();
    }
    return "it was written";
  };
  EXPECT_THAT(why(sm, "initialized", false), HasSubstr("would drop every key it is told of"));
  EXPECT_THAT(why(sm, "initialFlushed", true), HasSubstr("the front end knows itself what it flushed"));
  EXPECT_THAT(why(sm, "retryTimerSet", true), HasSubstr("the front end keeps track of its wake-up itself"));
  EXPECT_THAT(why(flushStatus, "tableCounter", U64{9}), HasSubstr("the front ends count"));
  EXPECT_THAT(why(flushStatus, "flushCounter", U64{9}), HasSubstr("the front ends count"));
}

TEST_F(FrontEnd, AWatcherOfTheCountersNeedsNoHandler) {
  VantrelFlushStatus::Notifiee watcher;
  watcher.notifierIs(Ostra::Ptr<VantrelFlushStatus const>(flushStatus.get()));
  create();
  EXPECT_EQ(flushStatus->tableCounter(), 1);
  EXPECT_EQ(flushStatus->flushCounter(), 1);
}

TEST_F(FrontEnd, FirstWalkHearsAnswerToTheTableCounter) {
  class Answering : public VantrelFlushStatus::Notifiee {
   public:
    void onTableCounter() override { answer(); }
    std::function<void()> answer;
  };
  Answering producer;
  producer.notifierIs(flushStatus);
  producer.answer = [this] {
    table->entryIs(config({.key = 1, .ti = 1}));
    debugConfig->versionInc(1);
  };
  create();
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  EXPECT_EQ(keyEngine->debugs, 0) << "inert until the constructor is through";
}

// Called directly, by somebody who holds no reference of his own: the front end lives to the handler's end,
// and no longer.
TEST_F(FrontEnd, LastReferenceMayGoInsideAnyHandler) {
  write({.key = 1, .ti = 1});
  write({.key = 2, .ti = 2});
  std::vector<U32> held;  // references to the flush status when the engine is called
  U32 const unheld = flushStatus->references();
  auto const letGo = [&] {
    sm = nullptr;
    held.push_back(flushStatus->references() - unheld);
  };
  auto const tryOut = [&](char const* what, std::vector<U32> const& expected, auto call) {
    keyEngine->onKey = nullptr;
    keyEngine->onDebug = nullptr;
    create();
    sm->failedKeyIs(EntryKey(1), true);
    sm->failedKeyIs(EntryKey(2), true);
    keyEngine->onKey = [&](U64) { letGo(); };
    keyEngine->onDebug = letGo;
    call(*sm);
    EXPECT_EQ(std::exchange(held, {}), expected) << what;
    EXPECT_EQ(flushStatus->references(), unheld) << what;
  };
  tryOut("one key", {1}, [](VantrelSm& called) { called.handleEntry(EntryKey(1)); });
  tryOut("a walk", {1, 1}, [](VantrelSm& called) { called.handleEntry(); });
  tryOut("a walk by name", {1, 1}, [](VantrelSm& called) { called.handleEntryCollNotify(); });
  tryOut("a retry pass", {1, 1}, [](VantrelSm& called) { called.handleRetry(); });
  tryOut("a debug request", {1}, [](VantrelSm& called) { called.handleDebug(); });
}

// The walk is the table's watcher's; the timer's is switched on after it, and asks for the wake-up it missed.
TEST_F(FrontEnd, LastReferenceMayGoInTheWalkAtSwitchingOn) {
  class Asked : public Keel::VirtualWheel {
   public:
    std::function<void()> onAsked;

   private:
    void earliestChanged() const override {
      if (onAsked) onAsked();
    }
  };
  write({.key = 1, .ti = 1});
  auto const asked = make<Asked>();
  wheel = asked;
  U32 const unheld = flushStatus->references();
  create();
  sm->doScheduleRetry(EntryKey(1));
  sm->hasNotificationActiveIs(false);
  wheel->advance(20);
  keyEngine->onKey = [this](U64) { sm = nullptr; };
  std::vector<std::optional<double>> wakeUps;
  asked->onAsked = [&] {
    wakeUps.push_back(wheel->earliest());
    EXPECT_EQ(flushStatus->references(), unheld + 1);
  };
  VantrelSm& switched = *sm;
  switched.hasNotificationActiveIs(true);
  EXPECT_THAT(wakeUps, ElementsAre(20.0)) << "asked for once";
  EXPECT_EQ(wheel->earliest(), 20.0) << "and still armed without the front end";
  EXPECT_EQ(flushStatus->references(), unheld);
}

TEST_F(FrontEnd, WalkThatThrewIsRepeatedWhenSwitchedOn) {
  create();
  sm->hasNotificationActiveIs(false);
  write({.key = 1, .ti = 1});
  keyEngine->other = {1};
  EXPECT_THROW(sm->hasNotificationActiveIs(true), std::runtime_error);
  keyEngine->other.clear();
  keyEngine->take();
  sm->hasNotificationActiveIs(true);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
}

TEST_F(FrontEnd, OtherExceptionInAWalkSkipsTheFlush) {
  create();
  client->take();
  write({.key = 1, .ti = 1});
  keyEngine->other = {1};
  EXPECT_THROW(table->notifyEntryColl(), std::runtime_error);
  EXPECT_THAT(client->take(), IsEmpty());
}

TEST_F(FrontEnd, RetryDueWhileOffComesWhenSwitchedOn) {
  create();
  keyEngine->internal = {1};
  tell(1);
  keyEngine->internal.clear();
  sm->hasNotificationActiveIs(false);
  wheel->advance(20);
  sm->tableConfigDel();
  keyEngine->take();
  sm->hasNotificationActiveIs(true);
  wheel->advance(1);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
  EXPECT_FALSE(sm->retryTimerSet());
}

TEST_F(FrontEnd, ZeroPeriodRetriesOnceAnInstant) {
  create();
  sm->retryPeriodIs(-1);
  keyEngine->internal = {1};
  tell(1);
  keyEngine->take();
  wheel->advance(1);
  EXPECT_THAT(keyEngine->take(), ElementsAre(1));
}

TEST_F(FrontEnd, UnchangedKeyLeavesNoFailedKeyWithARealEngine) {
  engineIs();
  sm = vantrelSmFactory(table, status, debugConfig, debugStatus, engine, flushStatus, wheel);
  table->entryIs(config({.key = 1, .ti = 1, .opId = 5}));
  client->take();
  table->notifyEntry(EntryKey(1));
  EXPECT_THAT(client->take(), IsEmpty()) << "not newer: the engine answers false";
  EXPECT_THAT(failed(), IsEmpty());
}
