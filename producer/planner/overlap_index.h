// SPDX-License-Identifier: Apache-2.0
// OverlapIndex: which rules overlap a given one, without looking at all. The bit-vector scheme of packet
// classification (Lakshman and Stiliadis 1998), with tries for the two address fields instead of a vector for
// each elementary interval, so that a rule can be added and removed:
//
//   rules whose source meets         1 1 0 1 0 0 1 1
//   rules whose destination meets    0 1 1 1 0 0 0 1
//   both                             0 1 0 1 0 0 0 1     and of these, one by one, ports and other bits
//
// Invariants: a slot holds one match, from add() to remove().
// Threading: one thread; find() uses scratch space of the object.
// Cost: a trie's path for each address, a 64th of the slots in words, and 24 bytes read for each rule whose
//   two addresses meet. Memory: the slots of each trie node that are many take a bit for each slot.
#pragma once

#include <vector>

#include "producer/planner/match.h"
#include "producer/planner/prefix_index.h"

namespace Planning {

class OverlapIndex {
 public:
  void add(U32 slot, Match const& match);
  void remove(U32 slot);
  Match match(U32 slot) const { return {sources_[slot], destinations_[slot], rests_[slot]}; }
  // The slots whose match overlaps this one, ascending. Valid until the next call.
  std::vector<U32> const& find(Match const& match);

 private:
  PrefixIndex bySource_;
  PrefixIndex byDestination_;
  std::vector<Prefix> sources_;  // each of the three by slot
  std::vector<Prefix> destinations_;
  std::vector<Rest> rests_;
  Bits meetSource_;
  Bits meetDestination_;
  std::vector<U32> found_;
};

}  // namespace Planning
