// SPDX-License-Identifier: Apache-2.0
// FastVantrelImpl: the concrete make-before-break engine.
//
// The producer chooses positions, the engine decides when a position may be taken: never while another entry
// holds it, and never so that, inside one priority group, a lower `prio` would lie at a higher precedence
// index than a higher one. An entry that must wait leaves a claim on its position; the change that may have
// removed its obstacle queues it for a retry.
//
// Invariants: see FastState.
// Ownership: makes its FastState at construction and does not release it.
// Threading: the agent's event loop; all engines of a process share one record pool.
// Cost: a key is a hash probe and a handful of ordered look-ups; nothing is ever rescanned.
// Errors: a broken invariant is an assertion against the model file FastVantrelImpl.
#pragma once

#include <memory>

#include "vantrel/core/mapping.h"
#include "vantrel/engine/vantrel_impl.h"
#include "vantrel/fast/wait_reason.h"

namespace Vantrel {

class FastState;
struct CState_s;
struct Place;

class VANTREL_API FastVantrelImpl : public VantrelImpl {
 public:
  class Notifiee : public Ostra::NotifieeOf<FastVantrelImpl const> {
   public:
    virtual void onPrioGrpShift() {}
    virtual void onState() {}
    virtual void onDeadlockCount() {}
    virtual void onBreakMixedRings() {}
    virtual void onNumMixedRings() {}
  };

  FastVantrelImpl(std::string name, Ostra::Ptr<TableConfig const> tableConfig,
                  Ostra::Ptr<DebugConfig const> debugConfig, Ostra::Ptr<DebugStatus> debugStatus,
                  Ostra::Ptr<VantrelHelper> helper, U32 lgId);
  // Cleans up first: every key that has a handle is deleted, its status removed, the hardware flushed. A
  // subclass that overrides pti or lti calls cleanupOnce() in its own destructor.
  ~FastVantrelImpl() override;

  void checkDeadlock() override;
  void processPending() override;
  bool processEntry(EntryConfig const& entry) override;
  bool processDelete(EntryKey const& key, bool delAck) override;
  OpId currentOpId(EntryKey const& key) const override;
  U32 numPending() const override;
  U32 numDeadlock() const override;
  void dumpPending() override;
  void dumpState() override;
  void handleDebug() override;
  void handleInitialized() override;

  // The precedence index of a position, and back. Inside a group, precedence indexes have the hardware's
  // order.
  virtual U32 pti(U16 pg, U32 ti) const;
  virtual U32 lti(U32 pti) const;

  // False when the entry may be programmed at its table index now. True when it is stale or must wait: then
  // it has a claim, unless a newer version has one there.
  bool isConflicting(EntryConfig const& entry);
  // Returns false when the engine does not know the key. With `deadlock` the hardware client is called by
  // deleteEntryDeadlock.
  bool processDeleteHelper(EntryKey const& key, bool deadlock, bool delAck);
  // Deletes every key that has a handle.
  void doCleanup();
  // Reserves room for that many more keys, so that none of them waits while the map of all keys doubles and
  // the record pool grows: tens of milliseconds at a million. An agent that knows the size of its hardware
  // calls it once, at the start.
  void roomForKeysIs(U64 keys);

  // Why the key's entry waits. Changes nothing; a damaged record reads as absent, and is not reported. Costs
  // a look-up or two, and a read of the record when the key has no claim.
  WaitReason waitReason(EntryKey const& key) const;

  // How many low bits of a precedence index hold the position inside a priority group.
  U32 prioGrpShift() const { return prioGrpShift_; }
  void prioGrpShiftIs(U32 v) {
    scalarIs(fastNotifiees_, "prioGrpShift", prioGrpShift_, v, &Notifiee::onPrioGrpShift);
  }
  FastState* state() const { return state_; }
  void stateIs(FastState* v) { scalarIs(fastNotifiees_, "state", state_, v, &Notifiee::onState); }
  // How many rings were broken.
  U32 deadlockCount() const { return deadlockCount_; }
  void deadlockCountIs(U32 v) {
    scalarIs(fastNotifiees_, "deadlockCount", deadlockCount_, v, &Notifiee::onDeadlockCount);
  }
  U32 deadlockCountInc(U32 n) {
    deadlockCountIs(deadlockCount_ + n);
    return deadlockCount_;
  }

  // Every consistent target is reached: rings through entries that wait for the priority order are broken too
  // (mixed_rings.h), and an entry whose retry fails is left to the front end's timer, like a notified one.
  // Off by default: such a ring stays then, and so does the claim of an entry whose retry failed.
  bool breakMixedRings() const { return breakMixedRings_; }
  void breakMixedRingsIs(bool v);
  // How many rings were broken that only this search sees.
  U32 numMixedRings() const { return numMixedRings_; }
  void numMixedRingsIs(U32 v) {
    scalarIs(fastNotifiees_, "numMixedRings", numMixedRings_, v, &Notifiee::onNumMixedRings);
  }

  // The watchers of this class's own attributes; those of the base are VantrelImpl's.
  Ostra::Notifier& notifieeList() const { return fastNotifiees_; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 protected:
  void cleanupOnce();

 private:
  void checkedPrioGrpShiftIs(U32 v);

  // conflict.cpp
  CState_s& recordOf(EntryConfig const& entry);
  bool conflicts(EntryConfig const& entry, CState_s& c);
  bool mayTake(EntryConfig const& entry, CState_s& c, U32 ti);
  CState_s const* priorityBlocker(CState_s const& c, U32 ti) const;
  void claimPriority(EntryConfig const& entry, CState_s& c, U32 ti, CState_s const& blocker);
  void claimOccupied(EntryConfig const& entry, CState_s& c, U32 ti);

  // wait_reason.cpp
  CState_s const* newerAt(U32 ti, OpId opId) const;

  // programming.cpp
  void program(EntryConfig const& entry, CState_s& c, U32 ti);
  void add(EntryConfig const& entry, CState_s& c, U32 ti);
  void move(EntryConfig const& entry, CState_s& c, U32 ti);
  Place placeOf(CState_s const& c, U32 ti) const;
  using VantrelImpl::hardware;
  // For one call about this key.
  VantrelHelper& hardware(CState_s const& c) const;
  struct Range {  // of table indexes, [lo, hi)
    U32 lo;
    U32 hi;
  };
  Range rangeOpenedByMove(CState_s const& c, U32 old, U32 ti) const;
  void wakeRange(U16 pg, Range range);

  // workq.cpp
  void retryNext();
  void retry(EntryKey const& key);
  void retryFailed(EntryKey const& key);

  // deletes.cpp
  bool deleteKnown(CState_s& c, bool deadlock, bool delAck);
  bool deleteUnknown(EntryKey const& key, bool delAck);
  void withdraw(CState_s const& c, EntryConfig const& record, bool deadlock);
  void vacate(CState_s const& c, U32 ti);
  void vacateStrays(CState_s const& c);
  Range rangeOpenedByDelete(CState_s const& c, U32 ti) const;
  void forget(CState_s& c);

  // deadlock.cpp
  struct Check;
  void checkBlocked();
  bool skipsOpenChain(EntryKey const& start, Check& check) const;
  void followSkipped(Check& check) const;
  using Reader = EntryConfig (*)(TableConfig const&, EntryKey const&);
  bool chainComesBack(EntryKey const& start, Check& check, Reader read) const;
  CState_s const* occupantWaitedFor(CState_s const& c, EntryConfig const& config) const;
  void breakRing(EntryKey const& victim);
  void takeOutAndBack(EntryKey const& victim);

  // mixed_rings.cpp
  class MixedRings;
  void reviewClaims();
  void checkMixedRings();

  mutable Ostra::Notifier fastNotifiees_;
  U32 prioGrpShift_ = TcamMapping::defaultShift;
  FastState* state_ = nullptr;
  U32 deadlockCount_ = 0;
  bool breakMixedRings_ = false;
  U32 numMixedRings_ = 0;
  std::unique_ptr<MixedRings> const mixedRings_;
  bool cleanedUp_ = false;
};

}  // namespace Vantrel
