// SPDX-License-Identifier: Apache-2.0
// Deadlock detection in a wait-for graph in which every node has at most one successor (R. C. Holt, Some
// Deadlock Properties of Computer Systems, 1972): follow the chain until it ends or comes back. A deadlock is
// a ring of programmed entries that each wait for the position of the next one. No other step frees one of
// their positions, so one member is deleted and dispatched again.
//
//   position:    1       2       3
//              [ A ]-->[ B ]-->[ C ]        A waits for 2, B for 3, C for 1: the entry that the search
//                ^---------------'          started from is deleted, the others follow into free positions
//
// The graph is not stored: the successor of a blocked entry is the occupant of the position it waits for, and
// it has at most one predecessor, for a position has at most one claim. A ring is broken only from one of its
// own members: a chain that leads into it from outside marks its members visited, and the ring stays until a
// later run.
//
// Chains that are known to end (open_chains.h) are skipped: only the configuration of their start is read. So
// a damaged record is found when its key is handled, when a chain starts at it, and when a chain that comes
// back leads through it; in a skipped chain it is not.
#include <boost/container/small_vector.hpp>
#include <utility>

#include "vantrel/core/probe.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/mixed_rings.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

// One run of the check.
struct VANTREL_LOCAL FastVantrelImpl::Check {
  FastState::Keys visited;                              // the keys on the chains that were followed
  boost::container::small_vector<EntryKey, 8> skipped;  // starts of chains that were not followed
};

void FastVantrelImpl::checkDeadlock() {
  if (!state()->blocked.empty()) checkBlocked();
  if (breakMixedRings() && mixedRings_->maySeeOne()) checkMixedRings();
}

// Out of line: mostly no key is blocked.
[[gnu::noinline]] void FastVantrelImpl::checkBlocked() {
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock");
  Check check;
  while (!state()->blocked.empty()) {
    FastState::Keys& blocked = state()->blocked;
    EntryKey const start = *blocked.begin();
    blocked.erase(blocked.begin());
    momentPassed();
    VANTREL_RECORD(9, lgId(), "deadlock check key:", start);
    if (skipsOpenChain(start, check)) continue;
    if (chainComesBack(start, check, &readEntry)) breakRing(start);
  }
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock done");
}

// Follows the chain from `start`, one occupant at a time. True when it comes back to `start`; false when it
// ends or meets a visited key.
bool FastVantrelImpl::chainComesBack(EntryKey const& start, Check& check, Reader read) const {
  for (EntryKey key = start;;) {
    if (!check.visited.insert(key).second) {
      VANTREL_TRACE(vantrelFastImplTrace(), 7, "stopping. already seen ", key);
      return false;
    }
    CState_s const* const c = state()->record(key);
    FAST_ASSERT(c);
    CState_s const* const occupant = occupantWaitedFor(*c, read(*tableConfig(), key));
    if (!occupant) return false;
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "[", c->p.ti, "] ", "occupied ", occupant->key, " pending ",
                  key);
    if (occupant->key == start) return true;
    key = occupant->key;
  }
}

// A chain goes on only through a programmed entry that waits to move to the position that its configuration
// names, and that another entry holds.
CState_s const* FastVantrelImpl::occupantWaitedFor(CState_s const& c, EntryConfig const& config) const {
  if (config.empty()) {
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "skipping pending delete ", c.key);
    return nullptr;
  }
  bool const namesClaim = config.tableIndexs() > 0 && c.p.ti == config.tableIndex(TableKey(0));
  if (!c.programmed() || c.p.ti == c.sti || c.p.ti == noIndex || !namesClaim) {
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "skipping pending move ", c.key);
    return nullptr;
  }
  CState_s const* const occupant = state()->positions.current.at(c.p.ti);
  if (c.p.type != PendingType::Occupied) {
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "skipping prio blocked ", c.key);
    return nullptr;
  }
  FAST_ASSERT_AS(occupant || breakMixedRings(), "PValue");
  return occupant;
}

// The victim is the entry that the chain started from.
void FastVantrelImpl::breakRing(EntryKey const& victim) {
  VANTREL_TRACE(vantrelFastImplTrace(), 1, "found deadlock ", victim);
  momentPassed();
  VANTREL_RECORD(1, lgId(), "found deadlock key:", victim);
  VANTREL_PROBE(ring, victim.value(), 0);
  takeOutAndBack(victim);
  deadlockCountInc(1);
}

// The delete queues the entries that wait for the victim. Dispatched again, the victim is a new entry, which
// waits; then the queue is drained.
void FastVantrelImpl::takeOutAndBack(EntryKey const& victim) {
  processDeleteHelper(victim, true, false);
  retry(victim);
  processPending();
}

// True when the chain from `start` is known to end and need not be followed now. Following it would only
// trace its steps and mark its keys visited, which end a later chain of the run: so skipped chains are
// followed after all when that matters, that is before a chain that may be a ring, and for the trace.
bool FastVantrelImpl::skipsOpenChain(EntryKey const& start, Check& check) const {
  CState_s* const c = state()->record(start);
  bool const ends = c && state()->chains.ends(*c);
  if (ends) {
    static_cast<void>(readEntry(*tableConfig(), start));
    check.skipped.push_back(start);
  }
  if (!ends || vantrelFastImplTrace().enabled(7)) followSkipped(check);
  return ends;
}

// The result is the same as if they had been followed in their turn: only breaking a ring changes the state,
// and before that everything skipped is followed. peekEntry does not report damage, so that turning the trace
// on does not change when damage is reported.
void FastVantrelImpl::followSkipped(Check& check) const {
  for (EntryKey const& start : std::exchange(check.skipped, {})) chainComesBack(start, check, &peekEntry);
}

}  // namespace Vantrel
