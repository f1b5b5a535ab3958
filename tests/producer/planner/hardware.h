// SPDX-License-Identifier: Apache-2.0
// Hardware for the planner's tests, as flat lists: after each call it compares the entry that changed with
// all others, and counts the wanted rules that are absent.
//
// What must hold: one entry a position, priorities that do not fall along the positions, and of two rules
// that overlap the one that is earlier in the list before the other. What an edit is about is left out: the
// old entry of a rule that gets another place in the list.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "producer/planner/planner.h"

namespace Planning {

class Hardware {
 public:
  struct Entry {
    U32 position;
    U32 priority;
    U32 rule;
  };

  // The list from now on, as ranks and matches of rules.
  void listIs(std::vector<U32> const& list, Planner const& planner) {
    rank_.clear();
    lastKey_.clear();
    for (std::size_t i = 0; i < list.size(); ++i) {
      rank_[list[i]] = i;
      lastKey_[list[i]] = planner.key(list[i]);
      matches_[list[i]] = planner.match(list[i]);
    }
  }
  // Until guard(): entries of this rule under other keys than its last are not compared.
  void exceptOldOf(U32 rule) { moved_.insert(rule); }
  // Each rule that has an entry now must have one after every call.
  void guard() {
    moved_.clear();
    guarded_.clear();
    for (auto const& [key, entry] : entries_)
      if (rank_.contains(entry.rule)) guarded_.insert(entry.rule);
  }
  void unguard(U32 rule) { guarded_.erase(rule); }

  void add(U64 key, Entry const& entry) {
    EXPECT_FALSE(entries_.contains(key)) << "key " << key << " is there already";
    put(key, entry);
  }
  void move(U64 key, U32 position) {
    ASSERT_TRUE(entries_.contains(key));
    Entry entry = entries_.at(key);
    entry.position = position;
    put(key, entry);
    ++moves;
  }
  void remove(U64 key) {
    EXPECT_EQ(entries_.erase(key), 1U);
    changed();
  }
  std::map<U64, Entry> const& entries() const { return entries_; }
  U64 moves = 0;
  U64 calls = 0;

 private:
  void put(U64 key, Entry const& entry) {
    for (auto const& [other, there] : entries_)
      if (other != key) compare(key, entry, other, there);
    entries_[key] = entry;
    changed();
  }
  bool isOld(U64 key, Entry const& e) const { return moved_.contains(e.rule) && lastKey_.at(e.rule) != key; }
  void compare(U64 key, Entry const& a, U64 other, Entry const& b) const {
    std::string const both = "keys " + std::to_string(key) + " and " + std::to_string(other);
    EXPECT_NE(a.position, b.position) << both;
    EXPECT_TRUE(a.position < b.position ? a.priority <= b.priority : a.priority >= b.priority) << both;
    auto const rankA = rank_.find(a.rule), rankB = rank_.find(b.rule);
    if (a.rule == b.rule || rankA == rank_.end() || rankB == rank_.end() || isOld(key, a) ||
        isOld(other, b) || !overlap(matches_.at(a.rule), matches_.at(b.rule)))
      return;
    EXPECT_EQ(a.position < b.position, rankA->second < rankB->second) << both << " overlap";
  }
  void changed() {
    ++calls;
    std::set<U32> present;
    for (auto const& [key, entry] : entries_) present.insert(entry.rule);
    for (U32 const rule : guarded_) EXPECT_TRUE(present.contains(rule)) << "rule " << rule << " is absent";
  }

  std::map<U64, Entry> entries_;  // by key
  std::map<U32, std::size_t> rank_;
  std::map<U32, Match> matches_;
  std::map<U32, U64> lastKey_;  // of each rule
  std::set<U32> moved_;         // rules
  std::set<U32> guarded_;
};

}  // namespace Planning
