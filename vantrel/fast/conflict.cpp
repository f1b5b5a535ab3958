// SPDX-License-Identifier: Apache-2.0
// Conflict detection: may an entry take its position now? Only the position itself and the nearest programmed
// neighbour on either side are looked at.
//
//   position:   2     3     4     5     6
//             [ 5 ] [   ] [   ] [ 7 ] [   ]        priorities inside, one group
//
//   prio 6 at 3: free, 5 <= 6 <= 7: may go            prio 6 at 5: occupied, waits for 5 (type Occupied)
//   prio 4 at 3: its neighbour below has 5 > 4:       prio 8 at 4: its neighbour above has 7 < 8:
//                waits for 3 (type Priority)                       waits for 4 (type Priority)
//
// Equal priorities never block, other groups never block. A position has at most one claim: the one with the
// greater pending OpId keeps it, and an equal one takes it over. It does not choose positions, and does not
// remember who lost a claim.
#include "vantrel/core/probe.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/mixed_rings.h"
#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

// The claim that a configuration makes. One that has waited goes on waiting since then.
EntryPState_s claimOf(EntryPState_s const& before, OpId opId, U32 ti, PendingType type) {
  return {opId, ti, type, before.opId == opId ? before.since : waitClock()};
}

}  // namespace

bool FastVantrelImpl::isConflicting(EntryConfig const& entry) {
  dirtyIs(true);
  return conflicts(entry, recordOf(entry));
}

// Returns the key's record. A new key gets one that keeps this entry's handle, priority and group for good.
CState_s& FastVantrelImpl::recordOf(EntryConfig const& entry) {
  FastState& s = *state();
  if (CState_s* const known = s.cachedRecord(entry.key())) return *known;
  CState_s& c = *s.cstateAlloc();
  c.key = entry.key();
  c.opId = OpId();
  c.sti = noIndex;
  c.hdl = entry.hdl();
  c.prio = entry.prio();
  c.pg = entry.pg();
  c.p = {OpId(), noIndex, PendingType::None};
  s.enter(c);
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "entry ", c.key, " entry opid ", entry.opId(), " current opId ",
                c.opId);
  VANTREL_RECORD(9, lgId(), "new entry key:", c.key, " hdl:", c.hdl, " entry opid:", entry.opId(),
                 " current opId", c.opId);
  return c;
}

bool FastVantrelImpl::conflicts(EntryConfig const& entry, CState_s& c) {
  FastState& s = *state();
  if (c.opId >= entry.opId()) {  // not newer than what is programmed
    s.clearPending(c.p, true);
    return true;
  }
  U32 const claimed = c.p.ti;
  PendingType const why = c.p.type;
  for (U32 k = 0; k < entry.tableIndexs(); ++k)
    if (!mayTake(entry, c, entry.tableIndex(TableKey(k)))) {
      VANTREL_RECORD(9, lgId(), "conflicting key:", c.key, " hdl:", c.hdl, " prio:", c.prio,
                     " opId:", entry.opId());
      s.blocked.insert(c.key);
      if (breakMixedRings() && (c.p.ti != claimed || c.p.type != why)) mixedRings_->claimMade(c);
      return true;
    }
  s.clearPending(c.p, true);
  if (!s.blocked.empty()) s.blocked.erase(c.key);
  VANTREL_RECORD(9, lgId(), "not conflicting key:", c.key, " hdl:", c.hdl, " prio:", c.prio,
                 " opId:", entry.opId());
  return false;
}

// Whether the record may take ti now. If not, it has claimed ti, or a newer version keeps its claim there. If
// so, a claim of another record on ti ends.
bool FastVantrelImpl::mayTake(EntryConfig const& entry, CState_s& c, U32 ti) {
  FastState& s = *state();
  if (ti == c.sti) {
    s.addToWorkq(ti);
    return true;
  }
  if (s.positions.current.at(ti)) {
    claimOccupied(entry, c, ti);
    return false;
  }
  if (CState_s const* const blocker = priorityBlocker(c, ti)) {
    claimPriority(entry, c, ti, *blocker);
    return false;
  }
  if (CState_s* const waiter = s.pending.at(ti); waiter && waiter != &c) s.clearPending(waiter->p, true);
  return true;
}

// The nearest programmed neighbour that the record would be out of order with at ti, if any.
CState_s const* FastVantrelImpl::priorityBlocker(CState_s const& c, U32 ti) const {
  JudyMap<CState_s> const& precedence = state()->positions.precedence;
  U32 const at = pti(c.pg, ti);
  if (auto const below = precedence.below(at);
      below && below->value->pg == c.pg && below->value->prio > c.prio)
    return below->value;
  if (auto const above = precedence.above(at);
      above && above->value->pg == c.pg && above->value->prio < c.prio)
    return above->value;
  return nullptr;
}

void FastVantrelImpl::claimPriority(EntryConfig const& entry, CState_s& c, U32 ti, CState_s const& blocker) {
  FastState& s = *state();
  EntryPState_s const claim = claimOf(c.p, entry.opId(), ti, PendingType::Priority);
  CState_s*& slot = *s.pending.insert(ti);
  if (slot) {
    if (slot->p.opId > entry.opId()) return s.clearPending(c.p, true);  // the newer claim stands
    s.clearPending(slot->p, false);
  }
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "prio blocked ", c.key, " prio:", c.prio, " by ", blocker.key,
                " at ", blocker.sti, " prio:", blocker.prio);
  VANTREL_RECORD(9, lgId(), "key:", c.key, " hdl:", c.hdl, " prio:", c.prio, " blocked by key:", blocker.key,
                 " prio:", blocker.prio, " at ti:", blocker.sti);
  slot = &c;
  s.clearPending(c.p, true);
  c.p = claim;
  VANTREL_PROBE(claim, c.key.value(), ti, 1);
  if (breakMixedRings() && c.programmed()) *s.priorityClaims.insert(ti) = &c;
}

void FastVantrelImpl::claimOccupied(EntryConfig const& entry, CState_s& c, U32 ti) {
  FastState& s = *state();
  CState_s*& slot = *s.pending.insert(ti);
  CState_s* const cp = slot;
  if (cp && cp->p.opId > entry.opId()) {
    if (cp->key == c.key)
      VANTREL_TRACE(vantrelFastImplTrace(), 0, "key=", c.key, " eOpId: ", entry.opId(),
                    " pOpId: ", cp->p.opId);
    FAST_ASSERT_AS(c.key != cp->key, "c->key != cp->key");
    return s.clearPending(c.p, true);  // the newer claim stands
  }
  EntryPState_s const claim = claimOf(c.p, entry.opId(), ti, PendingType::Occupied);
  if (cp == &c) {
    FAST_ASSERT_AS(c.p.ti == ti, "c->p.ti == *ti");
    c.p.opId = claim.opId;
    c.p.type = claim.type;
    c.p.since = claim.since;
  } else {
    slot = &c;
    s.clearPending(c.p, true);  // removes a slot and so may move this one: it is looked up again
    if (cp) s.clearPending(cp->p, false);
    CState_s** const found = s.pending.find(ti);
    FAST_ASSERT_AS(found, "PValue");
    *found = &c;
    c.p = claim;
  }
  s.chains.claimMade(c);
  VANTREL_PROBE(claim, c.key.value(), ti, 0);
}

}  // namespace Vantrel
