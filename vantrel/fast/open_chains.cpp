// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/open_chains.h"

#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

// A programmed entry that is to move to a position which another one holds.
bool waitsToMove(CState_s const& c) {
  return c.programmed() && c.p.type == PendingType::Occupied && c.p.ti != c.sti;
}

}  // namespace

// A claim on a position that nobody holds is met by following the chain.
bool OpenChains::ends(CState_s& c) {
  ask(c);
  if (!c.p.open || !settled()) return false;
  return !waitsToMove(c) || state_.positions.current.at(c.p.ti);
}

void OpenChains::ask(CState_s& c) {
  if (c.p.open) return;
  c.p.open = !comesBack(c);
  if (c.p.open) return;
  std::size_t left = state_.cstate.size();
  for (CState_s* member = occupantClaimed(c); member && member != &c && left > 0; --left) {
    member->p.open = false;
    member = occupantClaimed(*member);
  }
}

// One step ahead, one step back, until one side ends or both meet. More steps than records: not a state that
// the engine made, and for the ring check to tell.
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

// Every claim on an occupied position has its occupant, and records and indexes agree.
bool OpenChains::settled() const {
  return state_.workq.empty() && lost_ == 0 && !state_.positions.hasStrays();
}

// Who holds the position that a programmed entry claims.
CState_s* OpenChains::occupantClaimed(CState_s const& c) const {
  return waitsToMove(c) ? state_.positions.current.at(c.p.ti) : nullptr;
}

// The programmed entry that claims the position of another one.
CState_s* OpenChains::claimant(CState_s const& c) const {
  CState_s* const waiter = c.programmed() ? state_.pending.at(c.sti) : nullptr;
  return waiter && occupantClaimed(*waiter) == &c ? waiter : nullptr;
}

}  // namespace Vantrel
