// SPDX-License-Identifier: Apache-2.0
// OpenChains: remembers which chains of waiting entries end, so that the deadlock check (deadlock.cpp) need
// not follow them. A chain that grows to n entries, one a key, would cost up to n steps for each key.
//
//   position:    1       2       3       4
//              [ A ]-->[ B ]-->[ C ]   [ D ]     A claims 2, B claims 3, C does not wait: an open chain
//
//   D claims 1: one step ahead is A, one step back is nobody (no claim on 4): open, whatever follows A
//   C claims 1: ahead is A, then B, one step back is B: they meet, so A, B and C may be a ring
//
// Why no ring is missed:
//   - An entry has one successor, the occupant of the position that it claims, and at most one predecessor,
//     for a position has at most one claim. So claims form lines and rings, and nothing else.
//   - Only a new claim turns a line into a ring. A change of an occupant cannot: an entry that takes a
//     position ends the claim on it. So a chain is searched when a claim is made, from both ends at once; the
//     search ends where the shorter side does.
//   - A chain that was found open stays open while the claim lasts; a claim that closes a ring clears `open`
//     in every member.
//   - A ring needs claims and the configurations that name the same positions. A configuration can only end a
//     chain.
//
// What is remembered is not used while a claim may stand on a position that nobody holds, for there the
// deadlock check must fail its assertion, whichever chain leads to it. That is so while keys wait in the work
// queue; from the beginning of a retry until it has made or ended the claim (for good when the retry failed);
// and while the indexes have a stray (positions.h).
//
// Ownership: part of its FastState. `open` and `lost` are stored in the claims.
// Threading: the agent's thread.
// Cost: the shorter side of a line for a claim that is made, nothing for one that is renewed.
#pragma once

#include "vantrel/fast/record.h"

namespace Vantrel {

class FastState;

class OpenChains {
 public:
  explicit OpenChains(FastState const& state) : state_(state) {}

  // Must be called when `c` has claimed an occupied position, or renewed its claim there.
  void claimMade(CState_s& c) {
    claimEnded(c.p);
    c.p.lost = false;
    search(c);
  }
  void claimEnded(EntryPState_s const& p) { lost_ -= p.lost; }
  // Must be called before a retry. The claim is `lost` until the retry has made or ended it.
  void claimRetried(EntryPState_s& p) {
    if (p.ti == noIndex || p.lost) return;
    p.lost = true;
    ++lost_;
  }

  // True when the chain from `c` is known to end on an entry that does not wait.
  bool ends(CState_s& c);

 private:
  void search(CState_s& c);
  bool comesBack(CState_s const& c) const;
  CState_s* occupantClaimed(CState_s const& c) const;
  CState_s* claimant(CState_s const& c) const;

  FastState const& state_;
  U32 lost_ = 0;  // how many claims are
};

}  // namespace Vantrel
