// SPDX-License-Identifier: Apache-2.0
// Deadlocks: programmed entries that each wait for the position of the next one, in a ring. No ordinary step
// frees a position before its entry has somewhere to go, so one member is deleted and dispatched again.
//
//   position:    1       2       3
//              [ A ]-->[ B ]-->[ C ]        A waits for 2, B for 3, C for 1: the entry that the search
//                ^---------------'          started from is deleted, the others follow into free positions
//
// The graph is never stored: a blocked entry has one successor, the occupant of the position it waits for,
// and at most one predecessor, for a position has one claim. A ring is broken only from one of its own
// members; a chain that leads into it from outside marks its members visited, and it stays until a later run.
//
// Chains that are known to end (open_chains.h) are passed by: only their start's record is read. So a damaged
// record is met when its key is handled, when a chain starts at it, and when a chain that comes back leads
// through it; in a chain that ends it is not.
#include <boost/container/small_vector.hpp>
#include <utility>

#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

// One run of the check.
struct VANTREL_LOCAL FastVantrelImpl::Check {
  FastState::Keys visited;                               // the keys that its chains have met
  boost::container::small_vector<EntryKey, 8> passedBy;  // starts of chains that it has not followed
};

void FastVantrelImpl::checkDeadlock() {
  if (!state()->blocked.empty()) checkBlocked();
}

// Apart from the test for it, which mostly says no.
[[gnu::noinline]] void FastVantrelImpl::checkBlocked() {
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock");
  Check check;
  while (!state()->blocked.empty()) {
    FastState::Keys& blocked = state()->blocked;
    EntryKey const start = *blocked.begin();
    blocked.erase(blocked.begin());
    momentPassed();
    VANTREL_RECORD(9, lgId(), "deadlock check key:", start);
    if (passesBy(start, check)) continue;
    if (chainComesBack(start, check, &readEntry)) breakRing(start);
  }
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock done");
}

// Follows the chain from `start`, one occupant at a time, until it ends or comes back.
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
  FAST_ASSERT_AS(occupant, "PValue");
  return occupant;
}

// The victim is the entry that the chain started from. It starts from nothing when it is dispatched again,
// while the entry that waited for its position moves in.
void FastVantrelImpl::breakRing(EntryKey const& victim) {
  VANTREL_TRACE(vantrelFastImplTrace(), 1, "found deadlock ", victim);
  momentPassed();
  VANTREL_RECORD(1, lgId(), "found deadlock key:", victim);
  processDeleteHelper(victim, true, false);
  handleEntryHelper(victim);
  processPending();
  deadlockCountInc(1);
}

// Whether the chain from `start` is known to end. Then nothing comes of it but the trace of its steps, and
// the keys that it meets, which end a later chain of the run.
bool FastVantrelImpl::passesBy(EntryKey const& start, Check& check) const {
  CState_s* const c = state()->record(start);
  bool const ends = c && state()->chains.ends(*c);
  if (ends) {
    static_cast<void>(readEntry(*tableConfig(), start));
    check.passedBy.push_back(start);
  }
  if (!ends || vantrelFastImplTrace().enabled(7)) catchUp(check);
  return ends;
}

// Follows what was passed by. Nothing has changed since: only a ring that is broken changes something, and
// before that everything is followed. Damage is left to those who act on it, so that it is met at the same
// moment whether somebody listens to the trace or not.
void FastVantrelImpl::catchUp(Check& check) const {
  for (EntryKey const& start : std::exchange(check.passedBy, {})) chainComesBack(start, check, &peekEntry);
}

}  // namespace Vantrel
