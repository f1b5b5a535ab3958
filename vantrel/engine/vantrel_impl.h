// SPDX-License-Identifier: Apache-2.0
// VantrelImpl: the abstract engine. It fixes how one key is handled (dispatch, then pending work, then
// deadlock check) and keeps which key owns which handle. The concrete engine decides where entries may go.
//
// Invariants: initialized() is true from the end of construction on.
// Ownership: holds references to the configuration table, the debug entities and the hardware client.
// Threading: the agent's event loop.
// Errors: a key whose dependant tables cannot be programmed leaves handleEntry as Ostra::InternalException
//   before anything of that key has changed, unless the key was just deleted to break a ring; every other
//   exception passes through.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "ostra/entity.h"
#include "ostra/piecewise_map_fwd.h"
#include "vantrel/core/tables.h"
#include "vantrel/engine/debug_entities.h"
#include "vantrel/engine/vantrel_helper.h"

namespace Vantrel {

class VANTREL_API VantrelImpl : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<VantrelImpl const> {
   public:
    virtual void onRetryDepsMaxCnt() {}
    virtual void onFailedDepCnt() {}
    virtual void onDebugEnabled() {}
    virtual void onDirty() {}
    virtual void onAlwaysProcessPending() {}
    virtual void onInitialized() {}
    virtual void onHandleToKey(U64 const&) {}
    virtual void onKeyToHandle(EntryKey const&) {}
  };

  struct HandleHash {
    std::size_t operator()(U64 handle) const { return handle ^ (handle >> 32); }
  };
  using KeyOfHandle = Ostra::PiecewiseMap<U64, EntryKey, HandleHash>;
  using HandleOfKey = Ostra::PiecewiseMap<EntryKey, U64>;

  // `lgId` heads every trace record of this engine; zero fails an assertion.
  VantrelImpl(std::string name, Ostra::Ptr<TableConfig const> tableConfig,
              Ostra::Ptr<DebugConfig const> debugConfig, Ostra::Ptr<DebugStatus> debugStatus,
              Ostra::Ptr<VantrelHelper> helper, U32 lgId);
  ~VantrelImpl() override;

  // Handles one notified or retried key. Ignored until the engine is initialized.
  virtual void handleEntry(EntryKey const& key);
  // Turns one key into one delete or one add-or-update; true when the pending work should be run.
  virtual bool handleEntryHelper(EntryKey const& key);

  // A concrete engine provides these. In this class checkDeadlock, the dumps and handleDebug do nothing,
  // processDependantTables succeeds, and the others fail an assertion.

  // Finds and breaks rings of entries that wait for one another.
  virtual void checkDeadlock();
  // Retries queued entries.
  virtual void processPending();
  // Programs an added or changed entry, or queues it; true when the pending work should be run.
  virtual bool processEntry(EntryConfig const& entry);
  // Removes a key's entry; with `delAck` the producer waits for an acknowledgement. True when something was
  // deleted.
  virtual bool processDelete(EntryKey const& key, bool delAck);
  // The OpId programmed for the key, zero when none.
  virtual OpId currentOpId(EntryKey const& key) const;
  virtual U32 numPending() const;
  virtual U32 numDeadlock() const;
  // The dumps write the state into the facility trace; handleDebug answers a debug request.
  virtual void dumpPending();
  virtual void dumpState();
  virtual void handleDebug();
  // Programs what the entry depends on; true on success. `entry` is empty or delete-marked when the key is
  // being deleted; the result is ignored then. This one takes no time and keeps the key's shared timestamp
  // (core/trace.h): when an override calls it, the override's own time shows only at a later record.
  virtual bool processDependantTables(EntryConfig const& entry, EntryKey const& key);
  // Opens the trace file and ends construction.
  virtual void handleInitialized();

  // A call that handles many keys (a full walk, a retry pass, a drain of the work queue, the clean-up) calls
  // betweenKeys() between two of them, so that the agent can serve others. No key is half-done then.
  // betweenKeys() must not call the engine's handlers, dispatch what leads to them, or release the engine.
  // The object must outlive the engine, or be replaced before it goes. Null, the default: no call.
  //
  // betweenKeys() may end the call by an exception (but not Ostra::InternalException, which would have a key
  // retried). Finished work stays:
  //   walk      the other keys are not handed over; no flush, and flushCounter does not move
  //   pass      the other keys stay in failedKey, and no wake-up is armed until a key fails
  //   drain     the other keys stay queued for the next drain, blocked ones for the next deadlock check; a
  //             ring that was being broken is not counted; the walk or the pass around it ends too
  //   clean-up  the other keys stay as they are, and nothing is flushed; in a destructor the process ends
  class Yield {
   public:
    virtual void betweenKeys() = 0;

   protected:
    ~Yield() = default;
  };
  void yieldIs(Yield* yield) { yield_ = yield; }
  void yield() const {
    if (yield_) [[unlikely]]
      yieldNow();
  }

  // Who hands a key over again after a while that the engine could not handle now, beside the key of the call
  // itself, whose exception says so: the front end. The object must outlive the engine or be replaced before
  // it goes. Null, the default: nobody.
  class Retries {
   public:
    virtual void retryLater(EntryKey const& key) = 0;

   protected:
    ~Retries() = default;
  };
  void retriesIs(Retries* retries) { retries_ = retries; }
  Retries* retries() const { return retries_; }

  Ostra::Ptr<TableConfig const> const& tableConfig() const { return tableConfig_; }
  Ostra::Ptr<DebugConfig const> const& debugConfig() const { return debugConfig_; }
  Ostra::Ptr<DebugStatus> const& debugStatus() const { return debugStatus_; }
  Ostra::Ptr<VantrelHelper> const& helper() const { return helper_; }
  // The hardware client, for one call now: the next trace record gets a new timestamp, for hardware takes
  // time.
  VantrelHelper& hardware() const;
  U32 lgId() const { return lgId_; }

  // How many times dependant tables are tried for one key before it is left to the retry timer.
  U32 retryDepsMaxCnt() const { return retryDepsMaxCnt_; }
  void retryDepsMaxCntIs(U32 v) {
    scalarIs("retryDepsMaxCnt", retryDepsMaxCnt_, v, &Notifiee::onRetryDepsMaxCnt);
  }
  // How many times that happened.
  U64 failedDepCnt() const { return failedDepCnt_; }
  void failedDepCntIs(U64 v) { scalarIs("failedDepCnt", failedDepCnt_, v, &Notifiee::onFailedDepCnt); }
  void failedDepCntInc(U64 n) { failedDepCntIs(failedDepCnt_ + n); }
  // Dump the state around each key, when it changed since the last dump.
  bool debugEnabled() const { return debugEnabled_; }
  void debugEnabledIs(bool v) { scalarIs("debugEnabled", debugEnabled_, v, &Notifiee::onDebugEnabled); }
  bool dirty() const { return dirty_; }
  void dirtyIs(bool v) { scalarIs("dirty", dirty_, v, &Notifiee::onDirty); }
  // Run the pending work after every key, not only after those that changed something.
  bool alwaysProcessPending() const { return alwaysProcessPending_; }
  void alwaysProcessPendingIs(bool v) {
    scalarIs("alwaysProcessPending", alwaysProcessPending_, v, &Notifiee::onAlwaysProcessPending);
  }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { scalarIs("initialized", initialized_, v, &Notifiee::onInitialized); }

  // Which key owns a handle. A key that changed its handle is still named under the old one.
  KeyOfHandle const& handleToKey() const { return *handleToKey_; }
  void handleToKeyIs(U64 handle, EntryKey const& key);
  void handleToKeyDel(U64 handle);
  void handleToKeyDelAll();
  // The handle of each key.
  HandleOfKey const& keyToHandle() const { return *keyToHandle_; }
  void keyToHandleIs(EntryKey const& key, U64 handle);
  void keyToHandleDel(EntryKey const& key);
  void keyToHandleDelAll();

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 protected:
  // Called with a key before its configuration is read: prefetches what the concrete engine knows of the key.
  // Must change nothing. Null: nothing is called.
  using Prefetch = void (*)(VantrelImpl const& engine, EntryKey const& key);
  void prefetchIs(Prefetch prefetch) { prefetch_ = prefetch; }

  // False when there is nobody who does.
  bool retryLater(EntryKey const& key) const {
    if (retries_) retries_->retryLater(key);
    return retries_;
  }

  // Returns the key's configuration once its dependant tables are programmed; an empty or delete-marked one
  // after the first attempt, whatever came of it. Throws Ostra::InternalException after retryDepsMaxCnt
  // attempts in vain.
  EntryConfig readAndProcessDeps(EntryKey const& key);

 private:
  [[noreturn]] void giveUpOnDependants(EntryConfig const& entry, EntryKey const& key);
  bool dispatchDelete(EntryKey const& key, bool delAck);
  bool dispatchAddOrUpdate(EntryConfig const& entry, EntryKey const& key);
  bool takeOverHandle(U64 handle, EntryKey const& key, EntryKey const& old);
  void dumpWhenDirty();
  void yieldNow() const;

  Ostra::Ptr<TableConfig const> const tableConfig_;
  Ostra::Ptr<DebugConfig const> const debugConfig_;
  Ostra::Ptr<DebugStatus> const debugStatus_;
  Ostra::Ptr<VantrelHelper> const helper_;
  U32 const lgId_;
  U32 retryDepsMaxCnt_ = 1000;
  U64 failedDepCnt_ = 0;
  bool debugEnabled_ = false;
  bool dirty_ = true;
  bool alwaysProcessPending_ = false;
  bool initialized_ = false;
  Prefetch prefetch_ = nullptr;
  Yield* yield_ = nullptr;
  Retries* retries_ = nullptr;
  std::unique_ptr<KeyOfHandle> const handleToKey_;
  std::unique_ptr<HandleOfKey> const keyToHandle_;
};

}  // namespace Vantrel
