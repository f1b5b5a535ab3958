// SPDX-License-Identifier: Apache-2.0
// Deadlocks: programmed entries that each wait for the position of the next one, in a ring. No ordinary step
// frees a position before its entry has somewhere to go, so one member is deleted and dispatched again.
//
//   position:    1       2       3
//              [ A ]-->[ B ]-->[ C ]        A waits for 2, B for 3, C for 1: the entry that the search
//                ^---------------'          started from is deleted, the others follow into free positions
//
// The graph is never stored: a blocked entry has one successor, the occupant of the position it waits for. A
// ring is broken only from one of its own members; a chain that leads into it from outside marks its members
// visited, and it stays until a later run.
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

// The keys that the chains of one run have passed.
class FastVantrelImpl::Visited {
 public:
  bool firstTime(EntryKey const& key) { return keys_.insert(key).second; }

 private:
  FastState::Keys keys_;
};

void FastVantrelImpl::checkDeadlock() {
  FastState::Keys& blocked = state()->blocked;
  if (blocked.empty()) return;
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock");
  Visited visited;
  while (!blocked.empty()) {
    EntryKey const start = *blocked.begin();
    blocked.erase(blocked.begin());
    VANTREL_RECORD(9, lgId(), "deadlock check key:", start);
    if (closesRing(start, visited)) breakRing(start);
  }
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock done");
}

// Follows the chain from `start`, one occupant at a time, until it ends or comes back.
bool FastVantrelImpl::closesRing(EntryKey const& start, Visited& visited) const {
  for (EntryKey key = start;;) {
    if (!visited.firstTime(key)) {
      VANTREL_TRACE(vantrelFastImplTrace(), 7, "stopping. already seen ", key);
      return false;
    }
    CState_s const* const c = state()->record(key);
    FAST_ASSERT(c);
    CState_s const* const occupant = occupantWaitedFor(*c);
    if (!occupant) return false;
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "[", c->p.ti, "] ", "occupied ", occupant->key, " pending ",
                  key);
    if (occupant->key == start) return true;
    key = occupant->key;
  }
}

// A chain goes on only through a programmed entry that waits to move to the position that its configuration
// names, and that another entry holds.
CState_s const* FastVantrelImpl::occupantWaitedFor(CState_s const& c) const {
  EntryConfig const config = readEntry(*tableConfig(), c.key);
  if (config.empty()) {
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "skipping pending delete ", c.key);
    return nullptr;
  }
  bool const namesClaim = config.tableIndexs() > 0 && c.p.ti == config.tableIndex(TableKey(0));
  if (!c.programmed() || c.p.ti == c.sti || c.p.ti == noIndex || !namesClaim) {
    VANTREL_TRACE(vantrelFastImplTrace(), 7, "skipping pending move ", c.key);
    return nullptr;
  }
  CState_s const* const occupant = state()->current.at(c.p.ti);
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
  VANTREL_RECORD(1, lgId(), "found deadlock key:", victim);
  processDeleteHelper(victim, true, false);
  handleEntryHelper(victim);
  processPending();
  deadlockCountInc(1);
}

}  // namespace Vantrel
