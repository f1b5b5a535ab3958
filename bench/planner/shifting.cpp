// SPDX-License-Identifier: Apache-2.0
// The schemes that keep a total order of the rules, or of their levels.
#include <algorithm>
#include <map>

#include "bench/planner/scheme.h"
#include "producer/planner/places.h"

namespace Bench {
namespace {

using Planning::Places;

class InRow : public Scheme {
 public:
  InRow(Rules const& rules, PlanRow& row) : rules_(rules), row_(row), places_(row.size()) {}
  void erase(U32 rule) override {
    row_.remove(rule + 1);
    places_.leave(where_.at(rule));
    where_.erase(rule);
  }

 protected:
  // Keys are rule numbers from 1 on.
  void add(U32 rule, U32 place) {
    row_.add(rule + 1, rule, place, 0);
    places_.take(place, rule);
    where_[rule] = place;
  }
  void move(U32 from, U32 to) {
    U32 const rule = places_.at(from);
    row_.move(rule + 1, to);
    places_.leave(from);
    places_.take(to, rule);
    where_[rule] = to;
  }
  // Everything from a place to the free one on either side of it goes one on.
  void shift(U32 from, U32 free) {
    for (; free > from; --free) move(free - 1, free);
    for (; free < from; ++free) move(free + 1, free);
  }

  Rules const& rules_;
  PlanRow& row_;
  Places places_;
  std::map<U32, U32> where_;  // rule -> place
};

class BlockAtEnd : public InRow {
 public:
  using InRow::InRow;
  void load(std::vector<U32> const& rules) override {
    for (U32 const rule : rules) add(rule, static_cast<U32>(where_.size()));
  }
  void insert(U32 rule) override {
    auto const behind = where_.upper_bound(rule);
    U32 const place = behind == where_.end() ? places_.freeFrom(0) : behind->second;
    shift(place, places_.freeFrom(place));
    add(rule, place);
  }
};

class NearestGap : public InRow {
 public:
  using InRow::InRow;
  void load(std::vector<U32> const& rules) override {
    for (U32 const rule : rules) add(rule, static_cast<U32>(U64{where_.size()} * row_.size() / rules.size()));
  }
  void insert(U32 rule) override {
    auto const behind = where_.upper_bound(rule);
    U32 const end = behind == where_.end() ? row_.size() : behind->second;
    U32 const begin = behind == where_.begin() ? 0 : std::prev(behind)->second + 1;
    U32 const above = places_.freeFrom(begin), below = places_.freeUpTo(begin - 1);  // none when begin is 0
    if (begin < end) return add(rule, begin + (end - 1 - begin) / 2);  // all between neighbours is free
    bool const up = below == Places::none || (above != Places::none && above - end <= begin - 1 - below);
    U32 const place = up ? end : begin - 1;
    shift(place, up ? above : below);
    add(rule, place);
  }
};

class LevelsAndBlock : public InRow {
 public:
  LevelsAndBlock(Rules const& rules, PlanRow& row) : InRow(rules, row), level_(rules.size()) {
    for (U32 i = 0; i < rules.size(); ++i)
      for (U32 j = 0; j < i; ++j)
        if (level_[j] >= level_[i] && overlap(rules[i], rules[j])) level_[i] = level_[j] + 1;
  }
  void load(std::vector<U32> const& rules) override {
    std::vector<U32> order = rules;
    std::ranges::stable_sort(order, {}, [this](U32 rule) { return level_[rule]; });
    for (U32 const rule : order) {
      end_[level_[rule]] = static_cast<U32>(where_.size()) + 1;
      add(rule, static_cast<U32>(where_.size()));
    }
  }
  void insert(U32 rule) override {
    U32 hole = places_.freeFrom(0);
    U32 const level = level_[rule];
    for (auto at = end_.rbegin(); at != end_.rend() && at->first > level; ++at) {
      auto const before = std::next(at);
      U32 const first = before == end_.rend() ? 0 : before->second;
      move(first, hole);
      ++at->second;
      hole = first;
    }
    add(rule, hole);
    end_[level] = hole + 1;
  }

 private:
  std::vector<U32> level_;  // by rule
  std::map<U32, U32> end_;  // of a level: the place behind its last
};

}  // namespace

std::unique_ptr<Scheme> blockAtEnd(Rules const& rules, PlanRow& row) {
  return std::make_unique<BlockAtEnd>(rules, row);
}
std::unique_ptr<Scheme> nearestGap(Rules const& rules, PlanRow& row) {
  return std::make_unique<NearestGap>(rules, row);
}
std::unique_ptr<Scheme> levelsAndBlock(Rules const& rules, PlanRow& row) {
  return std::make_unique<LevelsAndBlock>(rules, row);
}

}  // namespace Bench
