// SPDX-License-Identifier: Apache-2.0
// Contradictions: a rule comes between rules that nothing ordered until now, and of which the earlier have
// greater levels than the later.
//
//   before     b10 a20       a is before b in the list; they do not overlap
//   inserted   x between them, overlaps both: it needs a level above 20 and below 10
//   after      a5 x7 b10     a has another number, and so has all that must be before a and is not below 7
//
// A gap between two levels is chosen for the rule. All before it that are above the gap come below, with
// those that have to be before them; all behind it that are below come above, with those that have to be
// behind them. The rule comes to the gap whose closure is the smallest of those that were followed.
#include <algorithm>

#include "pallo/assert.h"
#include "producer/planner/planner.h"

namespace Planning {

void Planner::makeWay(U32 rule, Match const& match) {
  std::vector<U32> const beside = neighbours(rule, match);
  Conflict conflict = leastConflict(rule, beside);
  if (conflict.above - conflict.below < conflict.size() + 2) {
    widen(conflict.below, conflict.above, conflict.size() + 1);
    conflict = leastConflict(rule, beside);
  }
  resolve(rule, match, conflict);
}

Planner::Conflict Planner::leastConflict(U32 rule, std::vector<U32> const& neighbours) {
  Bounds const bounds = boundsOf(rule, neighbours);
  U64 const rank = ranks_.tag(rule);
  std::vector<U32> before, behind;
  for (U32 const other : neighbours) {
    bool const isBefore = ranks_.tag(other) < rank;
    if (isBefore && row_.priority(other) >= bounds.high) before.push_back(other);
    if (!isBefore && row_.priority(other) <= bounds.low) behind.push_back(other);
  }
  auto const split = [&](int above) {
    Conflict c;
    c.below = above > 0 ? row_.level(above - 1).priority : 0;
    c.above = above < row_.levels() ? row_.level(above).priority : everything().high;
    for (U32 const r : before)
      if (row_.priority(r) >= c.above) c.down.push_back(r);
    for (U32 const r : behind)
      if (row_.priority(r) <= c.below) c.up.push_back(r);
    return c;
  };
  std::vector<Conflict> all;
  for (int above = row_.levelFrom(bounds.high); above <= row_.levelAbove(bounds.low); ++above)
    all.push_back(split(above));
  std::ranges::stable_sort(all, {}, &Conflict::size);
  if (all.size() > thresholds) all.resize(thresholds);
  for (std::size_t most = std::max<std::size_t>(8, 2 * all.front().size());; most *= 2)
    if (Conflict best = leastClosure(all, most); best.size() != 0) return best;
}

// Of these the one whose closure is the smallest; nothing when all are larger than `most`.
Planner::Conflict Planner::leastClosure(std::vector<Conflict> const& all, std::size_t most) {
  Conflict best;
  for (Conflict c : all) {
    if (!follow(c.down, c.above, true, most)) continue;
    if (!follow(c.up, c.below, false, most - c.down.size())) continue;
    most = c.size() - 1;
    best = std::move(c);
  }
  return best;
}

// Adds all that must be before a member and is not below the limit, or behind it and not above. False when
// there are more than `most`.
bool Planner::follow(std::vector<U32>& members, U32 limit, bool down, std::size_t most) {
  ++visit_;
  for (U32 const member : members) marks_[member] = visit_;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members.size() > most) return false;
    U64 const rank = ranks_.tag(members[i]);
    for (U32 const other : neighbours(members[i], match(members[i]))) {
      if (marks_[other] == visit_ || (ranks_.tag(other) < rank) != down) continue;
      if (down ? row_.priority(other) < limit : row_.priority(other) > limit) continue;
      marks_[other] = visit_;
      members.push_back(other);
    }
  }
  return members.size() <= most;
}

// Those that come below first, from the first of the list on; then the others, from the last on; so that at
// each write each is in order with all that it overlaps.
void Planner::resolve(U32 rule, Match const& match, Conflict const& conflict) {
  auto const rank = [this](U32 r) { return ranks_.tag(r); };
  std::vector<U32> down = conflict.down, up = conflict.up;
  std::ranges::sort(down, {}, rank);
  std::ranges::sort(up, std::ranges::greater(), rank);
  U32 floor = conflict.below;
  // A rule that jumped over the gap meanwhile could be in the way of those that are still to come.
  barrier_ = {conflict.below, conflict.above};
  for (U32 const r : down) {
    rekey(r, {0, conflict.above}, Pick::Lowest);
    floor = std::max(floor, row_.priority(r));
  }
  floor = std::max(floor, boundsOf(rule, neighbours(rule, match)).low);
  for (U32 const r : up) rekey(r, {floor, everything().high}, Pick::Highest);
  barrier_ = {0, 0};
}

// Numbers levels anew until at least `least` numbers lie between two neighbouring levels, and more if there
// are many to spare: those above move up, or those below move down, as far as the nearest sufficient gap,
// whichever concerns fewer rules.
void Planner::widen(U32 low, U32 high, U64 least) {
  U64 const end = everything().high;
  U64 const fair = end / static_cast<U64>(row_.levels() + 2);
  U64 const unit = std::clamp<U64>(fair / 2, 1, 4096);  // for each of the levels that move
  U64 const gap = std::max(least + 1, unit);
  int const first = row_.levelFrom(high);  // the first that may move up
  auto const number = [&](int i) {
    return i < 0 ? U64{0} : i < row_.levels() ? U64{row_.level(i).priority} : end;
  };
  U64 upCost = 0, downCost = 0;
  int up = first, down = first - 1;  // the last that moves up, or down
  for (; up < row_.levels(); ++up) {
    upCost += row_.level(up).count;
    if (number(up + 1) - low >= gap + unit * static_cast<U64>(up - first + 1)) break;
  }
  for (; down >= 0; --down) {
    downCost += row_.level(down).count;
    if (number(first) - number(down - 1) >= gap + unit * static_cast<U64>(first - down)) break;
  }
  bool const canUp = up < row_.levels(), canDown = down >= 0;
  if (!canUp && !canDown) throw WindowFull("the list needs more priority numbers than there are");
  U64 const top = number(up + 1), bottom = number(down - 1);
  if (canUp && (!canDown || upCost <= downCost))
    for (int i = up; i >= first; --i) shift(i, static_cast<U32>(top - unit * static_cast<U64>(up + 1 - i)));
  else
    for (int i = down; i < first; ++i)
      shift(i, static_cast<U32>(bottom + unit * static_cast<U64>(i - down + 1)));
}

// Gives the rules of a level another number, between its neighbours' numbers. Those nearer to the new number
// go first.
void Planner::shift(int level, U32 priority) {
  auto const [from, first, last, count] = row_.level(level);
  std::vector<U32> members;
  for (U32 place = first; place <= last; ++place)
    if (U32 const slot = row_.places().at(place); slot != Places::nobody) members.push_back(slot);
  if (priority > from) std::ranges::reverse(members);
  Bounds const limits{std::min(from, priority - 1), std::max(from, priority + 1)};
  for (U32 const slot : members) rekey(slot, limits, Pick::Middle, priority);
}

}  // namespace Planning
