// SPDX-License-Identifier: Apache-2.0
// FastState: everything that the fast engine knows, and the per-key records it is made of.
//
//   cstate:     key -> record      every key that the engine was told of and has not forgotten
//   positions:  ti --> record      where an entry is programmed (positions.h)
//   pending:    ti --> record      who waits for a position, at most one each
//   workq:      keys to retry, in order of arrival; workqSet: which they are
//   blocked:    keys whose last conflict check found them blocked; the deadlock check starts from them
//   chains:     which chains of claims are known to end (open_chains.h)
//
// Invariants: a record with p.ti is listed in pending exactly under it. A key is in workqSet exactly when it
//   is in workq.
// Ownership: records come from one process-wide pool that never returns memory. A state is never released:
//   whoever installed it in an engine owns its release, and the engine's own lives on, listed where a leak
//   checker sees it.
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
  // The key is about to be handled. What is known of it is looked up once, and fetched while other data of
  // the key are.
  void expect(EntryKey const& key) {
    asked_ = {key, record(key)};
    __builtin_prefetch(asked_.record);
  }
  // The same as record(), at once when it is the key that is being handled.
  CState_s* expected(EntryKey const& key) const { return key == asked_.key ? asked_.record : record(key); }
  // Enters a record under its key, which is unknown; takes one out.
  void enter(CState_s& c) {
    cstate.emplace(c.key, &c);
    if (asked_.key == c.key) asked_.record = &c;
  }
  void erase(CState_s const& c) {
    if (asked_.key == c.key) asked_.record = nullptr;
    cstate.erase(c.key);
  }

  // So many more keys can be entered before the map of records and the pool grow.
  void roomIs(std::size_t keys);
  // A record from the pool, as it was left: the caller fills every field.
  CState_s* cstateAlloc();
  void cstateFree(CState_s* c);

  // Ends a claim. With `unindex` its pending slot goes too, whatever record it points to; without, the caller
  // is about to overwrite the slot.
  void clearPending(EntryPState_s& p, bool unindex) {
    if (unindex && p.ti != noIndex) unindexClaim(p.ti);
    chains.claimEnded(p);
    p = {OpId(), noIndex, PendingType::None};
  }
  // Queues whoever waits for ti, unless it is queued already. The claim stays.
  void addToWorkq(U32 ti) {
    if (CState_s const* const waiter = pending.at(ti)) queue(*waiter);
  }

 private:
  // The key that expect() was told of last, and its record: what cstate has, through enter() and erase().
  struct Asked {
    EntryKey key;
    CState_s* record = nullptr;
  };
  void unindexClaim(U32 ti);
  void queue(CState_s const& waiter);

  Asked asked_;
  U32 lgId_ = 0;
};

// The pool's figures.
struct CStatePool {
  U32 cread;  // records free
  U32 clen;   // records ever made, plus one
};
CStatePool cstatePool();

}  // namespace Vantrel
