// SPDX-License-Identifier: Apache-2.0
// Programming: an entry that may go is added, updated in place, moved, or only acknowledged.
//
//   not programmed yet          -> addEntry
//   unchanged, same position    -> noopAck
//   changed                     -> updateEntry, and then
//   another position            -> moveEntry; the waiters of the vacated position and of the opened range
//                                  are queued
//
// What a move opens (priorities inside, one group), 30 moving from 6 to 2:
//
//   position:   0      2      3      4      5      6      8
//             [ 10 ] [ -> ] [    ] [    ] [    ] [ 30 ] [ 40 ]
//                             ^^^^^^^^^^^^^^^^^ claims here may have been out of order with 30 at 6
//
// The indexes are updated before the hardware client is called, and when it throws nothing is undone.
#include <algorithm>

#include "vantrel/core/probe.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/mixed_rings.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

bool FastVantrelImpl::processEntry(EntryConfig const& entry) {
  FAST_ASSERT(initialized());
  VANTREL_TRACE(vantrelFastImplTrace(), 8, __func__);
  FAST_ASSERT(entry.tableIndexs() == 1);
  dirtyIs(true);
  CState_s& c = recordOf(entry);
  if (conflicts(entry, c)) return false;
  program(entry, c, entry.tableIndex(TableKey(0)));
  dirtyIs(true);
  return true;
}

void FastVantrelImpl::program(EntryConfig const& entry, CState_s& c, U32 ti) {
  if (!c.programmed()) {
    add(entry, c, ti);
  } else {
    FAST_ASSERT_AS(entry.opId() > c.opId, "entry.opId() > c->opId");
    bool const same = unchanged(entry.opId(), c.opId);
    if (same && ti == c.sti) {
      VANTREL_RECORD(9, lgId(), "noopAck key:", c.key, " hdl:", entry.hdl(), " opId:", entry.opId());
      hardware(c).noopAck(c.key, entry.opId());
    }
    if (!same) {
      VANTREL_RECORD(9, lgId(), "update key:", c.key, " hdl:", entry.hdl());
      VANTREL_PROBE(update, c.key.value(), entry.opId().value(), c.sti);
      hardware(c).updateEntry(entry);
    }
    if (ti != c.sti) move(entry, c, ti);
  }
  c.sti = ti;
  c.opId = entry.opId();
}

void FastVantrelImpl::add(EntryConfig const& entry, CState_s& c, U32 ti) try {
  state()->positions.add(c, placeOf(c, ti));
  VANTREL_RECORD(9, lgId(), "add key:", c.key, " hdl:", entry.hdl());
  VANTREL_PROBE(add, c.key.value(), entry.opId().value(), ti);
  hardware(c).addEntry(entry);
} catch (...) {
  state()->positions.strayIs(c.key, ti);
  throw;
}

void FastVantrelImpl::move(EntryConfig const& entry, CState_s& c, U32 ti) try {
  FastState& s = *state();
  U32 const old = c.sti;
  s.positions.move(c, placeOf(c, old), placeOf(c, ti));
  VANTREL_RECORD(9, lgId(), "mov key:", c.key, " hdl:", entry.hdl(), " ", old, " prio:", c.prio, " to:", ti);
  VANTREL_PROBE(move, c.key.value(), entry.opId().value(), old, ti);
  hardware(c).moveEntry(entry);
  s.addToWorkq(old);
  wakeRange(c.pg, rangeOpenedByMove(c, old, ti));
  if (breakMixedRings()) mixedRings_->vacated(c.pg, old);
} catch (...) {
  state()->positions.strayIs(c.key, ti);
  throw;
}

VantrelHelper& FastVantrelImpl::hardware(CState_s const& c) const {
  VantrelHelper& helper = VantrelImpl::hardware();
  helper.programmedIs(c.key, c.sti, c.prio, c.pg);
  return helper;
}

Place FastVantrelImpl::placeOf(CState_s const& c, U32 ti) const { return {ti, pti(c.pg, ti)}; }

// The indexes are those after the move, so the moved entry itself can be a neighbour of its old position. A
// neighbour of the same priority on the side that the entry left still bounds the range: nothing opens.
FastVantrelImpl::Range FastVantrelImpl::rangeOpenedByMove(CState_s const& c, U32 old, U32 ti) const {
  constexpr Range none{0, 0};
  U32 const from = pti(c.pg, old);
  auto const prev = state()->positions.precedence.below(from);
  auto const next = state()->positions.precedence.above(from);
  if (old > ti) {
    if (next && next->value->samePriority(c)) return none;
    U32 lo = ti + 1;
    if (prev && prev->value->pg == c.pg && lti(prev->index) > ti) lo = lti(prev->index) + 1;
    return {lo, old};
  }
  if (prev && prev->value->samePriority(c)) return none;
  U32 hi = ti;
  if (next && next->value->pg == c.pg) hi = std::min(hi, lti(next->index));
  return {old + 1, hi};
}

void FastVantrelImpl::wakeRange(U16 pg, Range range) {
  if (range.lo >= range.hi) return;
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "walking prio between ", range.lo, " ", range.hi - 1);
  FastState& s = *state();
  for (auto claim = s.pending.atOrAbove(range.lo); claim && claim->index < range.hi;
       claim = s.pending.above(claim->index))
    if (claim->value->pg == pg) s.addToWorkq(claim->index);
}

}  // namespace Vantrel
