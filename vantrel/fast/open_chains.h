// SPDX-License-Identifier: Apache-2.0
// OpenChains: which chains of waiting entries are known to end, so that the ring check (deadlock.cpp) need
// not follow them. A chain of n entries that grows by one at each key would cost n steps a key.
//
//   position:    1       2       3       4
//              [ A ]-->[ B ]-->[ C ]   [ D ]     A claims 2, B claims 3, C stands still: an open chain
//
//   D claims 1: one step ahead is A, one step back is nobody (no claim on 4): open, whatever is behind A
//   C claims 1: ahead is A, then B, one step back is B: they meet, A, B and C may be a ring
//
// Why no ring is missed:
//   - An entry has one successor, the occupant of the position that it claims, and one predecessor at most,
//     for a position has one claim. So claims make lines and rings, and nothing else.
//   - A line becomes a ring only by a claim. Another occupant cannot do it: who takes a position ends the
//     claim that stands on it. So it is asked when a claim is made, from both ends at once: the shorter side
//     of the line decides, and a key costs no more than that.
//   - What was found open stays so while the claim stays; a claim that closes a ring tells every member.
//   - Claims are one half of a ring, the configurations are the other. They can only end a chain.
//
// Nothing is taken for granted while a claim may stand on a position that nobody holds: while keys wait in
// the queue, from a retry's beginning until it has made or ended the claim (for good when it failed), and
// while a record is there for which the hardware client threw. The ring check fails an assertion there, from
// wherever it comes by.
//
// Ownership: part of its FastState. `open` and `lost` lie in the claims.
// Threading: the agent's thread.
// Cost: the shorter side of a line for a claim that is made, nothing for one that is renewed.
#pragma once

#include "vantrel/fast/record.h"

namespace Vantrel {

class FastState;

class OpenChains {
 public:
  explicit OpenChains(FastState const& state) : state_(state) {}

  // `c` has claimed an occupied position, or renewed its claim there for a newer configuration.
  void claimMade(CState_s& c) {
    claimEnded(c.p);
    c.p.lost = false;
    ask(c);
  }
  void claimEnded(EntryPState_s const& p) { lost_ -= p.lost; }
  // Until the retry has made or ended it, the claim may stand on a position that nobody holds; when the retry
  // fails, it stays so.
  void claimRetried(EntryPState_s& p) {
    if (p.ti == noIndex || p.lost) return;
    p.lost = true;
    ++lost_;
  }

  // Whether the chain from `c` ends, on an entry that does not wait.
  bool ends(CState_s& c);

 private:
  void ask(CState_s& c);
  bool comesBack(CState_s const& c) const;
  bool settled() const;
  CState_s* occupantClaimed(CState_s const& c) const;
  CState_s* claimant(CState_s const& c) const;

  FastState const& state_;
  U32 lost_ = 0;  // claims
};

}  // namespace Vantrel
