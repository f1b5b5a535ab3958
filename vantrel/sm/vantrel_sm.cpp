// SPDX-License-Identifier: Apache-2.0
// The front end: a reactor for each input, and what each notification leads to.
//
//   configuration table  -- onEntry(key) ---->  the engine handles the key; a failed key is kept (retry.cpp)
//                        -- onEntryColl() --->  every key of the table is handled, then the hardware flushed
//   debug configuration  -- onVersion() ----->  the engine answers
//   timer wheel          -- onTime() -------->  every failed key is handled
//
// It does not read configurations, order keys, or know positions: the engine does.
#include "vantrel/sm/vantrel_sm.h"

#include "ostra/exception.h"
#include "ostra/type_info.h"
#include "pallo/exception.h"
#include "vantrel/core/trace.h"
#include "vantrel/sm/reactors.h"

namespace Vantrel {

template <class ReactorT, class Input>
Ostra::Ptr<ReactorT> VantrelSm::makeReactor(Ostra::Ptr<Input> input) {
  if (!input) return nullptr;
  return Ostra::make<ReactorT>(this, std::move(input));
}

VantrelSm::VantrelSm(Ostra::Ptr<TableConfig const> tableConfig, Ostra::Ptr<TableStatus> tableStatus,
                     Ostra::Ptr<DebugConfig const> debugConfig, Ostra::Ptr<DebugStatus> debugStatus,
                     Ostra::Ptr<VantrelImpl> vantrelImpl, Ostra::Ptr<VantrelFlushStatus> flushStatus,
                     Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer)
    : tableReactor_(makeReactor<TableReactor>(std::move(tableConfig))),
      tableStatus_(std::move(tableStatus)),
      debugReactor_(makeReactor<DebugReactor>(std::move(debugConfig))),
      debugStatus_(std::move(debugStatus)),
      vantrelImpl_(std::move(vantrelImpl)),
      flushStatus_(std::move(flushStatus)),
      timerReactor_(makeReactor<TimerReactor>(std::move(retryFailedTimer))) {
  if (vantrelImpl_) vantrelImpl_->retriesIs(this);
  try {
    VantrelSm::handleInitialized();
  } catch (...) {
    detach();  // a notification that is under way may keep a reactor alive
    throw;
  }
}

VantrelSm::~VantrelSm() { detach(); }

void VantrelSm::detach() {
  if (vantrelImpl_ && vantrelImpl_->retries() == this) vantrelImpl_->retriesIs(nullptr);
  eachReactor([](auto const& reactor) { reactor->ownerIsGone(); });
}

Ostra::Ptr<VantrelSm> VantrelSm::VantrelSmIs(Ostra::Ptr<TableConfig const> tableConfig,
                                             Ostra::Ptr<TableStatus> tableStatus,
                                             Ostra::Ptr<DebugConfig const> debugConfig,
                                             Ostra::Ptr<DebugStatus> debugStatus,
                                             Ostra::Ptr<VantrelImpl> vantrelImpl,
                                             Ostra::Ptr<VantrelFlushStatus> flushStatus,
                                             Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer) {
  Ostra::Ptr<VantrelSm> sm(new VantrelSm(
      std::move(tableConfig), std::move(tableStatus), std::move(debugConfig), std::move(debugStatus),
      std::move(vantrelImpl), std::move(flushStatus), std::move(retryFailedTimer)));
  sm->hasNotificationActiveIs(true);
  return sm;
}

template <class Call>
void VantrelSm::eachReactor(Call call) {
  if (tableReactor_) call(tableReactor_);
  if (debugReactor_) call(debugReactor_);
  if (timerReactor_) call(timerReactor_);
}

void VantrelSm::hasNotificationActiveIs(bool active) {
  auto const keep = Ostra::keepAlive(this);
  notificationActive_ = active;
  eachReactor([active](auto reactor) { reactor->hasNotificationActiveIs(active); });
}

void VantrelSm::markedForDeletionIs(bool marked) {
  marked_ = marked;
  eachReactor([marked](auto reactor) { reactor->markedForDeletionIs(marked); });
}

// Null drops the reactor. The input that it watches already changes nothing. Any other input is watched from
// now on, by a new reactor if there is none, and is handled at once.
template <class ReactorT, class Input>
void VantrelSm::inputIs(Ostra::Ptr<ReactorT>& reactor, Ostra::Ptr<Input> input) {
  if (!input) return drop(reactor);
  if (reactor && reactor->notifier() == input) return;
  if (reactor)
    reactor->notifierIs(std::move(input));
  else
    reactor = makeReactor<ReactorT>(std::move(input));
  reactor->markedForDeletionIs(marked_);
  reactor->Ostra::NotifieeBase::hasNotificationActiveIs(notificationActive_);
  Ostra::Ptr<ReactorT> const keep = reactor;
  keep->inputReplaced();
}

template <class ReactorT>
void VantrelSm::drop(Ostra::Ptr<ReactorT>& reactor) {
  if (!reactor) return;
  reactor->ownerIsGone();
  reactor->notifierIs(nullptr);
  reactor = nullptr;
}

void VantrelSm::tableConfigIs(Ostra::Ptr<TableConfig const> table) {
  inputIs(tableReactor_, std::move(table));
}
void VantrelSm::tableConfigDel() { drop(tableReactor_); }
void VantrelSm::debugConfigIs(Ostra::Ptr<DebugConfig const> debugConfig) {
  inputIs(debugReactor_, std::move(debugConfig));
}
void VantrelSm::debugConfigDel() { drop(debugReactor_); }
void VantrelSm::retryFailedTimerIs(Ostra::Ptr<Keel::TimerWheel const> wheel) {
  inputIs(timerReactor_, std::move(wheel));
}
void VantrelSm::retryFailedTimerDel() { drop(timerReactor_); }

Ostra::Ptr<TableConfig const> VantrelSm::tableConfig() const {
  return tableReactor_ ? tableReactor_->notifier() : nullptr;
}
Ostra::Ptr<DebugConfig const> VantrelSm::debugConfig() const {
  return debugReactor_ ? debugReactor_->notifier() : nullptr;
}
Ostra::Ptr<Keel::TimerWheel const> VantrelSm::retryFailedTimer() const {
  return timerReactor_ ? timerReactor_->notifier() : nullptr;
}

void VantrelSm::handleEntry(EntryKey const& key) {
  SM_TRACE_ENTRY("handleEntry");
  if (!initialized()) return;
  auto const keep = Ostra::keepAlive(this);
  try {
    vantrelImpl()->handleEntry(key);
  } catch (Ostra::InternalException const&) {
    doScheduleRetry(key);
  }
}

void VantrelSm::handleEntry() {
  SM_TRACE_ENTRY("handleEntry");
  if (!initialized()) return;
  Ostra::Ptr<TableConfig const> const table = tableConfig();
  if (!table) return;
  auto const keep = Ostra::keepAlive(this);
  walk(*table);
  if (auto const& helper = vantrelImpl()->helper()) helper->flush();
  if (initialFlushed() || !flushStatus()) return;
  initialFlushedIs(true);
  flushStatus()->flushCounterIs(static_cast<U8>(flushStatus()->flushCounter() + 1));
}

void VantrelSm::walk(TableConfig const& table) {
  // Only the table's own steps are guarded: an exception of the engine says nothing about the table.
  auto const step = [&table](auto advance) -> std::optional<TableConfig::Place> {
    try {
      return advance();
    } catch (Pallo::CorruptionDetectedException const& damage) {
      table.corruptionDetected(damage.what());
      return std::nullopt;
    }
  };
  for (auto place = step([&] { return table.first(); }); place;) {
    handleEntry(place->key);
    place = step([&] { return table.next(*place); });
    if (place) vantrelImpl()->yield();
  }
}

void VantrelSm::handleEntryCollNotify() {
  SM_TRACE_ENTRY("handleEntryCollNotify");
  handleEntry();
}

void VantrelSm::handleInitialized() {
  SM_TRACE_ENTRY("handleInitialized");
  if (!initialized() && flushStatus())
    flushStatus()->tableCounterIs(static_cast<U8>(flushStatus()->tableCounter() + 1));
  initializedIs(true);
}

void VantrelSm::handleDebug() {
  SM_TRACE_ENTRY("handleDebug");
  if (!initialized()) return;
  auto const keep = Ostra::keepAlive(this);
  vantrelImpl()->handleDebug();
}

namespace {
std::string keysWouldBeLost(VantrelSm const&) {
  return "a running front end that is not initialized would drop every key it is told of";
}
std::string wakeUpsWouldBeLost(VantrelSm const&) { return "the front end keeps track of its wake-up itself"; }
std::string flushesWouldBeMiscounted(VantrelSm const&) {
  return "the front end knows itself what it flushed";
}
}  // namespace

// tableConfigDel, debugConfigDel and retryFailedTimerDel have no name: the input could not be set again by
// name.
Ostra::TypeInfo const& VantrelSm::staticType() {
  using S = VantrelSm;
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<S>("Vantrel::VantrelSm")
          .reference("tableConfig", &S::tableConfig)
          .reference("tableStatus", &S::tableStatus)
          .reference("debugConfig", &S::debugConfig)
          .reference("debugStatus", &S::debugStatus)
          .reference("vantrelImpl", &S::vantrelImpl)
          .reference("flushStatus", &S::flushStatus)
          .reference("retryFailedTimer", &S::retryFailedTimer)
          .attribute("initialFlushed", &S::initialFlushed, &S::initialFlushedIs)
          .refusedBecause(&flushesWouldBeMiscounted)
          .operation<void, EntryKey const&>("handleEntry", &S::handleEntry)
          .operation("handleEntryCollNotify", &S::handleEntryCollNotify)
          .operation("handleDebug", &S::handleDebug)
          .operation("doScheduleRetry", &S::doScheduleRetry)
          .attribute("retryPeriod", &S::retryPeriod, &S::retryPeriodIs)
          .attribute("retryTimerSet", &S::retryTimerSet, &S::retryTimerSetIs)
          .refusedBecause(&wakeUpsWouldBeLost)
          .collection("failedKey", &S::failedKey, &S::failedKeyIs,
                      static_cast<bool (S::*)(EntryKey const&)>(&S::failedKeyDel))
          .operation("failedKeyDelAll", &S::failedKeyDelAll)
          .operation("handleRetry", &S::handleRetry)
          .attribute("initialized", &S::initialized, &S::initializedIs)
          .refusedBecause(&keysWouldBeLost)
          .operation("handleInitialized", &S::handleInitialized);
  return type;
}

Ostra::Ptr<VantrelSm> vantrelSmFactory(Ostra::Ptr<TableConfig const> tableConfig,
                                       Ostra::Ptr<TableStatus> tableStatus,
                                       Ostra::Ptr<DebugConfig const> debugConfig,
                                       Ostra::Ptr<DebugStatus> debugStatus,
                                       Ostra::Ptr<VantrelImpl> vantrelImpl,
                                       Ostra::Ptr<VantrelFlushStatus> flushStatus,
                                       Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer) {
  return VantrelSm::VantrelSmIs(std::move(tableConfig), std::move(tableStatus), std::move(debugConfig),
                                std::move(debugStatus), std::move(vantrelImpl), std::move(flushStatus),
                                std::move(retryFailedTimer));
}

Ostra::Ptr<VantrelSm> vantrelSmFactory(VantrelSmInputs inputs) {
  return VantrelSm::VantrelSmIs(std::move(inputs.tableConfig), std::move(inputs.tableStatus),
                                std::move(inputs.debugConfig), std::move(inputs.debugStatus),
                                std::move(inputs.vantrelImpl), std::move(inputs.flushStatus),
                                std::move(inputs.retryFailedTimer));
}

}  // namespace Vantrel
