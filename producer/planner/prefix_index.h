// SPDX-License-Identifier: Apache-2.0
// PrefixIndex: which of many prefixes have an address in common with a given one. A path-compressed binary
// trie (Morrison 1968, PATRICIA), each of whose nodes also holds the numbers of all that lie below it.
//
//   given 10.1/16:   10/8    own   -- before it on the path: the address range of 10/8 contains it
//                      10.1/16   own and below  -- at its end: what it contains, at any depth
//
// so that the answer is the union of one set a node of the path and two at its end, however many there are.
//
// Invariants: a node's `below` is the union of `own` and `below` of its children. Except for the root, a node
//   without members below has members of its own.
// Cost: the length of the path (at most 129 nodes), and the sets that are changed or united.
#pragma once

#include <vector>

#include "producer/planner/match.h"
#include "producer/planner/slot_set.h"

namespace Planning {

class PrefixIndex {
 public:
  PrefixIndex() : nodes_(1) {}
  void add(Prefix const& prefix, U32 slot);
  void remove(Prefix const& prefix, U32 slot);
  // Sets the bits of all whose prefix meets this one.
  void meeting(Prefix const& prefix, Bits& bits) const;

 private:
  struct Node {
    Prefix prefix;
    U32 child[2] = {0, 0};  // 0: none, since nobody's child is the root
    SlotSet own;
    SlotSet below;
  };
  U32 newNode(Prefix const& prefix);
  U32 childFor(U32 at, Prefix const& prefix);
  void drop(U32 node, U32 parent);

  std::vector<Node> nodes_;
  std::vector<U32> unused_;
};

}  // namespace Planning
