// SPDX-License-Identifier: Apache-2.0
// Deletes: the break half of make-before-break. A delete frees a position and may relax the bounds around it,
// so it wakes the position's waiter first, then every same-group waiter of the range it opened.
//
// What the delete of 20 at 4 opens (priorities inside, one group):
//
//   position:   1      2      3      4      5      6      7
//             [ 10 ] [    ] [    ] [ 20 ] [    ] [    ] [ 30 ]
//                      ^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^  waiters of 2 to 6 may go now, in either direction
//
// A neighbour of equal priority at a lower position keeps the positions before the deleted one closed, one at
// a higher position those behind it. A delete does not drain the queue: its caller does.
#include "vantrel/core/probe.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/mixed_rings.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

bool FastVantrelImpl::processDelete(EntryKey const& key, bool delAck) {
  return processDeleteHelper(key, false, delAck);
}

bool FastVantrelImpl::processDeleteHelper(EntryKey const& key, bool deadlock, bool delAck) {
  FAST_ASSERT(initialized());
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "trying to delete ", key);
  CState_s* const c = state()->cachedRecord(key);
  return c ? deleteKnown(*c, deadlock, delAck) : deleteUnknown(key, delAck);
}

bool FastVantrelImpl::deleteKnown(CState_s& c, bool deadlock, bool delAck) {
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "deleting entry ", c.key, " opId ", c.opId,
                " deadlock: ", deadlock);
  VANTREL_RECORD(9, lgId(), "deleting entry key:", c.key, " hdl:", c.hdl, " opId: ", c.opId,
                 " deadlock:", deadlock, " delAck: ", delAck);
  state()->clearPending(c.p, true);
  // The hardware client expects group 0 in the record of a delete.
  EntryConfig record(c.key, delAck ? OpId::deleteAcknowledge() : c.opId, c.hdl, 0, c.prio);
  if (c.programmed()) {
    record.tableIndexIs(TableKey(0), c.sti);
    withdraw(c, record, deadlock);
  } else if (delAck) {
    VANTREL_RECORD(9, lgId(), "pending only delAck key:", c.key);
    hardware().delAck(c.key);
  }
  forget(c);
  return true;
}

void FastVantrelImpl::withdraw(CState_s const& c, EntryConfig const& record, bool deadlock) try {
  vacate(c, c.sti);
  VANTREL_RECORD(9, lgId(), "del helper key:", c.key, " hdl:", c.hdl, " deadlock:", deadlock);
  VANTREL_PROBE(remove, c.key.value(), c.sti, deadlock);
  if (deadlock)
    hardware(c).deleteEntryDeadlock(record);
  else
    hardware(c).deleteEntry(record);
} catch (...) {
  state()->positions.strayIs(c.key, c.sti);
  throw;
}

// Removes the entry's place at ti from the indexes and queues the entries that waited because of it. After a
// hardware call that threw, another entry may hold the place already: then it stays.
void FastVantrelImpl::vacate(CState_s const& c, U32 ti) {
  FastState& s = *state();
  if (!s.positions.hasStrays() || s.positions.current.at(ti) == &c) s.positions.remove(placeOf(c, ti));
  s.addToWorkq(ti);
  wakeRange(c.pg, rangeOpenedByDelete(c, ti));
  if (breakMixedRings()) mixedRings_->vacated(c.pg, ti);
}

// The deleted entry is no longer in the precedence index: its neighbours are found from its old place.
FastVantrelImpl::Range FastVantrelImpl::rangeOpenedByDelete(CState_s const& c, U32 ti) const {
  constexpr U32 end = 0xFFFFFFFF;
  U32 const from = pti(c.pg, ti);
  auto const prev = state()->positions.precedence.below(from);
  auto const next = state()->positions.precedence.above(from);
  bool const closedAbove = prev && prev->value->samePriority(c);
  bool const closedBelow = next && next->value->samePriority(c);
  if (closedAbove && closedBelow) return {ti + 1, ti};
  U32 lo = 0;
  if (closedBelow)
    lo = ti + 1;
  else if (prev && prev->value->pg == c.pg)
    lo = lti(prev->index) + 1;
  if (closedAbove) return {lo, ti};
  return {lo, next && next->value->pg == c.pg ? lti(next->index) : end};
}

void FastVantrelImpl::forget(CState_s& c) {
  FastState& s = *state();
  if (s.positions.hasStrays()) [[unlikely]]
    vacateStrays(c);
  s.erase(c);
  if (!s.blocked.empty()) s.blocked.erase(c.key);
  s.cstateFree(&c);
  dirtyIs(true);
}

// Removes places that the record itself does not know, because a hardware call threw after the indexes were
// updated: the indexes must not refer to a freed record.
void FastVantrelImpl::vacateStrays(CState_s const& c) {
  Positions& positions = state()->positions;
  for (U32 const ti : positions.takeStrays(c.key))
    if (positions.current.at(ti) == &c) vacate(c, ti);
}

// Not an error: a producer that waits for the delete's acknowledgement gets it.
bool FastVantrelImpl::deleteUnknown(EntryKey const& key, bool delAck) {
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "not found entry ", key);
  VANTREL_RECORD(9, lgId(), "del not found key:", key);
  if (delAck) {
    VANTREL_RECORD(9, lgId(), "never added delAck key:", key);
    hardware().delAck(key);
  } else {
    VANTREL_RECORD(9, lgId(), "never added delStatus key:", key);
    hardware().delStatus(key);
  }
  return false;
}

}  // namespace Vantrel
