// SPDX-License-Identifier: Apache-2.0
// RankList: an ordered list of slots that says in constant time which of two comes first. Order maintenance
// by tags (Bender, Cole, Demaine, Farach-Colton and Zito 2002, "Two simplified algorithms for maintaining
// order in a list"): each has a number, and where two neighbours leave no number between them, the smallest
// surrounding stretch that is thin enough is numbered anew.
//
// Invariants: tags rise along the list.
// Cost: log n numbers changed an insert, amortised.
#pragma once

#include <vector>

#include "pallo/types.h"

namespace Planning {

class RankList {
 public:
  static constexpr U32 none = 0xFFFFFFFF;

  // Puts a slot that is not in the list before another, or at the end.
  void insert(U32 slot, U32 before = none);
  void remove(U32 slot);
  U64 tag(U32 slot) const { return links_[slot].tag; }
  U32 next(U32 slot) const { return links_[slot].next; }
  U32 previous(U32 slot) const { return links_[slot].previous; }
  U32 first() const { return first_; }
  U32 last() const { return last_; }

 private:
  struct Link {
    U64 tag = 0;
    U32 previous = none;
    U32 next = none;
  };
  static constexpr unsigned tagBits = 62;
  U64 tagBefore(U32 slot) const;
  U64 tagAt(U32 slot) const;
  void makeRoom(U32 around);
  bool spread(U32 around, unsigned bits, double density);

  std::vector<Link> links_;
  U32 first_ = none;
  U32 last_ = none;
};

}  // namespace Planning
