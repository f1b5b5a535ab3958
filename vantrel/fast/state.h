// SPDX-License-Identifier: Apache-2.0
// FastState: everything that the fast engine knows, and the per-key records it is made of.
//
//   cstate:      key ---------> record          every key that the engine was told of and has not forgotten
//   current:     ti ----------> record          where an entry is programmed
//   precedence:  pti(pg, ti) -> record          the same, in precedence order: neighbours decide a conflict
//   pending:     ti ----------> record          who waits for a position, at most one each
//   workq:       keys to retry, in order of arrival; workqSet: which they are
//   blocked:     keys whose last conflict check found them blocked; the deadlock check starts from them
//
// Invariants: a record with p.ti is listed in pending exactly under it; a record with sti is listed in
//   current under sti and in precedence under pti(pg, sti), and nowhere else. A key is in workqSet exactly
//   when it is in workq.
// Ownership: records come from one process-wide pool that never returns memory. A state is never released:
//   whoever installed it in an engine owns its release, and the engine's own lives on, listed where a leak
//   checker sees it.
// Threading: all engines of a process run on one thread; the pool is not locked.
// Cost: 48 bytes a record beside its places in the indexes; no allocation but the pool's rare growth and
//   Judy's own.
#pragma once

#include <boost/functional/hash.hpp>
#include <boost/unordered_map.hpp>
#include <boost/unordered_set.hpp>
#include <deque>
#include <vector>

#include "vantrel/core/entry.h"
#include "vantrel/fast/judy.h"

namespace Vantrel {

constexpr U32 noIndex = 0xFFFFFFFF;  // "programmed nowhere", "waits for nothing"

enum class PendingType : U8 {
  None = 0,
  Occupied = 1,  // another entry holds the position
  Priority = 2,  // at the position the entry would break the priority order with a neighbour
};

// A claim: what a record waits for.
struct EntryPState_s {
  OpId opId;         // of the configuration that waits; zero when nothing waits
  U32 ti;            // the table index it waits for, or noIndex
  PendingType type;  // why it waits
  // The claims were followed from here and did not come back; false: they may. deadlock.cpp keeps it, from
  // the making of a claim to its end.
  bool open = false;
  bool lost = false;  // its retry began and did not end: the position may have nobody who will wake it
};
using EntryPState_t = EntryPState_s;

// What the engine knows of one key. hdl, prio and pg are those of the first configuration seen.
struct CState_s {
  EntryKey key;
  OpId opId;  // of the configuration that is programmed at sti; zero for a record just made
  EntryPState_s p;
  U32 hdl;
  U32 sti;  // the table index where the entry is programmed (the status ti), or noIndex
  U32 prio;
  U16 pg;  // priority group

  bool programmed() const { return sti != noIndex; }
  bool samePriority(CState_s const& other) const { return prio == other.prio && pg == other.pg; }
};
using CState_t = CState_s;

class VANTREL_API FastState {
 public:
  using Records = boost::unordered_map<EntryKey, CState_s*, boost::hash<EntryKey>>;
  using Keys = boost::unordered_set<EntryKey, boost::hash<EntryKey>>;

  FastState();
  ~FastState();
  FastState(FastState const&) = delete;
  FastState& operator=(FastState const&) = delete;

  JudyMap<CState_s> pending;
  JudyMap<CState_s> current;
  JudySet workqSet;
  JudyMap<CState_s> precedence;

  U32 lgId() const { return lgId_; }
  void lgIdIs(U32 lgId) { lgId_ = lgId; }

  Records cstate;
  std::deque<EntryKey> workq;
  Keys blocked;

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
    lostClaims_ -= p.lost;
    p = {OpId(), noIndex, PendingType::None};
  }
  // A waiting entry is retried: its claim may stand on a position that nobody holds.
  void claimLost(EntryPState_s& p);
  // The hardware client threw: the indexes were updated for the entry's place at ti, its record was not.
  void strayIs(EntryKey const& key, U32 ti) { strays_.push_back({key, ti}); }
  bool hasStrays() const { return !strays_.empty(); }
  // Where a record that is about to go may be listed without saying so itself. They count no longer.
  std::vector<U32> takeStrays(EntryKey const& key);
  // Whether every claim on an occupied position has its occupant, and records and indexes agree: not while
  // claims wait in the queue or were lost, nor while a record is there for which the hardware client threw.
  bool settled() const { return workq.empty() && lostClaims_ == 0 && strays_.empty(); }
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

  struct Stray {
    EntryKey key;
    U32 ti;
  };

  Asked asked_;
  U32 lgId_ = 0;
  U32 lostClaims_ = 0;
  std::vector<Stray> strays_;
};

// The pool's figures.
struct CStatePool {
  U32 cread;  // records free
  U32 clen;   // records ever made, plus one
};
VANTREL_API CStatePool cstatePool();

}  // namespace Vantrel
