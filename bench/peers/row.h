// SPDX-License-Identifier: Apache-2.0
// Row: the hardware that the programmers of this comparison write: positions and who lies there. It counts
// operations, and how many rules that should be there are not.
//
// Invariants: one entry a position, one position a key; what does not fit is refused with std::logic_error,
//   so that nobody gains speed by being wrong. With `checked`, priorities of a group never fall along it.
// Ownership: values only.
// Threading: one thread.
// Cost: a hash probe and an array element an operation; `checked` and guarded rules cost more, and are not
//   for runs that are timed.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <map>
#include <vector>

#include "vantrel/core/entry.h"

namespace Bench {

using Match = U32;  // the number of what a rule matches, whatever key carries it

class Row {
 public:
  struct Entry {
    U64 key;
    U32 prio;
    U16 pg;
    U16 low;  // of the version: it changes with the content
    friend bool operator==(Entry const&, Entry const&) = default;
  };
  using Contents = std::map<U32, Entry>;  // by position

  explicit Row(U32 size, bool checked = false) : keys_(size), checked_(checked) {}

  void add(Vantrel::EntryConfig const& e);
  void update(Vantrel::EntryConfig const& e);
  void move(Vantrel::EntryConfig const& e);
  void remove(U64 key);

  bool has(U64 key) const { return places_.contains(key); }
  U32 positionOf(U64 key) const { return places_.at(key).ti; }
  Entry const& entryOf(U64 key) const { return places_.at(key).entry; }
  U64 at(U32 ti) const { return keys_[ti]; }  // 0: free
  Contents contents() const;

  // From here on: rules whose absence counts, those that are here and are not to go. `matchOf` names what a
  // key's rule matches.
  void guard(std::vector<bool> wanted, boost::unordered_flat_map<U64, Match> const& matchOf);

  U64 operations() const { return operations_; }
  U64 absences() const { return absences_; }      // absent rules, summed over operations
  U64 mostAbsent() const { return mostAbsent_; }  // at one time
  U64 gaps() const { return gaps_; }              // operations after which some rule was absent
  U64 disorders() const { return disorders_; }    // operations after which an order was broken

 private:
  struct Place {
    U32 ti;
    Entry entry;
  };
  void take(U32 ti, U64 key);
  void done(Entry const* changed, U32 ti);
  void appeared(U64 key);
  void vanished(U64 key);

  boost::unordered_flat_map<U64, Place> places_;
  std::vector<U64> keys_;
  bool const checked_;
  std::map<std::pair<U16, U32>, U32> order_;  // (group, position) -> priority, when checked
  U64 operations_ = 0, absences_ = 0, mostAbsent_ = 0, gaps_ = 0, absentNow_ = 0, disorders_ = 0;
  boost::unordered_flat_map<U64, Match> const* matchOf_ = nullptr;
  std::vector<U32> present_;   // entries of each match
  std::vector<bool> guarded_;  // by match
};

}  // namespace Bench
