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
// A chain is read member by member, configurations included, when the claims say that it comes back. That is
// found out from both ends at once when a claim is made, so that a key costs no more than the shorter side of
// the chain it joins; and not again while its claim stays, because the claim that comes last closes the ring,
// and tells every member. So a damaged record is met when its key is handled, when a chain starts at it, and
// when a chain that comes back leads through it; in a chain that ends it is not.
#include <boost/container/small_vector.hpp>
#include <utility>

#include "pallo/exception.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

// The record as a chain sees it that closes no ring whatever the record says: damage is left to those who act
// on it, so that it is met at the same moment whether somebody listens to the trace or not.
EntryConfig glance(TableConfig const& table, EntryKey const& key) {
  try {
    return table.entry(key);
  } catch (Pallo::CorruptionDetectedException const&) {
    return {};
  } catch (Pallo::InvalidSizeException const&) {
    return {};
  }
}

}  // namespace

// The keys that the chains of one run have passed. A chain that breaks nothing is passed only when a later
// one of the run may break a ring: until then the state is what it was.
class FastVantrelImpl::Visited {
 public:
  bool firstTime(EntryKey const& key) { return keys_.insert(key).second; }
  void putOff(EntryKey const& start) { putOff_.push_back(start); }
  // What was put off, which is then no longer.
  auto takePutOff() { return std::exchange(putOff_, {}); }

 private:
  FastState::Keys keys_;
  boost::container::small_vector<EntryKey, 8> putOff_;
};

void FastVantrelImpl::checkDeadlock() {
  if (!state()->blocked.empty()) checkBlocked();
}

// Apart from the test for it, which mostly says no.
[[gnu::noinline]] void FastVantrelImpl::checkBlocked() {
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock");
  Visited visited;
  while (!state()->blocked.empty()) {
    FastState::Keys& blocked = state()->blocked;
    EntryKey const start = *blocked.begin();
    blocked.erase(blocked.begin());
    momentPassed();
    VANTREL_RECORD(9, lgId(), "deadlock check key:", start);
    if (closesRing(start, visited)) breakRing(start);
  }
  VANTREL_TRACE(vantrelFastImplTrace(), 7, "checking deadlock done");
}

// A claim on a position that nobody holds is met by the chain that leads there, wherever it began.
bool FastVantrelImpl::closesRing(EntryKey const& start, Visited& visited) {
  CState_s* const c = state()->record(start);
  FAST_ASSERT(c);
  if (claimsComeBack(*c) || !state()->settled()) {
    for (EntryKey const& earlier : visited.takePutOff()) chainComesBack(earlier, visited, Damage::OfNone);
    return chainComesBack(start, visited, Damage::OfAll);
  }
  // Whoever listens to the facility trace hears of each step, and nothing else comes of it.
  if (vantrelFastImplTrace().enabled(7)) return chainComesBack(start, visited, Damage::OfStart);
  occupantWaitedFor(*c, readEntry(*tableConfig(), start));
  visited.putOff(start);
  return false;
}

// Whether the claims alone lead from `c` back to it. When they do not, that stays so until another entry
// makes a claim, which is asked there and then: before any run starts from a member. When they do, the
// configurations say whether the ring is one, and every member is asked again whenever it blocks.
bool FastVantrelImpl::claimsComeBack(CState_s& c) {
  if (c.p.open) return false;
  c.p.open = !claimsMeet(c);
  if (c.p.open) return false;
  std::size_t left = state()->cstate.size();
  for (CState_s* member = occupantClaimed(c); member && member != &c && left > 0; --left) {
    member->p.open = false;
    member = occupantClaimed(*member);
  }
  return true;
}

// One step ahead, one step back, until one side ends or both meet. More steps than records: not a state that
// the engine made, and for the configurations to tell.
bool FastVantrelImpl::claimsMeet(CState_s const& c) const {
  CState_s const* ahead = occupantClaimed(c);
  CState_s const* behind = claimant(c);
  for (std::size_t left = state()->cstate.size(); left > 0 && ahead != behind; --left) {
    if (!ahead || !behind) return false;
    ahead = occupantClaimed(*ahead);
    if (ahead == behind) break;
    behind = claimant(*behind);
  }
  return ahead && behind;
}

// Who holds the position that a programmed entry claims.
CState_s* FastVantrelImpl::occupantClaimed(CState_s const& c) const {
  bool const waits = c.programmed() && c.p.type == PendingType::Occupied && c.p.ti != c.sti;
  return waits ? state()->current.at(c.p.ti) : nullptr;
}

// The programmed entry that claims the position of another one.
CState_s* FastVantrelImpl::claimant(CState_s const& c) const {
  CState_s* const waiter = c.programmed() ? state()->pending.at(c.sti) : nullptr;
  return waiter && occupantClaimed(*waiter) == &c ? waiter : nullptr;
}

// Follows the chain from `start`, one occupant at a time, until it ends or comes back.
bool FastVantrelImpl::chainComesBack(EntryKey const& start, Visited& visited, Damage met) const {
  for (EntryKey key = start;;) {
    if (!visited.firstTime(key)) {
      VANTREL_TRACE(vantrelFastImplTrace(), 7, "stopping. already seen ", key);
      return false;
    }
    CState_s const* const c = state()->record(key);
    FAST_ASSERT(c);
    bool const counts = met == Damage::OfAll || (met == Damage::OfStart && key == start);
    EntryConfig const config = counts ? readEntry(*tableConfig(), key) : glance(*tableConfig(), key);
    CState_s const* const occupant = occupantWaitedFor(*c, config);
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
  momentPassed();
  VANTREL_RECORD(1, lgId(), "found deadlock key:", victim);
  processDeleteHelper(victim, true, false);
  handleEntryHelper(victim);
  processPending();
  deadlockCountInc(1);
}

}  // namespace Vantrel
