// SPDX-License-Identifier: Apache-2.0
// Positions: where records are programmed. Two indexes that change together, and a list of strays: places
// that a hardware call which threw left in the indexes.
//
//   current:     ti ----------> record     who holds a position
//   precedence:  pti(pg, ti) -> record     the same, in precedence order: neighbours decide a conflict
//
// Invariants: a record with sti is listed in current under sti and in precedence under pti(pg, sti), and
//   nowhere else, but for its strays.
// Ownership: the records are the state's.
// Threading: the agent's thread.
// Cost: two index operations for add and remove, four for move.
// Errors: a place that cannot be added or removed fails an assertion. A Judy failure is reported as the
//   caller's.
#pragma once

#include <vector>

#include "vantrel/fast/asserts.h"
#include "vantrel/fast/judy.h"
#include "vantrel/fast/record.h"

namespace Vantrel {

// A position, and its precedence index in the group of the record in question.
struct Place {
  U32 ti;
  U32 pti;
};

class Positions {
 public:
  JudyMap<CState_s> current;
  JudyMap<CState_s> precedence;

  void add(CState_s& c, Place to, Site site = Site::current()) {
    enter(current, to.ti, c, site);
    enter(precedence, to.pti, c, site);
  }
  // False when the place was missing in one of the indexes.
  bool remove(Place from, Site site = Site::current()) {
    bool const listed = current.remove(from.ti, site);
    return precedence.remove(from.pti, site) && listed;
  }
  void move(CState_s& c, Place from, Place to, Site site = Site::current()) {
    bool const removed = remove(from, site);
    FAST_ASSERT_AS(removed, "rc");
    add(c, to, site);
  }

  // Called when the hardware client threw: the indexes have the key at ti, its record does not say so.
  void strayIs(EntryKey const& key, U32 ti) { strays_.push_back({key, ti}); }
  bool hasStrays() const { return !strays_.empty(); }
  // Returns the key's strays and removes them from the list.
  std::vector<U32> takeStrays(EntryKey const& key) {
    std::vector<U32> places;
    std::erase_if(strays_, [&](Stray const& stray) {
      if (stray.key == key) places.push_back(stray.ti);
      return stray.key == key;
    });
    return places;
  }

 private:
  static void enter(JudyMap<CState_s>& index, U32 at, CState_s& c, Site site) {
    CState_s** const slot = index.insert(at, site);
    FAST_ASSERT_AS(slot, "OPValue");
    *slot = &c;
  }

  struct Stray {
    EntryKey key;
    U32 ti;
  };
  std::vector<Stray> strays_;
};

}  // namespace Vantrel
