// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/open_chains.h"

#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

// Whether the entry is programmed and waits to move to a position that another one held.
bool waitsToMove(CState_s const& c) {
  return c.programmed() && c.p.type == PendingType::Occupied && c.p.ti != c.sti;
}

}  // namespace

bool OpenChains::ends(CState_s& c) {
  search(c);
  bool const everyClaimHasAnOccupant = state_.workq.empty() && lost_ == 0 && !state_.positions.hasStrays();
  if (!c.p.open || !everyClaimHasAnOccupant) return false;
  return !waitsToMove(c) || state_.positions.current.at(c.p.ti);
}

// Finds out whether the chain from `c` comes back, unless it is known to be open. If it does, no member of
// the ring is open any more.
void OpenChains::search(CState_s& c) {
  if (c.p.open) return;
  c.p.open = !comesBack(c);
  if (c.p.open) return;
  std::size_t left = state_.cstate.size();
  for (CState_s* member = occupantClaimed(c); member && member != &c && left > 0; --left) {
    member->p.open = false;
    member = occupantClaimed(*member);
  }
}

// Goes one step ahead and one step back in turn, until one side ends or both meet. The number of steps is
// limited by that of the records: the engine never makes a longer chain, and the deadlock check fails on one.
bool OpenChains::comesBack(CState_s const& c) const {
  CState_s const* ahead = occupantClaimed(c);
  CState_s const* behind = claimant(c);
  for (std::size_t left = state_.cstate.size(); left > 0 && ahead != behind; --left) {
    if (!ahead || !behind) return false;
    ahead = occupantClaimed(*ahead);
    if (ahead == behind) break;
    behind = claimant(*behind);
  }
  return ahead && behind;
}

// The entry that holds the position which `c`, programmed, claims.
CState_s* OpenChains::occupantClaimed(CState_s const& c) const {
  return waitsToMove(c) ? state_.positions.current.at(c.p.ti) : nullptr;
}

// The programmed entry that claims the position of `c`.
CState_s* OpenChains::claimant(CState_s const& c) const {
  CState_s* const waiter = c.programmed() ? state_.pending.at(c.sti) : nullptr;
  return waiter && occupantClaimed(*waiter) == &c ? waiter : nullptr;
}

}  // namespace Vantrel
