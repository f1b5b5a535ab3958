// SPDX-License-Identifier: Apache-2.0
// Planner: turns edits of an ordered rule list into few hardware writes: chooses the position and the
// priority number of each rule, and the order in which writes are made.
//
// Of two rules that overlap the earlier one must win; others may lie in any order. So rules that do not
// overlap share priority numbers (levels), and a position may be taken by any member of its level:
//
//   list     a  b  c  d  e    b overlaps c, c overlaps e, and nothing else overlaps
//   row      a10 b10 d10 | c20 | e30 | free
//   insert   x before d; it overlaps b and must lie behind it. Level 20 will do, and there is no free place
//            in its room: e moves to the free place, x comes to where e was, with level 20.
//
// A key keeps its priority for life. A rule that needs another one is written under a new key, and when that
// is acknowledged its old key is deleted: two writes, and it is never absent.
//
// What one edit does:
//
//   bounds     The overlap index names the rules that overlap. The greatest level of those before and the
//              least of those behind are the bounds; the rule's level must lie strictly between.
//   hole       A free place in the room of any such level costs no further write. Of several, one near to
//              where the list's neighbours are, for levels that rise along the list seldom contradict each
//              other; and one among other free places, so that no stretch of the row loses its last.
//   chain      Without one, places are made free from the nearest hole on: a member of the neighbouring level
//              moves to its other side (one write), or a rule that overlaps few others goes to a far level
//              under a new key (two writes). Of all such chains the one with the fewest writes, as far as
//              candidates were looked at: the levels that n writes reach are always a range, so a search
//              looks at each level once.
//   contradiction   Rules before it may have greater levels than rules behind it: nothing ordered those until
//              now. The fewest of them found get other numbers first.
//   numbers    32 bits hold many levels between two; when a gap is used up, the levels beside it are
//              numbered anew as far as the nearest room.
//
// What is proven: each write keeps every overlapping pair in order, since levels never fall along the row and
// an overlapping pair differs in level as the list says. A chain of moves within given levels, and to holes
// on given sides, is a shortest one. Of a whole list in which all rules overlap, assign() moves fewest: rules
// that keep their numbers must already stand in the wanted order, so they are an increasing subsequence of
// the old ranks, and assign() keeps a longest one (patience sorting); every other rule has to be written.
// What is heuristic: which hole, which level among those allowed, how many candidates of a level are looked
// at, which of several ways out of a contradiction. tests/producer/planner compares with the optimum of
// small worlds.
//
// Invariants: priorities do not fall along the window. Bounds that are remembered of a rule are inside the
//   true ones: what came is told to all it overlaps, what went is found out at leisure. A write never needs a
//   place that is not free by then; the entry that must go first is written before.
// Ownership: values only. The caller writes, waits, and knows what a rule is.
// Threading: one thread.
// Cost: of an edit without a chain, the search for overlaps and a visit to each of them. A chain looks at
//   each level once at most, at `candidates` rules of each.
// Errors: WindowFull when an edit needs a free place and there is none, or more priority numbers than there
//   are. The list is what it was; behind assign() it is a part of it, without what was to go or to come
//   back. Writes that were planned until then are to be made all the same.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "pallo/exception.h"
#include "producer/planner/level_row.h"
#include "producer/planner/overlap_index.h"
#include "producer/planner/rank_list.h"

namespace Planning {

class WindowFull : public Pallo::Exception {
 public:
  using Exception::Exception;
};

enum class Do : U8 { Add, Move, Delete };

// To be written in this order. A delete must not be written before all writes ahead of it are acknowledged;
// a move or add may name the position that a write just ahead of it leaves.
struct Write {
  Do what;
  U64 key;
  U32 position;  // of a delete: where it is
  U32 priority;
  U32 rule;
  friend bool operator==(Write const&, Write const&) = default;
};

class Planner {
 public:
  static constexpr U32 atEnd = RankList::none;

  struct Settings {
    U32 begin = 0;              // the first position
    U32 size = 0;               // how many there are; at least 1
    U32 stride = 1;             // from one to the next: groups may be interleaved
    U64 firstKey = 1;           // keys are given from here on
    U32 greatest = 0xFFFFFFFE;  // priority number; at least 2
  };
  explicit Planner(Settings const& settings);

  // A rule of the list: its number, valid until it is erased. Inserts it before another, or at the end.
  U32 insert(Match const& match, U32 before = atEnd);
  void erase(U32 rule);
  // Gives a rule another place in the list.
  void reorder(U32 rule, U32 before);
  // Brings the list to this one: what is equal is kept, what is left over goes first. Returns the rules in
  // their order. Of a list that fills the window, rules that need another priority go before they come back.
  std::vector<U32> assign(std::span<Match const> wanted);

  // What was planned since the last call, in the order in which it must be written.
  std::vector<Write> takeWrites() { return std::exchange(writes_, {}); }

  std::vector<U32> list() const;
  Match match(U32 rule) const { return index_.match(rule); }
  U64 key(U32 rule) const { return rules_[rule].key; }
  U32 priority(U32 rule) const { return row_.priority(rule); }
  U32 position(U32 rule) const { return settings_.begin + row_.place(rule) * settings_.stride; }
  U32 freePlaces() const { return row_.places().free(); }
  int levels() const { return row_.levels(); }

  // The first broken invariant, empty when all is well. Walks everything.
  std::string audit();

 private:
  static constexpr U32 candidates = 24;  // rules of a level that a chain looks at
  static constexpr U32 thresholds = 4;   // ways out of a contradiction that are followed to their end
  static constexpr U32 holesLooked = 4;  // on either side of where a rule wants to be
  static constexpr int nowhere = -1;

  // A rule's level must lie strictly between.
  struct Bounds {
    U32 low;
    U32 high;
    bool allow(U32 priority) const { return low < priority && priority < high; }
    bool possible() const { return low < high; }
  };
  // Which number a new level gets within its bounds.
  enum class Pick : U8 { Middle, Lowest, Highest };
  struct Rule {
    U64 key = 0;
    Bounds bounds{};             // inside the true ones
    U32 mark = 0;                // of the edit that must not let it jump
    U32 oldOf = Places::nobody;  // the rule whose old entry this is, until that is deleted
  };
  // A step of a chain, from the free place on.
  struct Hop {
    U32 level;   // whose room the free place is in
    U32 jumper;  // the rule that comes to it under a new key; nobody: a member of the level moves
    bool up;     // that member is the level's first, else its last
  };
  struct Reached {
    int from = nowhere;
    U32 jumper = Places::nobody;
    bool up = false;
  };
  // The range of levels that a number of writes reaches, and what it is reached by.
  struct Extent {
    int low, high;
    Reached lowBy, highBy;
  };
  struct Conflict {
    U32 below = 0, above = 0;   // the gap between two levels that the rule is to come to
    std::vector<U32> down, up;  // who has to leave the levels above, or below
    std::size_t size() const { return down.size() + up.size(); }
  };

  Bounds everything() const { return {0, settings_.greatest + 1}; }
  U32 newSlot();
  void load(std::span<Match const> wanted);
  std::vector<U32> keepEqual(std::span<Match const> wanted);
  std::vector<bool> longestOrdered(std::vector<U32> const& rules) const;
  U32 reordered(U32 rule, U32 before);
  std::vector<U32> neighbours(U32 rule, Match const& match);
  Bounds boundsOf(U32 rule, std::vector<U32> const& neighbours) const;
  void settle(U32 rule, Match const& match);
  void tell(U32 rule, std::vector<U32> const& neighbours);
  void refreshOne();

  // One rule to one place.
  void place(U32 rule, Bounds const& bounds, bool mayJump, Pick pick, U32 level = 0);
  U32 wantedLevel(U32 rule, Bounds const& bounds) const;
  U32 nearHole(int first, int last, U32 wanted) const;
  U32 levelAt(U32 hole, Bounds const& bounds, U32 wanted, Pick pick) const;
  U32 between(U32 low, U32 high, Pick pick) const;
  void add(U32 rule, U32 priority, U32 place);
  void move(U32 rule, U32 place);
  void keepInPlace(std::vector<U32> const& rules);
  void rekey(U32 rule, Bounds const& limits, Pick pick, U32 level = 0);
  // The rule whose entry a slot has.
  U32 owner(U32 slot) const { return isOld(slot) ? rules_[slot].oldOf : slot; }
  bool isOld(U32 slot) const { return rules_[slot].oldOf != Places::nobody; }
  U32 keepOld(U32 rule);
  void deleteOld(U32 old);

  // Chains.
  U32 freeByChain(Bounds const& bounds, bool mayJump);
  std::vector<Hop> findChain(int first, int last, bool mayJump);
  void lookForJumpers(int level, Extent& extent);
  Bounds withinBarrier(Bounds bounds, U32 priority) const;
  std::optional<U32> jump(Hop const& hop, U32 hole);
  U32 step(Hop const& hop, U32 hole);

  // Contradictions and numbers.
  void makeWay(U32 rule, Match const& match);
  Conflict leastConflict(U32 rule, std::vector<U32> const& neighbours);
  Conflict leastClosure(std::vector<Conflict> const& all, std::size_t most);
  bool follow(std::vector<U32>& members, U32 limit, bool down, std::size_t most);
  void resolve(U32 rule, Match const& match, Conflict const& conflict);
  void widen(U32 low, U32 high, U64 least);
  void shift(int level, U32 priority);

  Settings const settings_;
  LevelRow row_;
  OverlapIndex index_;
  RankList ranks_;
  std::vector<Rule> rules_;  // by slot
  std::vector<U32> unused_;
  std::vector<Write> writes_;
  std::vector<U32> marks_;  // scratch: by slot, the visit that saw it
  U32 visit_ = 0;
  U32 edit_ = 0;
  Bounds barrier_{0, 0};  // while it is possible(), no rule jumps to between these or over them
  U32 sampled_ = 0;       // where the next look for jumpers begins
  U32 refreshed_ = 0;     // the slot whose bounds were found out last
  U64 nextKey_;
};

}  // namespace Planning
