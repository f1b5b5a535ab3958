// SPDX-License-Identifier: Apache-2.0
// The hardware of this comparison: which rule lies where. It counts the writes of each edit, and the writes
// during which something was wrong.
//
// Rules are numbered in the order of their list. `checked`: after each write the entry that changed is
// compared with all others: a write during which two that overlap lie the wrong way round, or a rule that
// should be there has no entry, is a hole. Where entries have priority numbers (other than 0), these must not
// fall along the positions; whoever breaks that, or writes to a taken position, is refused with
// std::logic_error.
//
// Threading: one thread.
// Cost: an element of an array a write; checked, a look at every entry.
#pragma once

#include <map>
#include <unordered_map>
#include <vector>

#include "producer/planner/match.h"

namespace Bench {

class PlanRow {
 public:
  PlanRow(std::vector<Planning::Match> const& rules, U32 size, bool checked)
      : rules_(rules), keys_(size), checked_(checked) {}

  void add(U64 key, U32 rule, U32 place, U32 priority);
  void move(U64 key, U32 place);
  void remove(U64 key);

  // The rule is to be there from now on, or is not.
  void wantedIs(U32 rule, bool wanted);
  // An edit ends. Its writes, but for deletes of rules that are not wanted any more.
  U64 editDone();

  U64 holes() const { return holes_; }
  U32 size() const { return static_cast<U32>(keys_.size()); }
  U64 at(U32 place) const { return keys_[place]; }  // 0: free

 private:
  struct Entry {
    U32 rule;
    U32 place;
    U32 priority;
  };
  void take(U64 key, U32 place);
  void check(U64 key);

  std::vector<Planning::Match> const& rules_;
  std::unordered_map<U64, Entry> entries_;
  std::vector<U64> keys_;  // by place
  bool const checked_;
  std::map<U32, U32> wanted_;  // rule -> its entries, once it had one
  U64 writes_ = 0;             // of this edit
  U64 holes_ = 0;
};

}  // namespace Bench
