// SPDX-License-Identifier: Apache-2.0
#include <map>

#include "bench/planner/scheme.h"
#include "producer/planner/planner.h"

namespace Bench {
namespace {

using Planning::Planner;

class Planned : public Scheme {
 public:
  Planned(Rules const& rules, PlanRow& row) : rules_(rules), row_(row), planner_({.size = row.size()}) {}

  void load(std::vector<U32> const& rules) override {
    Rules list;
    for (U32 const rule : rules) list.push_back(rules_[rule]);
    std::vector<U32> const made = planner_.assign(list);
    for (std::size_t i = 0; i < rules.size(); ++i) note(rules[i], made[i]);
    write();
  }
  void insert(U32 rule) override {
    auto const behind = slots_.upper_bound(rule);
    note(rule, planner_.insert(rules_[rule], behind == slots_.end() ? Planner::atEnd : behind->second));
    write();
  }
  void erase(U32 rule) override {
    planner_.erase(slots_.at(rule));
    slots_.erase(rule);
    write();
  }

 private:
  void note(U32 rule, U32 slot) {
    slots_[rule] = slot;
    if (numbers_.size() <= slot) numbers_.resize(slot + 1);
    numbers_[slot] = rule;
  }
  void write() {
    for (Planning::Write const& write : planner_.takeWrites()) {
      if (write.what == Planning::Do::Add)
        row_.add(write.key, numbers_[write.rule], write.position, write.priority);
      else if (write.what == Planning::Do::Move)
        row_.move(write.key, write.position);
      else
        row_.remove(write.key);
    }
  }

  Rules const& rules_;
  PlanRow& row_;
  Planner planner_;
  std::map<U32, U32> slots_;  // rule -> the planner's number
  std::vector<U32> numbers_;  // and back
};

}  // namespace

std::unique_ptr<Scheme> planned(Rules const& rules, PlanRow& row) {
  return std::make_unique<Planned>(rules, row);
}

}  // namespace Bench
