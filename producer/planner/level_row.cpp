// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/level_row.h"

#include <algorithm>
#include <utility>

#include "pallo/assert.h"

namespace Planning {

int LevelRow::levelFrom(U32 priority) const {
  return static_cast<int>(std::ranges::lower_bound(levels_, priority, {}, &Level::priority) -
                          levels_.begin());
}

void LevelRow::put(U32 slot, U32 priority, U32 place) {
  PALLO_ASSERT("Planner", priority > 0 && priority < endPriority && places_.at(place) == Places::nobody);
  int const i = levelFrom(priority);
  if (i == levels() || level(i).priority != priority) {
    PALLO_ASSERT("Planner", place >= roomBegin(i) && (i == levels() || place < level(i).first));
    levels_.insert(levels_.begin() + i, {priority, place, place, 1});
  } else {
    PALLO_ASSERT("Planner", place >= roomBegin(i) && place < roomEnd(i));
    Level& level = levels_[static_cast<std::size_t>(i)];
    level.first = std::min(level.first, place);
    level.last = std::max(level.last, place);
    ++level.count;
  }
  places_.take(place, slot);
  members_[slot] = {priority, place};
}

void LevelRow::take(U32 slot) {
  auto const [priority, place] = members_[slot];
  members_[slot] = {};
  places_.leave(place);
  int const i = levelFrom(priority);
  Level& level = levels_[static_cast<std::size_t>(i)];
  if (--level.count == 0) {
    levels_.erase(levels_.begin() + i);
    return;
  }
  if (place == level.first) level.first = places_.takenFrom(place);
  if (place == level.last) level.last = places_.takenUpTo(place);
}

void LevelRow::handOver(U32 from, U32 to) {
  members_[to] = std::exchange(members_[from], {});
  places_.leave(members_[to].place);
  places_.take(members_[to].place, to);
}

U32 LevelRow::holeFor(int i) const {
  U32 const hole = places_.freeFrom(roomBegin(i));
  return hole != Places::none && hole < roomEnd(i) ? hole : Places::none;
}

std::string LevelRow::audit() const {
  std::vector<Level> seen;
  U32 taken = 0;
  for (U32 place = 0; place < places_.size(); ++place) {
    U32 const slot = places_.at(place);
    bool const isFree = slot == Places::nobody;
    if ((places_.freeFrom(place) == place) != isFree || (places_.takenFrom(place) == place) == isFree)
      return "the bits of place " + std::to_string(place) + " are wrong";
    if (isFree) continue;
    ++taken;
    if (members_[slot].place != place) return "slot " + std::to_string(slot) + " is not where it should be";
    U32 const priority = members_[slot].priority;
    if (!seen.empty() && seen.back().priority > priority)
      return "the priority falls at place " + std::to_string(place);
    if (seen.empty() || seen.back().priority != priority) seen.push_back({priority, place, place, 0});
    seen.back().last = place;
    ++seen.back().count;
  }
  if (taken + places_.free() != places_.size()) return "the number of free places is wrong";
  bool const same = std::ranges::equal(seen, levels_, [](Level const& a, Level const& b) {
    return a.priority == b.priority && a.first == b.first && a.last == b.last && a.count == b.count;
  });
  return same ? "" : "the levels are not those of the row";
}

}  // namespace Planning
