// SPDX-License-Identifier: Apache-2.0
// LevelRow: a window of places whose taken ones are in the order of their levels. A level is the priority
// number that all its members share; they lie in a row without a member of another level between them.
//
//   place    0   1   2   3   4   5   6   7   8
//            a10 b10     c10 d40     e90 f90        levels 10 (places 0 to 3), 40 (4), 90 (6 and 7)
//
// A level's room are the places from behind the level before it to before the level behind it: a member may
// lie at any of them. Level 40 has the places 4 and 5, level 90 the places from 5 on.
//
// Invariants: priorities do not fall along the row. A level without members is gone. Priority 0 means not in
//   the row.
// Cost: a binary search among the levels; a new level or a vanishing one moves those behind it in memory.
#pragma once

#include <string>
#include <vector>

#include "producer/planner/places.h"

namespace Planning {

class LevelRow {
 public:
  static constexpr U32 endPriority = 0xFFFFFFFF;  // above all levels

  struct Level {
    U32 priority;
    U32 first;  // places of the outermost members
    U32 last;
    U32 count;
  };

  explicit LevelRow(U32 size) : places_(size) {}

  void put(U32 slot, U32 priority, U32 place);
  void take(U32 slot);
  // A slot that is not in the row takes over the place and level of one that is.
  void handOver(U32 from, U32 to);
  void slotsIs(U32 slots) { members_.resize(slots); }  // slots below this may be put

  bool has(U32 slot) const { return members_[slot].priority != 0; }
  U32 priority(U32 slot) const { return members_[slot].priority; }  // 0: not in the row
  U32 place(U32 slot) const { return members_[slot].place; }
  Places const& places() const { return places_; }

  int levels() const { return static_cast<int>(levels_.size()); }
  Level const& level(int i) const { return levels_[static_cast<std::size_t>(i)]; }
  // The first level at or above a priority, or the first above it.
  int levelFrom(U32 priority) const;
  int levelAbove(U32 priority) const { return levelFrom(priority + 1); }
  // The room of the levels first to last, or, when last == first - 1, of a level between last and first.
  U32 roomBegin(int first) const { return first > 0 ? level(first - 1).last + 1 : 0; }
  U32 roomEnd(int last) const { return last + 1 < levels() ? level(last + 1).first : places_.size(); }
  // A free place in the room of the level, or Places::none.
  U32 holeFor(int i) const;

  // The first inconsistency, empty when all is well. Walks everything.
  std::string audit() const;

 private:
  struct Member {
    U32 priority = 0;
    U32 place = 0;
  };
  Places places_;
  std::vector<Member> members_;  // by slot
  std::vector<Level> levels_;    // by priority, ascending
};

}  // namespace Planning
