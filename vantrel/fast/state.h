// SPDX-License-Identifier: Apache-2.0
// FastState: everything that the fast engine knows, and the per-key records it is made of.
//
//   cstate:     key -> record      every key that the engine knows
//   positions:  ti --> record      where an entry is programmed (positions.h)
//   pending:    ti --> record      who waits for a position, at most one each
//   priorityClaims: of pending, the programmed ones that wait for the priority order; kept while
//               breakMixedRings is set
//   workq:      keys to retry, in order of arrival; workqSet: which they are
//   blocked:    keys whose last conflict check found them blocked; the deadlock check starts from them
//   chains:     which chains of claims are known to end (open_chains.h)
//
// Invariants: a record with p.ti is listed in pending exactly under it. A key is in workqSet exactly when it
//   is in workq.
// Ownership: records come from one process-wide pool that never returns memory. An engine does not release
//   its state: the one that it makes lives to the end of the process, listed so that no leak checker reports
//   it; code that installs another (stateIs) must release that itself.
// Threading: all engines of a process run on one thread; the pool is not locked.
// Cost: a record beside its places in the indexes; no allocation but the pool's rare growth and Judy's own.
#pragma once

#include <boost/functional/hash.hpp>
#include <boost/unordered_map.hpp>
#include <boost/unordered_set.hpp>
#include <deque>

#include "vantrel/fast/judy.h"
#include "vantrel/fast/open_chains.h"
#include "vantrel/fast/positions.h"
#include "vantrel/fast/record.h"

namespace Vantrel {

class FastState {
 public:
  using Records = boost::unordered_map<EntryKey, CState_s*, boost::hash<EntryKey>>;
  using Keys = boost::unordered_set<EntryKey, boost::hash<EntryKey>>;

  FastState();
  ~FastState();
  FastState(FastState const&) = delete;
  FastState& operator=(FastState const&) = delete;

  JudyMap<CState_s> pending;
  JudyMap<CState_s> priorityClaims;
  Positions positions;
  JudySet workqSet;

  U32 lgId() const { return lgId_; }
  void lgIdIs(U32 lgId) { lgId_ = lgId; }

  Records cstate;
  std::deque<EntryKey> workq;
  Keys blocked;
  OpenChains chains{*this};

  // The key's record, null when the key is unknown.
  CState_s* record(EntryKey const& key) const {
    auto const at = cstate.find(key);
    return at == cstate.end() ? nullptr : at->second;
  }
  // Looks the record of the key that is about to be handled up, keeps the result, and prefetches the record
  // while the key's configuration is read.
  void prefetch(EntryKey const& key) {
    cached_ = {key, record(key)};
    __builtin_prefetch(cached_.record);
  }
  // The same as record(), without a look-up for the key that was prefetched last.
  CState_s* cachedRecord(EntryKey const& key) const {
    return key == cached_.key ? cached_.record : record(key);
  }
  // Enters a record under its key, which must be unknown.
  void enter(CState_s& c) {
    cstate.emplace(c.key, &c);
    if (cached_.key == c.key) cached_.record = &c;
  }
  void erase(CState_s const& c) {
    if (cached_.key == c.key) cached_.record = nullptr;
    cstate.erase(c.key);
  }

  // Reserves room for that many more keys in the map of records and in the pool.
  void roomIs(std::size_t keys);
  // Returns a record from the pool. The caller must fill every field.
  CState_s* cstateAlloc();
  void cstateFree(CState_s* c);

  // Ends a claim. With `unindex` its pending slot is removed, whatever record it points to; without, the
  // caller must overwrite the slot.
  void clearPending(EntryPState_s& p, bool unindex) {
    if (unindex && p.ti != noIndex) unindexClaim(p.ti);
    if (p.type == PendingType::Priority && !priorityClaims.empty()) priorityClaims.remove(p.ti);
    chains.claimEnded(p);
    p = {OpId(), noIndex, PendingType::None};
  }
  // Queues the key that waits for ti, if any, unless it is queued already. The claim stays.
  void addToWorkq(U32 ti) {
    if (CState_s const* const waiter = pending.at(ti)) queue(*waiter);
  }

 private:
  // The key that was prefetched last, and its record as cstate has it; enter() and erase() keep it so.
  struct Cached {
    EntryKey key;
    CState_s* record = nullptr;
  };
  void unindexClaim(U32 ti);
  void queue(CState_s const& waiter);

  Cached cached_;
  U32 lgId_ = 0;
};

// The pool's figures.
struct CStatePool {
  U32 cread;  // records free
  U32 clen;   // records ever made, plus one
};
CStatePool cstatePool();

}  // namespace Vantrel
