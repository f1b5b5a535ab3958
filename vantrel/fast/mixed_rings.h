// SPDX-License-Identifier: Apache-2.0
// MixedRings: finds rings of waiting entries that the deadlock check (deadlock.cpp) does not see, because a
// member waits for the priority order and not for an occupant. It works while breakMixedRings is set.
//
//   position:     0         1         2        3
//               [ 1 ]     [ 2 ]     [   ]    [ 3 ]      1 claims 2, behind 2 of higher priority: waits for 2
//   group,prio:  0,0       0,1                1,0       2 claims 3: waits for 3; 3 claims 0: waits for 1
//
// A programmed entry that claims a position waits for one other entry, its obstacle: the occupant of the
// position or, when the position is free, the nearest neighbour of its group that it would be out of order
// with there. So the graph has one edge at most from each entry, and a ring is a chain that comes back.
//
// Why the members of a ring are stuck for good: an entry cannot go before its obstacle has left, and an
// obstacle leaves when its own claim is met or when the producer writes it anew. A member whose
// configuration names another position than its claim, or that is queued for a retry, may still go by
// itself: such a ring is kept for the next check, and not broken.
//
// A ring whose claims are out of order among themselves stays: one of them cannot be met, and the victim
// might have no place to come back to. The producer has to write a member anew, which makes a new claim.
//
// Why no ring is missed, and why one obstacle is enough:
//   - What blocks an entry by priority lies on one side of its claim, for programmed entries are in order,
//     and in one stretch next to it. All of that must leave, the nearest one too. When it has left, the next
//     one is the obstacle.
//   - A new edge leads from an entry whose claim is new, or to a neighbour of an entry that left, from one
//     that claims a position between the neighbours. Each is followed when it appears. Whoever comes to a
//     position does not wait, so that no ring is closed when an obstacle is replaced by it.
//   - An entry that waits for an obstacle outside of every ring follows a chain to an entry that does not
//     wait. With a consistent target, written to the end, and no claim forgotten, that one lies at its
//     target, where it is in nobody's way.
//
// The victim is the member whose absence costs the fewest writes, of these the one of the lowest precedence.
// Out and back are two hardware calls. A member that is to be updated and moved needs two anyway, one that is
// only to be moved needs one. A victim is no longer programmed, so it is in no ring until it has arrived.
//
// Invariants: between two checks each ring has a member among those that closed one, or among the kept ones,
//   unless it contradicts itself.
// Ownership: part of its engine.
// Threading: the agent's thread.
// Cost: while nobody waits for the priority order a claim costs a look at what OpenChains found out. Else the
//   shorter of two searches: along the chain, and back through those that wait for its start. A ring costs a
//   read of each member's configuration.
// Errors: none.
#pragma once

#include <optional>
#include <vector>

#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

class VANTREL_LOCAL FastVantrelImpl::MixedRings {
 public:
  explicit MixedRings(FastVantrelImpl const& engine) : engine_(engine) {}

  // Must be called when `c` has made a claim that differs from the one before.
  void claimMade(CState_s const& c) {
    if (!c.p.open || !engine_.state()->priorityClaims.empty()) follow(c);
  }
  // Must be called when an entry of the group has left the position.
  void vacated(U16 pg, U32 ti) {
    if (!engine_.state()->priorityClaims.empty()) followBeside(pg, ti);
  }
  void clear();

  // Whether nextVictim() may find one.
  bool maySeeOne() const { return !closing_.empty() || !kept_.empty(); }
  // Returns the victim of a ring, null when there is none.
  CState_s const* nextVictim();

 private:
  class Waiters;

  // The nearest programmed records of a group on both sides of a place.
  struct Neighbours {
    std::optional<JudyMap<CState_s>::Item> below;
    std::optional<JudyMap<CState_s>::Item> above;
  };
  Neighbours neighboursOf(U16 pg, U32 ti) const;
  void follow(CState_s const& c);
  void followBeside(U16 pg, U32 ti);
  void reviewKept();
  void keep(CState_s const& c);
  bool comesBack(CState_s const& c) const;
  std::vector<CState_s const*> ringOf(CState_s const& start) const;
  bool contradictsItself(std::vector<CState_s const*> const& ring) const;
  bool mayStillGo(CState_s const& c) const;
  CState_s const* obstacleOf(CState_s const& c) const;

  FastVantrelImpl const& engine_;
  std::vector<EntryKey> closing_;  // entries whose chain came back; it may have opened since
  std::vector<EntryKey> kept_;     // members of rings that may still go by themselves
};

}  // namespace Vantrel
