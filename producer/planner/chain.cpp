// SPDX-License-Identifier: Apache-2.0
// How a place is made free among levels that have none: a chain of writes from the nearest free place on.
//
//   levels     10      20      30      40
//            | a b c | d e f | g h i |  .    the rule must come to level 10 or 20
//   moves              d ----> g ----> .     g to the hole, d to where g was, the rule to where d was: two
//   a jump     b --------------------> .     b overlaps nothing and takes level 40 under a new key: also two
//                                            writes, however far away the hole is
//
// The levels whose room gets a free place with n writes are a range: one with n - 1 writes, one more on
// either side by a move, and what the rules of the levels reached with n - 2 writes can jump to, of which
// each is a range around its own level. So the search goes outwards from the wanted range and looks at each
// level once.
#include <algorithm>
#include <array>
#include <utility>

#include "pallo/assert.h"
#include "producer/planner/planner.h"

namespace Planning {

// Frees a place in the room between the bounds and returns it.
U32 Planner::freeByChain(Bounds const& bounds, bool mayJump) {
  std::vector<Hop> const hops =
      findChain(row_.levelAbove(bounds.low), row_.levelFrom(bounds.high) - 1, mayJump);
  PALLO_ASSERT("Planner", !hops.empty());
  U32 hole = row_.holeFor(row_.levelFrom(hops.front().level));
  for (Hop const& hop : hops) {
    if (hop.jumper == Places::nobody) {
      hole = step(hop, hole);
    } else if (auto const left = jump(hop, hole)) {
      hole = *left;
    } else {
      return freeByChain(bounds, false);  // an earlier jump of the chain took the way
    }
  }
  return hole;
}

std::vector<Planner::Hop> Planner::findChain(int first, int last, bool mayJump) {
  std::vector<Reached> reached(static_cast<std::size_t>(row_.levels()));
  std::array<Extent, 3> extents;  // what n, n + 1 and n + 2 writes reach by jumps, at n modulo 3
  Extent const nothing{first, last, {}, {}};
  extents.fill(nothing);
  int low = first, high = last;
  int const outside = first > last ? nowhere : 0;
  if (mayJump)
    for (int i = first; i <= last; ++i) lookForJumpers(i, extents[2]);
  int goal = nowhere;
  for (std::size_t writes = 1; goal == nowhere; ++writes) {
    Extent const jumps = std::exchange(extents[writes % 3], nothing);
    int const newLow = std::max(0, std::min(low - 1, jumps.low));
    int const newHigh = std::min(row_.levels() - 1, std::max(high + 1, jumps.high));
    if (newLow == low && newHigh == high) return {};
    auto const visit = [&](int i, Reached by) {
      reached[static_cast<std::size_t>(i)] = by;
      if (goal == nowhere && row_.holeFor(i) != Places::none) goal = i;
      if (goal == nowhere && mayJump) lookForJumpers(i, extents[(writes + 2) % 3]);
    };
    bool const empty = outside == nowhere && writes == 1;
    if (newLow < low) visit(low - 1, {empty ? nowhere : low, Places::nobody, false});
    if (newHigh > high) visit(high + 1, {empty ? nowhere : high, Places::nobody, true});
    for (int i = low - 2; i >= newLow; --i) visit(i, jumps.lowBy);
    for (int i = high + 2; i <= newHigh; ++i) visit(i, jumps.highBy);
    low = newLow;
    high = newHigh;
  }
  std::vector<Hop> hops;
  for (int i = goal; i != nowhere && (i < first || i > last);) {
    Reached const& by = reached[static_cast<std::size_t>(i)];
    hops.push_back({row_.level(i).priority, by.jumper, by.up});
    i = by.from;
  }
  return hops;
}

// Of some rules of a level the farthest that they can go.
void Planner::lookForJumpers(int level, Extent& extent) {
  auto const [priority, first, last, count] = row_.level(level);
  U32 place = first + sampled_++ % (last - first + 1);
  Bounds reach{priority, priority};
  U32 lowest = Places::nobody, highest = Places::nobody;
  for (U32 looked = std::min(count, candidates); looked > 0; --looked, ++place) {
    place = row_.places().takenFrom(place);
    if (place > last) place = first;
    U32 const slot = row_.places().at(place);
    Rule const& rule = rules_[slot];
    Bounds const bounds = withinBarrier(rule.bounds, priority);
    if (rule.mark == edit_ || isOld(slot) || !bounds.allow(priority)) continue;
    if (bounds.low < reach.low) reach.low = bounds.low, lowest = slot;
    if (bounds.high > reach.high) reach.high = bounds.high, highest = slot;
  }
  if (lowest != Places::nobody)
    if (int const i = row_.levelAbove(reach.low); i < extent.low)
      extent.low = i, extent.lowBy = {level, lowest, false};
  if (highest != Places::nobody)
    if (int const i = row_.levelFrom(reach.high) - 1; i > extent.high)
      extent.high = i, extent.highBy = {level, highest, true};
}

// What of the bounds lies on the side of the barrier where the priority is; nothing inside the barrier.
Planner::Bounds Planner::withinBarrier(Bounds bounds, U32 priority) const {
  if (!barrier_.possible()) return bounds;
  if (priority <= barrier_.low) return {bounds.low, std::min(bounds.high, barrier_.low + 1)};
  if (priority >= barrier_.high) return {std::max(bounds.low, barrier_.high - 1), bounds.high};
  return {priority, priority};
}

// A member of the level goes to its other end; returns the place that it leaves.
U32 Planner::step(Hop const& hop, U32 hole) {
  int const i = row_.levelFrom(hop.level);
  if (i == row_.levels() || row_.level(i).priority != hop.level) return hole;  // its last member jumped
  U32 const place = hop.up ? row_.level(i).first : row_.level(i).last;
  if (hop.up ? hole < place : hole > place) return hole;  // the hole is on the right side of it already
  move(row_.places().at(place), hole);
  return place;
}

// Nothing, when the rule must not go there.
std::optional<U32> Planner::jump(Hop const& hop, U32 hole) {
  U32 const rule = hop.jumper;
  std::vector<U32> const beside = neighbours(rule, match(rule));
  rules_[rule].bounds = boundsOf(rule, beside);
  if (!rules_[rule].bounds.allow(hop.level)) return std::nullopt;
  U32 const left = row_.place(rule);
  U32 const old = keepOld(rule);
  add(rule, hop.level, hole);
  deleteOld(old);
  tell(rule, beside);
  return left;
}

}  // namespace Planning
