// SPDX-License-Identifier: Apache-2.0
// VantrelSm: the front end. It watches the configuration table, hands changed keys to the engine, retries
// failed keys on a timer, and walks the whole table when watching begins, when its watcher fell behind, and
// when the table is replaced.
//
// Invariants: no key is handed to the engine before `initialized`. Every key of failedKey is handed to it in
//   the next pass.
// Ownership: holds references to every input. Each watched input has a reactor, which refers back to the
//   front end.
// Threading: the agent's event loop, one notification at a time.
// Errors: Ostra::InternalException of the engine becomes a retry; every other exception passes through.
#pragma once

#include "keel/timer_wheel.h"
#include "vantrel/core/tables.h"
#include "vantrel/engine/debug_entities.h"
#include "vantrel/engine/vantrel_impl.h"
#include "vantrel/sm/failed_keys.h"
#include "vantrel/sm/flush_status.h"

namespace Vantrel {

class VANTREL_API VantrelSm : public Ostra::Described, private VantrelImpl::Retries {
 public:
  // Makes a front end and switches notification on, which begins with a walk of the table. Without a table,
  // debug configuration or wheel, what needs it does nothing; without a flush status nothing is counted.
  static Ostra::Ptr<VantrelSm> VantrelSmIs(Ostra::Ptr<TableConfig const> tableConfig,
                                           Ostra::Ptr<TableStatus> tableStatus,
                                           Ostra::Ptr<DebugConfig const> debugConfig,
                                           Ostra::Ptr<DebugStatus> debugStatus,
                                           Ostra::Ptr<VantrelImpl> vantrelImpl,
                                           Ostra::Ptr<VantrelFlushStatus> flushStatus,
                                           Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer);
  ~VantrelSm() override;

  // Forwarded to every reactor. Switching on walks the table if changes may have been missed.
  virtual void hasNotificationActiveIs(bool active);

  // Hands one key to the engine; a key whose dependant tables fail is kept for a retry.
  virtual void handleEntry(EntryKey const& key);
  // Hands over every key of the table, then flushes the hardware client.
  virtual void handleEntry();
  virtual void handleInitialized();
  // While marked, the reactors ignore every notification.
  virtual void markedForDeletionIs(bool marked);

  // A different non-null input is handled at once: a full walk, a debug request, a retry pass.
  virtual void tableConfigDel();
  virtual void tableConfigIs(Ostra::Ptr<TableConfig const> table);
  virtual void debugConfigDel();
  virtual void debugConfigIs(Ostra::Ptr<DebugConfig const> debugConfig);
  virtual void retryFailedTimerDel();
  virtual void retryFailedTimerIs(Ostra::Ptr<Keel::TimerWheel const> wheel);

  void handleEntryCollNotify();
  void handleDebug();
  // Keeps the key and makes sure that a wake-up is armed.
  void doScheduleRetry(EntryKey const& key);
  // One pass over the failed keys.
  void handleRetry();

  Ostra::Ptr<TableConfig const> tableConfig() const;
  Ostra::Ptr<TableStatus> const& tableStatus() const { return tableStatus_; }
  Ostra::Ptr<DebugConfig const> debugConfig() const;
  Ostra::Ptr<DebugStatus> const& debugStatus() const { return debugStatus_; }
  Ostra::Ptr<VantrelImpl> const& vantrelImpl() const { return vantrelImpl_; }
  Ostra::Ptr<VantrelFlushStatus> const& flushStatus() const { return flushStatus_; }
  Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer() const;

  // Setting one of the following attributes notifies nobody. True once the first full walk was flushed.
  bool initialFlushed() const { return initialFlushed_; }
  void initialFlushedIs(bool v) { initialFlushed_ = v; }
  // Seconds before failed keys are retried.
  double retryPeriod() const { return retryPeriod_; }
  void retryPeriodIs(double v) { retryPeriod_ = v; }
  // A wake-up is armed.
  bool retryTimerSet() const { return retryTimerSet_; }
  void retryTimerSetIs(bool v) { retryTimerSet_ = v; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  // The keys that wait for a retry, ascending.
  FailedKeys const& failedKey() const { return failedKey_; }
  void failedKeyIs(EntryKey const& key, bool value) {
    failedKey_.set(key, value);
    failedKeyNotify(key);
  }
  // Returns the value of the removed key, false when there was none.
  bool failedKeyDel(EntryKey const& key);
  // Removes the iterator's key. Returns the iterator, which must be advanced before it is used.
  FailedKeys::const_iterator failedKeyDel(FailedKeys::const_iterator at);
  // Removes every key, ascending, one by one.
  void failedKeyDelAll();
  // Called with each key that was inserted or removed. Does nothing: failedKey has no watchers.
  void failedKeyNotify(EntryKey const&) {}

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 protected:
  VantrelSm(Ostra::Ptr<TableConfig const> tableConfig, Ostra::Ptr<TableStatus> tableStatus,
            Ostra::Ptr<DebugConfig const> debugConfig, Ostra::Ptr<DebugStatus> debugStatus,
            Ostra::Ptr<VantrelImpl> vantrelImpl, Ostra::Ptr<VantrelFlushStatus> flushStatus,
            Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer);

 private:
  template <class NotifieeT, class Input>
  class Reactor;
  class TableReactor;
  class DebugReactor;
  class TimerReactor;

  template <class ReactorT, class Input>
  Ostra::Ptr<ReactorT> makeReactor(Ostra::Ptr<Input> input);
  template <class ReactorT, class Input>
  void inputIs(Ostra::Ptr<ReactorT>& reactor, Ostra::Ptr<Input> input);
  template <class ReactorT>
  static void drop(Ostra::Ptr<ReactorT>& reactor);
  template <class Call>
  void eachReactor(Call call);
  void detach();
  void walk(TableConfig const& table);
  void retryLater(EntryKey const& key) override { doScheduleRetry(key); }

  // What a reactor gets when it is made or pointed at another input.
  bool notificationActive_ = true;
  bool marked_ = false;
  // In the order of construction; destruction releases them in reverse.
  Ostra::Ptr<TableReactor> tableReactor_;
  Ostra::Ptr<TableStatus> const tableStatus_;
  Ostra::Ptr<DebugReactor> debugReactor_;
  Ostra::Ptr<DebugStatus> const debugStatus_;
  Ostra::Ptr<VantrelImpl> const vantrelImpl_;
  Ostra::Ptr<VantrelFlushStatus> const flushStatus_;
  Ostra::Ptr<TimerReactor> timerReactor_;
  bool initialFlushed_ = false;
  bool retryTimerSet_ = false;
  double retryPeriod_ = 10.0;
  FailedKeys failedKey_;
  bool initialized_ = false;
};

// What an agent calls, once a table.
VANTREL_API Ostra::Ptr<VantrelSm> vantrelSmFactory(Ostra::Ptr<TableConfig const> tableConfig,
                                                   Ostra::Ptr<TableStatus> tableStatus,
                                                   Ostra::Ptr<DebugConfig const> debugConfig,
                                                   Ostra::Ptr<DebugStatus> debugStatus,
                                                   Ostra::Ptr<VantrelImpl> vantrelImpl,
                                                   Ostra::Ptr<VantrelFlushStatus> flushStatus,
                                                   Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer);

// The same by name; what is left out is null:
//
//   vantrelSmFactory({.tableConfig = config, .tableStatus = status, .vantrelImpl = engine});
struct VantrelSmInputs {
  Ostra::Ptr<TableConfig const> tableConfig = nullptr;
  Ostra::Ptr<TableStatus> tableStatus = nullptr;
  Ostra::Ptr<DebugConfig const> debugConfig = nullptr;
  Ostra::Ptr<DebugStatus> debugStatus = nullptr;
  Ostra::Ptr<VantrelImpl> vantrelImpl = nullptr;
  Ostra::Ptr<VantrelFlushStatus> flushStatus = nullptr;
  Ostra::Ptr<Keel::TimerWheel const> retryFailedTimer = nullptr;
};
VANTREL_API Ostra::Ptr<VantrelSm> vantrelSmFactory(VantrelSmInputs inputs);

}  // namespace Vantrel
