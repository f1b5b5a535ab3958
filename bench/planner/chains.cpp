// SPDX-License-Identifier: Apache-2.0
// The schemes that know only the overlaps: an entry may lie anywhere behind all that must be before it and
// before all that must be behind it.
#include <algorithm>
#include <stdexcept>

#include "bench/planner/scheme.h"
#include "producer/planner/places.h"

namespace Bench {
namespace {

using Planning::Places;

class Chains : public Scheme {
 public:
  Chains(Rules const& rules, PlanRow& row)
      : row_(row),
        places_(row.size()),
        where_(rules.size(), Places::none),
        before_(rules.size()),
        behind_(rules.size()) {
    for (U32 i = 0; i < rules.size(); ++i)
      for (U32 j = 0; j < i; ++j)
        if (overlap(rules[i], rules[j])) before_[i].push_back(j), behind_[j].push_back(i);
  }
  void load(std::vector<U32> const& rules) override {
    for (std::size_t i = 0; i < rules.size(); ++i)
      add(rules[i], static_cast<U32>(U64{i} * row_.size() / rules.size()));
  }
  void erase(U32 rule) override {
    row_.remove(rule + 1);
    places_.leave(where_[rule]);
    where_[rule] = Places::none;
  }
  void insert(U32 rule) override {
    for (int tries = 0; low(rule) > high(rule); ++tries) {
      if (tries == 100)
        throw std::runtime_error("skipped: chains written so find no way out of a contradiction");
      resolve(rule);
    }
    add(rule, freePlace(low(rule), high(rule)));
  }

 private:
  // Places from which on, and up to which without, an entry of the rule may lie.
  U32 low(U32 rule) const {
    U32 place = 0;
    for (U32 const other : before_[rule])
      if (where_[other] != Places::none) place = std::max(place, where_[other] + 1);
    return place;
  }
  U32 high(U32 rule) const {
    U32 place = row_.size();
    for (U32 const other : behind_[rule]) place = std::min(place, where_[other]);  // none is the greatest
    return place;
  }

  // Towards a free place: upwards, rules that must be behind and lie before one that must be before go behind
  // it, the last of the list first; or downwards the other way round.
  void resolve(U32 rule) {
    bool const up = places_.freeFrom(low(rule)) != Places::none;
    std::vector<U32> wrong = misplaced(rule, up);
    std::ranges::sort(wrong);
    if (up) std::ranges::reverse(wrong);
    for (U32 const other : wrong) {
      std::vector<U32> const way =
          up ? chain(low(rule), high(other), true) : chain(low(other), high(rule), false);
      if (way.empty()) return;  // the free place is elsewhere by now
      follow(way);
      move(where_[other], way.front());
    }
  }
  // Those that must be behind the rule and lie before its lowest place, and those that must be behind these;
  // or the other way round.
  std::vector<U32> misplaced(U32 rule, bool up) const {
    U32 const limit = up ? low(rule) : high(rule);
    std::vector<U32> wrong;
    for (std::vector<U32> open{rule}; !open.empty();) {
      U32 const at = open.back();
      open.pop_back();
      for (U32 const other : up ? behind_[at] : before_[at]) {
        bool const isWrong =
            where_[other] != Places::none && (up ? where_[other] < limit : where_[other] >= limit);
        if (isWrong && std::ranges::find(wrong, other) == wrong.end())
          wrong.push_back(other), open.push_back(other);
      }
    }
    return wrong;
  }

  // A free place from low on and up to, without, high; made free by the shorter chain.
  U32 freePlace(U32 low, U32 high) {
    if (U32 const place = places_.freeFrom(low); place != Places::none && place < high) return place;
    std::vector<U32> const up = chain(low, high, true), down = chain(low, high, false);
    std::vector<U32> const& best = up.empty() || (!down.empty() && down.size() < up.size()) ? down : up;
    follow(best);
    return best.front();
  }
  // Frees the first place of a chain.
  void follow(std::vector<U32> const& chain) {
    for (std::size_t i = chain.size() - 1; i > 0; --i) move(chain[i - 1], chain[i]);
  }

  // Places, the last of them free: what is at each goes to the next. Empty when there is no such chain.
  std::vector<U32> chain(U32 low, U32 high, bool up) const {
    std::vector<U32> from(row_.size(), Places::none);
    // What n moves reach is a stretch of places: it ends where the farthest of those in it must stop.
    U32 at = up ? low : high - 1;
    U32 end = up ? high : low - 1;  // the entry at this place may be pushed on, too
    U32 source = Places::none, farthest = end, farthestSource = Places::none;
    for (;;) {
      if (up ? at >= row_.size() : at == Places::none) return {};
      if (up ? at > end : at + 1 < end + 1) {
        if (farthest == end) return {};
        end = farthest;
        source = farthestSource;
      }
      from[at] = source;
      U32 const rule = places_.at(at);
      if (rule == Places::nobody) break;
      U32 const limit = up ? this->high(rule) : this->low(rule) - 1;
      bool const farther = up ? limit > farthest : limit + 1 < farthest + 1;
      if (farther) farthest = limit, farthestSource = at;
      at = up ? at + 1 : at - 1;
    }
    std::vector<U32> places{at};
    while (from[places.back()] != Places::none) places.push_back(from[places.back()]);
    std::ranges::reverse(places);
    return places;
  }

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

  PlanRow& row_;
  Places places_;
  std::vector<U32> where_;                // by rule
  std::vector<std::vector<U32>> before_;  // by rule: those that overlap and are before it in the list
  std::vector<std::vector<U32>> behind_;
};

}  // namespace

std::unique_ptr<Scheme> dependencyChains(Rules const& rules, PlanRow& row) {
  return std::make_unique<Chains>(rules, row);
}

}  // namespace Bench
