// SPDX-License-Identifier: Apache-2.0
#include "bench/planner/row.h"

#include <stdexcept>
#include <utility>

namespace Bench {

void PlanRow::take(U64 key, U32 place) {
  if (place >= keys_.size() || keys_[place] != 0) throw std::logic_error("a write to a place that is taken");
  keys_[place] = key;
}

void PlanRow::add(U64 key, U32 rule, U32 place, U32 priority) {
  take(key, place);
  entries_[key] = {rule, place, priority};
  ++writes_;
  if (auto const at = wanted_.find(rule); at != wanted_.end()) ++at->second;
  check(key);
}

void PlanRow::move(U64 key, U32 place) {
  Entry& entry = entries_.at(key);
  take(key, place);
  keys_[entry.place] = 0;
  entry.place = place;
  ++writes_;
  check(key);
}

void PlanRow::remove(U64 key) {
  Entry const entry = entries_.at(key);
  keys_[entry.place] = 0;
  entries_.erase(key);
  auto const at = wanted_.find(entry.rule);
  if (at == wanted_.end()) return;  // the delete that was asked for
  ++writes_;
  if (--at->second == 0) ++holes_;
}

void PlanRow::wantedIs(U32 rule, bool wanted) {
  if (wanted)
    wanted_[rule] = 0;
  else
    wanted_.erase(rule);
}

U64 PlanRow::editDone() { return std::exchange(writes_, 0); }

void PlanRow::check(U64 key) {
  if (!checked_) return;
  Entry const& entry = entries_.at(key);
  bool wrong = false;
  for (auto const& [other, there] : entries_) {
    if (there.rule == entry.rule) continue;
    bool const isBefore = there.place < entry.place;
    if (isBefore ? there.priority > entry.priority : there.priority < entry.priority)
      throw std::logic_error("the priority falls along the row");
    wrong |= isBefore != (there.rule < entry.rule) && overlap(rules_[there.rule], rules_[entry.rule]);
  }
  if (wrong) ++holes_;
}

}  // namespace Bench
