// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/planner.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>

#include "pallo/assert.h"
#include "producer/planner/longest.h"

namespace Planning {

namespace {
// Of a match.
struct Hash {
  std::size_t operator()(Match const& m) const {
    U64 h = m.source.high * 0x9E3779B97F4A7C15;
    for (U64 const word : {m.source.low, m.destination.high, m.destination.low, m.rest.bits, m.rest.mask,
                           U64{m.source.length} << 8 | m.destination.length,
                           U64{m.rest.source.lo} << 48 | U64{m.rest.source.hi} << 32 |
                               U64{m.rest.destination.lo} << 16 | m.rest.destination.hi})
      h = (h ^ word ^ h >> 29) * 0x9E3779B97F4A7C15;
    return h ^ h >> 32;
  }
};

constexpr U32 endStep = U32{1} << 20;  // how far from the last level a new one outside all is put
}  // namespace

Planner::Planner(Settings const& settings)
    : settings_(settings), row_(settings.size), nextKey_(settings.firstKey) {
  PALLO_ASSERT("Planner", settings.size > 0 && settings.stride > 0 && settings.greatest >= 2);
}

U32 Planner::newSlot() {
  if (unused_.empty()) {
    rules_.push_back({0, everything()});
    marks_.push_back(0);
    row_.slotsIs(static_cast<U32>(rules_.size()));
    return static_cast<U32>(rules_.size() - 1);
  }
  U32 const slot = unused_.back();
  unused_.pop_back();
  rules_[slot] = {0, everything()};
  return slot;
}

U32 Planner::insert(Match const& match, U32 before) {
  if (row_.places().free() == 0) throw WindowFull("no position of the window is free for another rule");
  U32 const rule = newSlot();
  ranks_.insert(rule, before);
  try {
    settle(rule, match);
  } catch (WindowFull const&) {
    ranks_.remove(rule);
    unused_.push_back(rule);
    throw;
  }
  index_.add(rule, match);
  return rule;
}

void Planner::erase(U32 rule) {
  writes_.push_back({Do::Delete, key(rule), position(rule), priority(rule), rule});
  row_.take(rule);
  ranks_.remove(rule);
  index_.remove(rule);
  unused_.push_back(rule);
}

void Planner::reorder(U32 rule, U32 before) {
  if (before == rule) return;
  U32 const former = ranks_.next(rule);
  ranks_.remove(rule);
  ranks_.insert(rule, before);
  std::vector<U32> const beside = neighbours(rule, match(rule));
  Bounds const bounds = boundsOf(rule, beside);
  if (bounds.allow(priority(rule))) {
    rules_[rule].bounds = bounds;
    return tell(rule, beside);
  }
  U32 const old = keepOld(rule);
  try {
    if (row_.places().free() == 0) throw WindowFull("no position of the window is free for a rule's new key");
    settle(rule, match(rule));
  } catch (WindowFull const&) {
    row_.handOver(old, rule);
    unused_.push_back(old);
    ranks_.remove(rule);
    ranks_.insert(rule, former);
    throw;
  }
  deleteOld(old);
}

std::vector<U32> Planner::list() const {
  std::vector<U32> all;
  for (U32 rule = ranks_.first(); rule != RankList::none; rule = ranks_.next(rule)) all.push_back(rule);
  return all;
}

// The rules that overlap, this one and those without a place left out.
std::vector<U32> Planner::neighbours(U32 rule, Match const& match) {
  std::vector<U32> found = index_.find(match);
  std::erase_if(found, [&](U32 other) { return other == rule || !row_.has(other); });
  return found;
}

Planner::Bounds Planner::boundsOf(U32 rule, std::vector<U32> const& neighbours) const {
  Bounds bounds = everything();
  U64 const rank = ranks_.tag(rule);
  for (U32 const other : neighbours)
    if (ranks_.tag(other) < rank)
      bounds.low = std::max(bounds.low, row_.priority(other));
    else
      bounds.high = std::min(bounds.high, row_.priority(other));
  return bounds;
}

void Planner::tell(U32 rule, std::vector<U32> const& neighbours) {
  U64 const rank = ranks_.tag(rule);
  U32 const priority = row_.priority(rule);
  for (U32 const other : neighbours)
    if (Bounds& bounds = rules_[other].bounds; ranks_.tag(other) < rank)
      bounds.high = std::min(bounds.high, priority);
    else
      bounds.low = std::max(bounds.low, priority);
}

// Gives a rule that has no place one.
void Planner::settle(U32 rule, Match const& match) {
  std::vector<U32> beside = neighbours(rule, match);
  Bounds bounds = boundsOf(rule, beside);
  if (!bounds.possible()) {
    makeWay(rule, match);
    bounds = boundsOf(rule, beside);
  }
  if (bounds.high - bounds.low < 2) {
    widen(bounds.low, bounds.high, 1);
    bounds = boundsOf(rule, beside);
  }
  keepInPlace(beside);
  place(rule, bounds, true, Pick::Middle);
  rules_[rule].bounds = bounds;
  tell(rule, beside);
}

// Bounds that are too narrow hide ways; they become true again one by one.
void Planner::refreshOne() {
  for (U32 looked = 0; looked < 8; ++looked) {
    refreshed_ = refreshed_ + 1 < rules_.size() ? refreshed_ + 1 : 0;
    if (!row_.has(refreshed_) || isOld(refreshed_)) continue;
    rules_[refreshed_].bounds = boundsOf(refreshed_, neighbours(refreshed_, match(refreshed_)));
    return;
  }
}

// `level`: the level it must get; 0: any within the bounds.
void Planner::place(U32 rule, Bounds const& bounds, bool mayJump, Pick pick, U32 level) {
  int const first = row_.levelAbove(bounds.low);
  int const last = row_.levelFrom(bounds.high) - 1;
  U32 const wanted = level != 0 ? level : wantedLevel(rule, bounds);
  U32 hole = nearHole(first, last, wanted);
  if (hole == Places::none) {
    hole = freeByChain(bounds, mayJump);
    if (mayJump) refreshOne();
  }
  add(rule, level != 0 ? level : levelAt(hole, bounds, wanted, pick), hole);
}

// Between the levels of the rules beside it in the list.
U32 Planner::wantedLevel(U32 rule, Bounds const& bounds) const {
  U32 before = ranks_.previous(rule);
  while (before != RankList::none && !row_.has(before)) before = ranks_.previous(before);
  U32 behind = ranks_.next(rule);
  while (behind != RankList::none && !row_.has(behind)) behind = ranks_.next(behind);
  U64 const low = before == RankList::none ? 0 : row_.priority(before);
  U64 const high = behind == RankList::none ? everything().high : row_.priority(behind);
  return std::clamp(static_cast<U32>((low + high) / 2), bounds.low, bounds.high);
}

// In the room of these levels, a free place near the wanted level: of the nearest few on either side one that
// has other free places close by, so that the last one of a stretch is left to those who can go nowhere else.
U32 Planner::nearHole(int first, int last, U32 wanted) const {
  U32 const begin = row_.roomBegin(first), end = row_.roomEnd(last);
  if (begin >= end) return Places::none;
  int const i = row_.levelFrom(wanted);
  U32 const target = i > last ? end - 1 : i < first ? begin : (row_.level(i).first + row_.level(i).last) / 2;
  Places const& places = row_.places();
  U32 best = Places::none, least = Places::none;
  auto const look = [&](U32 hole) {
    U32 const above = std::min(places.freeFrom(hole + 1), places.size());
    U32 const below = hole == 0 ? Places::none : places.freeUpTo(hole - 1);
    U32 const apart = above - (below == Places::none ? 0 : below);
    U32 const distance = apart + (hole > target ? hole - target : target - hole) / 2;
    if (distance < least) least = distance, best = hole;
  };
  U32 hole = target;
  for (U32 looked = 0; looked < holesLooked; ++looked, ++hole) {
    hole = places.freeFrom(hole);
    if (hole >= end) break;
    look(hole);
  }
  hole = target;
  for (U32 looked = 0; looked < holesLooked && hole > begin; ++looked) {
    hole = places.freeUpTo(hole - 1);
    if (hole == Places::none || hole < begin) break;
    look(hole);
  }
  return best;
}

// At a free place: a level beside it, the one nearer to the wanted one, or else a new one.
U32 Planner::levelAt(U32 hole, Bounds const& bounds, U32 wanted, Pick pick) const {
  U32 const left = row_.places().takenUpTo(hole), right = row_.places().takenFrom(hole);
  U32 const low = left == Places::none ? 0 : row_.priority(row_.places().at(left));
  U32 const high = right == Places::none ? everything().high : row_.priority(row_.places().at(right));
  bool const lowIn = bounds.allow(low), highIn = bounds.allow(high);
  auto const distance = [wanted](U32 level) { return level < wanted ? wanted - level : level - wanted; };
  if (lowIn && (!highIn || distance(low) <= distance(high))) return low;
  if (highIn) return high;
  return between(std::max(low, bounds.low), std::min(high, bounds.high), pick);
}

U32 Planner::between(U32 low, U32 high, Pick pick) const {
  PALLO_ASSERT("Planner", high - low > 1);
  if (pick != Pick::Middle) return pick == Pick::Lowest ? low + 1 : high - 1;
  bool const first = low == 0, last = high == everything().high;
  if (last && !first && high - low > 2 * endStep) return low + endStep;
  if (first && !last && high > 2 * endStep) return high - endStep;
  return low + (high - low) / 2;
}

void Planner::add(U32 rule, U32 priority, U32 place) {
  row_.put(rule, priority, place);
  rules_[rule].key = nextKey_++;
  writes_.push_back({Do::Add, key(rule), position(rule), priority, owner(rule)});
}

void Planner::move(U32 rule, U32 place) {
  U32 const priority = row_.priority(rule);
  row_.take(rule);
  row_.put(rule, priority, place);
  writes_.push_back({Do::Move, key(rule), position(rule), priority, owner(rule)});
}

// The rule has no place any more, and is to get one under a new key. What it had is kept as another slot's,
// which is returned, until deleteOld().
U32 Planner::keepOld(U32 rule) {
  U32 const old = newSlot();
  row_.handOver(rule, old);
  rules_[old] = rules_[rule];
  rules_[old].oldOf = owner(rule);
  return old;
}

void Planner::deleteOld(U32 old) {
  writes_.push_back({Do::Delete, key(old), position(old), priority(old), owner(old)});
  row_.take(old);
  unused_.push_back(old);
}

// Another level within the limits, besides the rule's own bounds.
void Planner::rekey(U32 rule, Bounds const& limits, Pick pick, U32 level) {
  std::vector<U32> const beside = isOld(rule) ? std::vector<U32>() : neighbours(rule, match(rule));
  Bounds bounds = isOld(rule) ? everything() : boundsOf(rule, beside);
  bounds = {std::max(bounds.low, limits.low), std::min(bounds.high, limits.high)};
  keepInPlace(beside);
  U32 const old = keepOld(rule);
  place(rule, bounds, level == 0, pick, level);
  deleteOld(old);
  if (isOld(rule)) return;
  rules_[rule].bounds = boundsOf(rule, beside);
  tell(rule, beside);
}

// Until the next edit of a place: a rule that overlaps the one in hand must not jump over its bounds.
void Planner::keepInPlace(std::vector<U32> const& rules) {
  ++edit_;
  for (U32 const rule : rules) rules_[rule].mark = edit_;
}

// An empty window: neighbours in the list that do not overlap share a level, and the free places are spread
// between all.
void Planner::load(std::span<Match const> wanted) {
  if (wanted.size() > row_.places().size()) throw WindowFull("the list has more rules than the window");
  std::vector<U32> level(wanted.size());
  std::vector<U32> slots;
  U32 levels = 0;
  std::vector<U32> levelOf;  // by slot
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    U32 const slot = newSlot();
    slots.push_back(slot);
    if (levelOf.size() <= slot) levelOf.resize(slot + 1);
    ranks_.insert(slot);
    for (U32 const other : index_.find(wanted[i]))
      if (levelOf[other] == levels) {
        ++levels;
        break;
      }
    if (levels == 0) levels = 1;
    levelOf[slot] = levels;
    index_.add(slot, wanted[i]);
  }
  if (levels >= settings_.greatest) {
    for (U32 const slot : slots) {
      ranks_.remove(slot);
      index_.remove(slot);
      unused_.push_back(slot);
    }
    throw WindowFull("the list needs more priority numbers than there are");
  }
  for (std::size_t i = 0; i < slots.size(); ++i) {
    U64 const priority = U64{levelOf[slots[i]]} * (U64{settings_.greatest} + 1) / (U64{levels} + 1);
    U64 const place = U64{i} * row_.places().size() / wanted.size();
    add(slots[i], static_cast<U32>(priority), static_cast<U32>(place));
  }
  for (U32 const slot : slots) tell(slot, neighbours(slot, match(slot)));
}

std::vector<U32> Planner::assign(std::span<Match const> wanted) {
  if (wanted.size() > row_.places().size()) throw WindowFull("the list has more rules than the window");
  std::vector<U32> result = keepEqual(wanted);
  if (row_.places().free() == row_.places().size()) {
    load(wanted);
    return list();
  }
  std::vector<bool> const stays = longestOrdered(result);
  U32 behind = atEnd;
  for (std::size_t i = wanted.size(); i-- > 0;) {
    if (result[i] == RankList::none) continue;
    if (!stays[i]) result[i] = reordered(result[i], behind);
    behind = result[i];
  }
  behind = atEnd;
  for (std::size_t i = wanted.size(); i-- > 0; behind = result[i])
    if (result[i] == RankList::none) result[i] = insert(wanted[i], behind);
  return result;
}

// For each wanted match a rule of the list, of equal ones in their order, or none; erases all others.
std::vector<U32> Planner::keepEqual(std::span<Match const> wanted) {
  std::vector<U32> const before = list();
  boost::unordered_flat_map<Match, std::vector<U32>, Hash> held;  // of each match the last in the list first
  for (auto rule = before.rbegin(); rule != before.rend(); ++rule) held[match(*rule)].push_back(*rule);
  std::vector<U32> kept(wanted.size(), RankList::none);
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    auto const same = held.find(wanted[i]);
    if (same == held.end() || same->second.empty()) continue;
    kept[i] = same->second.back();
    same->second.pop_back();
  }
  for (auto const& [match, left] : held)
    for (U32 const rule : left) erase(rule);
  return kept;
}

// Of these, those of a longest part that stands in this order already.
std::vector<bool> Planner::longestOrdered(std::vector<U32> const& rules) const {
  std::vector<U64> ranks;
  std::vector<std::size_t> indexes;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (rules[i] == RankList::none) continue;
    ranks.push_back(ranks_.tag(rules[i]));
    indexes.push_back(i);
  }
  std::vector<bool> stays(rules.size());
  for (std::size_t const member : longestNonDecreasing(ranks)) stays[indexes[member]] = true;
  return stays;
}

// A window without a free place has to give the rule up before it can take it again.
U32 Planner::reordered(U32 rule, U32 before) {
  try {
    reorder(rule, before);
    return rule;
  } catch (WindowFull const&) {
    Match const held = match(rule);
    erase(rule);
    return insert(held, before);
  }
}

std::string Planner::audit() {
  if (std::string problem = row_.audit(); !problem.empty()) return problem;
  U32 count = 0;
  for (U32 rule = ranks_.first(); rule != RankList::none; rule = ranks_.next(rule)) {
    ++count;
    std::string const name = "rule " + std::to_string(rule);
    if (!row_.has(rule)) return name + " has no place";
    if (U32 const next = ranks_.next(rule); next != RankList::none && ranks_.tag(next) <= ranks_.tag(rule))
      return name + " has a rank that does not rise";
    Bounds const bounds = boundsOf(rule, neighbours(rule, match(rule)));
    if (!bounds.allow(priority(rule))) return name + " is out of order with one that it overlaps";
    if (rules_[rule].bounds.low < bounds.low || rules_[rule].bounds.high > bounds.high)
      return name + " is remembered with bounds beyond the true ones";
  }
  if (count + row_.places().free() != row_.places().size()) return "places are taken by nobody's rule";
  return "";
}

}  // namespace Planning
