// SPDX-License-Identifier: Apache-2.0
#include <iterator>
#include <map>
#include <optional>

#include "bench/peers/programmer.h"

namespace Bench {
namespace {

using Vantrel::EntryConfig;
using Vantrel::TableKey;

U32 target(EntryConfig const& e) { return e.tableIndex(TableKey(0)); }

class Rescan : public Programmer {
 public:
  explicit Rescan(Row& row) : row_(row) {}

  void put(EntryConfig const& wanted) override {
    if (wanted.isDel()) return remove(wanted.key().value());
    waiting_.insert_or_assign(wanted.key().value(), wanted);
    rescan();
  }
  void remove(U64 key) override {
    waiting_.erase(key);
    if (row_.has(key)) takeOut(key);
    rescan();
  }

 private:
  using Ordered = std::map<std::pair<U16, U32>, U32>;  // (group, position) -> priority

  void rescan() {
    do tryAll();
    while (breakRing());
  }

  void tryAll() {
    for (bool progress = true; progress;) {
      progress = false;
      for (auto at = waiting_.begin(); at != waiting_.end();) {
        bool const went = program(at->second);
        progress |= went;
        at = went ? waiting_.erase(at) : std::next(at);
      }
    }
  }

  bool program(EntryConfig const& e) {
    U64 const key = e.key().value();
    bool const there = row_.has(key);
    if (there && row_.positionOf(key) == target(e)) {
      if (row_.entryOf(key).low != e.opId().low()) row_.update(e);
      return true;
    }
    if (row_.at(target(e)) != 0 || !inOrder(e)) return false;
    if (there) {
      auto const old = std::pair(e.pg(), row_.positionOf(key));
      if (row_.entryOf(key).low != e.opId().low()) row_.update(e);
      row_.move(e);
      ordered_.erase(old);
    } else {
      row_.add(e);
    }
    ordered_[{e.pg(), target(e)}] = e.prio();
    return true;
  }

  // Its own old place does not break it: a key keeps its priority.
  bool inOrder(EntryConfig const& e) const {
    auto const after = ordered_.lower_bound({e.pg(), target(e)});
    if (after != ordered_.end() && after->first.first == e.pg() && after->second < e.prio()) return false;
    if (after == ordered_.begin()) return true;
    auto const before = std::prev(after);
    return before->first.first != e.pg() || before->second <= e.prio();
  }

  // One entry of a ring is taken out, and still waits.
  bool breakRing() {
    for (auto const& [key, e] : waiting_)
      if (row_.has(key) && inRing(key)) {
        takeOut(key);
        return true;
      }
    return false;
  }

  bool inRing(U64 start) const {
    U64 at = start;
    for (std::size_t steps = 0; steps <= waiting_.size(); ++steps) {
      auto const wish = waiting_.find(at);
      if (wish == waiting_.end()) return false;
      at = row_.at(target(wish->second));
      if (at == 0) return false;
      if (at == start) return true;
    }
    return false;
  }

  void takeOut(U64 key) {
    ordered_.erase({row_.entryOf(key).pg, row_.positionOf(key)});
    row_.remove(key);
  }

  Row& row_;
  Ordered ordered_;
  std::map<U64, EntryConfig> waiting_;
};

}  // namespace

std::unique_ptr<Programmer> rescanProgrammer(Row& row) { return std::make_unique<Rescan>(row); }

}  // namespace Bench
