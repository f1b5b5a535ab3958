// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/diff.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <limits>

#include "producer/planner/longest.h"

namespace Acl {
namespace {

// An entry stays when its match stays: another action is an update.
Rule matchOf(Rule rule) {
  rule.action = {};
  return rule;
}

// A match that the table holds as often as it is wanted, or more often than this, is paired in order, not by
// trial.
constexpr std::size_t maxCandidates = 16;
// A band in the table takes more rules than a fresh one, so that one in its middle need not split it.
constexpr std::size_t joinedBand = 4 * maxBand;
// A stretch that gave up its entries is spread so thin that it will not soon do so again.
constexpr U64 spareFactor = 16;

class Differ {
 public:
  Differ(std::vector<Held> const& held, std::vector<Rule> const& wanted, U32 step)
      : held_(held),
        wanted_(wanted),
        step_(step),
        byMatch_(heldByMatch()),
        taken_(held.size()),
        placed_(wanted.size()),
        set_(wanted.size()) {}

  Diff run() {
    keepLongestFit();
    keepMoreRepeated();
    fillGaps();
    std::vector<std::size_t> left = leftover();
    return {std::move(placed_), std::move(left)};
  }

 private:
  struct Candidate {
    std::size_t rank;
    std::size_t held;
  };
  using Band = std::vector<std::size_t>;
  using ByMatch = boost::unordered_flat_map<Rule, std::vector<std::size_t>, std::hash<Rule>>;

  void keepLongestFit() {
    std::vector<Candidate> const candidates = findCandidates();
    std::vector<U32> prios;
    prios.reserve(candidates.size());
    for (Candidate const& c : candidates) prios.push_back(held_[c.held].prio);
    for (std::size_t const member : Planning::longestNonDecreasing(prios)) {
      auto const [rank, held] = candidates[member];
      if (!set_[rank] && !taken_[held] && joins(rank, held_[held].prio)) keep(rank, held);
    }
  }

  // A chain may name one entry for several equal rules, of which only the first got it. The others take what
  // is left of their match, as far as it fits between those that stay.
  void keepMoreRepeated() {
    std::vector<U64> ceiling(wanted_.size() + 1, ~U64{0});  // the least priority that stays from a rank on
    for (std::size_t rank = wanted_.size(); rank-- > 0;)
      ceiling[rank] = set_[rank] ? placed_[rank].prio : ceiling[rank + 1];
    U32 floor = 0;
    for (std::size_t rank = 0; rank < wanted_.size(); ++rank) {
      if (!set_[rank]) keepRepeated(rank, floor, ceiling[rank]);
      if (set_[rank]) floor = placed_[rank].prio;
    }
  }
  void keepRepeated(std::size_t rank, U32 floor, U64 ceiling) {
    auto const at = byMatch_.find(matchOf(wanted_[rank]));
    if (at == byMatch_.end()) return;
    for (std::size_t const held : at->second) {
      U32 const prio = held_[held].prio;
      if (taken_[held] || prio < floor || prio > ceiling || !joins(rank, prio)) continue;
      keep(rank, held);
      return;
    }
  }
  void keep(std::size_t rank, std::size_t held) {
    taken_[held] = true;
    placed_[rank].held = held;
    place(rank, held_[held].prio);
  }

  // In the order of the wanted rules; of one rule the greater priorities first, so that no chain takes two of
  // them.
  std::vector<Candidate> findCandidates() const {
    boost::unordered_flat_map<Rule, std::size_t, std::hash<Rule>> times;
    for (Rule const& rule : wanted_) ++times[matchOf(rule)];
    boost::unordered_flat_map<Rule, std::size_t, std::hash<Rule>> seen;
    std::vector<Candidate> candidates;
    for (std::size_t rank = 0; rank < wanted_.size(); ++rank) {
      auto const at = byMatch_.find(matchOf(wanted_[rank]));
      if (at == byMatch_.end()) continue;
      std::vector<std::size_t> const& same = at->second;
      if (same.size() <= maxCandidates && same.size() != times[at->first]) {
        for (auto held = same.rbegin(); held != same.rend(); ++held) candidates.push_back({rank, *held});
      } else if (std::size_t const nth = seen[at->first]++; nth < same.size()) {
        candidates.push_back({rank, same[nth]});
      }
    }
    return candidates;
  }

  // By ascending priority.
  ByMatch heldByMatch() const {
    ByMatch byMatch;
    for (std::size_t i = 0; i < held_.size(); ++i) byMatch[matchOf(held_[i].rule)].push_back(i);
    for (auto& [match, same] : byMatch)
      std::ranges::stable_sort(same, {}, [this](std::size_t i) { return held_[i].prio; });
    return byMatch;
  }

  std::vector<std::size_t> leftover() const {
    std::vector<bool> stays(held_.size());
    for (Placed const& p : placed_)
      if (p.held) stays[*p.held] = true;
    std::vector<std::size_t> left;
    for (std::size_t i = 0; i < held_.size(); ++i)
      if (!stays[i]) left.push_back(i);
    return left;
  }

  bool joins(std::size_t rank, U32 prio) const {
    auto const at = bands_.find(prio);
    return at == bands_.end() || fits(rank, at->second);
  }
  bool fits(std::size_t rank, Band const& band) const {
    return band.size() < joinedBand && std::ranges::none_of(band, [&](std::size_t other) {
             return overlap(wanted_[rank], wanted_[other]);
           });
  }
  void place(std::size_t rank, U32 prio) {
    placed_[rank].prio = prio;
    set_[rank] = true;
    bands_[prio].push_back(rank);
  }
  void unplace(std::size_t rank) {
    if (!set_[rank]) return;
    set_[rank] = false;
    placed_[rank].held.reset();
    std::erase(bands_[placed_[rank].prio], rank);
  }

  bool stays(std::size_t rank) const { return placed_[rank].held.has_value(); }

  // Rules that lost their entry are a gap again, together with the gaps beside them.
  void fillGaps() {
    std::size_t reach = 0;  // how far the gap in hand was widened
    for (std::size_t rank = 0; rank < wanted_.size();) {
      if (stays(rank)) {
        ++rank;
        continue;
      }
      std::size_t const end = gapEnd(rank);
      if (fillGap(rank, end, reach ? spare() : 1)) {
        rank = end;
        reach = 0;
      } else {
        reach = std::max(2 * reach, end - rank);
        rank = widenGap(rank, end, reach);
      }
    }
  }
  U64 spare() const { return std::clamp<U64>(step_ / 4, 1, spareFactor); }
  std::size_t gapEnd(std::size_t rank) const {
    while (rank < wanted_.size() && !stays(rank)) ++rank;
    return rank;
  }
  std::size_t gapBegin(std::size_t rank) const {
    while (rank > 0 && !stays(rank - 1)) --rank;
    return rank;
  }

  // False, and nothing placed, when there is no room.
  bool fillGap(std::size_t begin, std::size_t end, U64 spare) {
    for (std::size_t rank = begin; rank < end; ++rank) unplace(rank);
    bool const splitsBand = begin > 0 && end < wanted_.size() && placed_[begin - 1].prio == placed_[end].prio;
    std::size_t const first = joinBefore(begin, end);
    std::size_t const last = splitsBand ? end : joinBehind(first, end);
    if ((first == end || !splitsBand) && placeBands(cutBands(first, last), begin, end, spare)) return true;
    for (std::size_t rank = begin; rank < end; ++rank) unplace(rank);
    return false;
  }

  // Puts the first rules of the gap into the band before it, as far as they fit; returns the first that does
  // not.
  std::size_t joinBefore(std::size_t begin, std::size_t end) {
    if (begin == 0) return begin;
    U32 const prio = placed_[begin - 1].prio;
    for (; begin < end && joins(begin, prio); ++begin) place(begin, prio);
    return begin;
  }
  std::size_t joinBehind(std::size_t begin, std::size_t end) {
    if (end == wanted_.size()) return end;
    U32 const prio = placed_[end].prio;
    for (; end > begin && joins(end - 1, prio); --end) place(end - 1, prio);
    return end;
  }

  std::vector<Band> cutBands(std::size_t begin, std::size_t end) const {
    std::vector<Band> bands;
    for (std::size_t rank = begin; rank < end; ++rank) {
      if (bands.empty() || bands.back().size() == maxBand || !fits(rank, bands.back())) bands.emplace_back();
      bands.back().push_back(rank);
    }
    return bands;
  }

  bool placeBands(std::vector<Band> const& bands, std::size_t begin, std::size_t end, U64 spare) {
    if (bands.empty()) return true;
    constexpr U64 all = U64{std::numeric_limits<U32>::max()} + 1;
    bool const open = end == wanted_.size();
    U64 const low = begin == 0 ? 0 : placed_[begin - 1].prio;
    U64 const steps = low + step_ * U64{bands.size() + 1};
    U64 const high = !open ? placed_[end].prio : std::min(steps, all);
    if (high <= low + bands.size() * (open ? 1 : spare)) return false;
    for (std::size_t j = 0; j < bands.size(); ++j) {
      U32 const prio = static_cast<U32>(low + (j + 1) * (high - low) / (bands.size() + 1));
      for (std::size_t const rank : bands[j]) place(rank, prio);
    }
    return true;
  }

  // Takes the entries from rules beside the gap; returns where the gap begins now.
  std::size_t widenGap(std::size_t begin, std::size_t end, std::size_t reach) {
    if (begin > 0 && end < wanted_.size() && placed_[begin - 1].prio == placed_[end].prio) {
      splitBand(begin, end);
    } else {
      for (std::size_t rank = begin; rank > 0 && begin - rank < reach; --rank) unplace(rank - 1);
      for (std::size_t rank = end; rank < wanted_.size() && rank - end < reach; ++rank) unplace(rank);
    }
    return gapBegin(begin);
  }
  // A rule that overlaps a band has to go into its middle: the smaller side leaves the band.
  void splitBand(std::size_t begin, std::size_t end) {
    Band const band = bands_[placed_[end].prio];
    bool const before = 2 * std::ranges::count_if(band, [&](std::size_t r) { return r < begin; }) <=
                        static_cast<std::ptrdiff_t>(band.size());
    for (std::size_t const rank : band)
      if (before ? rank < begin : rank >= end) unplace(rank);
  }

  std::vector<Held> const& held_;
  std::vector<Rule> const& wanted_;
  U32 const step_;
  ByMatch const byMatch_;       // entries
  std::vector<bool> taken_;     // entries that stayed at first
  std::vector<Placed> placed_;  // a rule without an entry has its priority once set_
  std::vector<bool> set_;
  boost::unordered_flat_map<U32, Band> bands_;  // by priority: ranks
};

}  // namespace

Diff diff(std::vector<Held> const& held, std::vector<Rule> const& wanted, U32 step) {
  return Differ(held, wanted, step).run();
}

}  // namespace Acl
