// SPDX-License-Identifier: Apache-2.0
// The fewest writes of an edit in small worlds, by dynamic programming over the positions, beside what the
// planner writes. Prints docs/planner.md's table.
//
// From left to right each position stays free or takes a rule whose overlapping predecessors all lie before
// it. What is known on the way: which rules are placed, and the greatest priority among those that keep
// theirs. A rule that keeps position and priority costs nothing, one that keeps only its priority one write,
// one that gets another priority two, a new one one. In which order the writes could be made is left out, and
// so is whether a number is free between two others: no plan can be better, and perhaps none is as good.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "producer/planner/planner.h"
#include "tests/producer/planner/worlds.h"

namespace Planning {
namespace {

// An entry of the row before the edit, or none, for a rule that is new.
struct Held {
  Match match;
  U32 priority = 0;  // 0: new
  U32 position = 0;
};

U32 fewestWrites(std::vector<Held> const& list, U32 positions) {
  std::size_t const n = list.size();
  std::vector<U32> before(n);  // by rule: a bit for each that must lie before it
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < i; ++j)
      if (overlap(list[i].match, list[j].match)) before[i] |= 1U << j;
  std::vector<U32> priorities{0};
  for (Held const& held : list) priorities.push_back(held.priority);
  std::ranges::sort(priorities);
  auto const levelOf = [&](U32 priority) {
    return static_cast<std::size_t>(std::ranges::lower_bound(priorities, priority) - priorities.begin());
  };
  std::size_t const levels = n + 1, masks = std::size_t{1} << n;
  constexpr U32 never = std::numeric_limits<U32>::max();
  std::vector<U32> cost(masks * levels, never);
  cost[0] = 0;
  for (U32 position = 0; position < positions; ++position) {
    std::vector<U32> next = cost;  // the position stays free
    for (std::size_t mask = 0; mask < masks; ++mask)
      for (std::size_t level = 0; level < levels; ++level) {
        U32 const sofar = cost[mask * levels + level];
        if (sofar == never) continue;
        for (std::size_t i = 0; i < n; ++i) {
          if (mask >> i & 1 || (before[i] & ~mask) != 0) continue;
          std::size_t const with = (mask | std::size_t{1} << i) * levels;
          Held const& held = list[i];
          U32& renumbered = next[with + level];
          renumbered = std::min(renumbered, sofar + (held.priority == 0 ? 1 : 2));
          if (held.priority == 0 || levelOf(held.priority) < level) continue;
          U32& kept = next[with + levelOf(held.priority)];
          kept = std::min(kept, sofar + (held.position == position ? 0 : 1));
        }
      }
    cost = std::move(next);
  }
  return *std::min_element(cost.end() - static_cast<std::ptrdiff_t>(levels), cost.end());
}

struct Gap {
  double planned = 0;  // writes an edit
  double fewest = 0;
  U32 worst = 0;  // how many more than the fewest
};

Gap replacements(World world, U32 rules, U32 free, int edits) {
  MatchGenerator generator(rules + free, world);
  Planner planner({.size = rules + free});
  std::vector<Match> first;
  for (U32 i = 0; i < rules; ++i) first.push_back(generator.match());
  planner.assign(first);
  Gap gap;
  for (int i = 0; i < edits; ++i) {
    planner.erase(planner.list()[generator.below(rules)]);
    planner.takeWrites();
    std::vector<U32> const list = planner.list();
    std::vector<Held> wanted;
    for (U32 const rule : list)
      wanted.push_back({planner.match(rule), planner.priority(rule), planner.position(rule)});
    U32 const at = generator.below(rules);
    Match const match = generator.match();
    wanted.insert(wanted.begin() + at, Held{match});
    U32 const fewest = fewestWrites(wanted, rules + free);
    planner.insert(match, at < list.size() ? list[at] : Planner::atEnd);
    U32 const planned = static_cast<U32>(planner.takeWrites().size());
    EXPECT_GE(planned, fewest);
    gap.planned += planned;
    gap.fewest += fewest;
    gap.worst = std::max(gap.worst, planned - std::min(planned, fewest));
  }
  gap.planned /= edits;
  gap.fewest /= edits;
  return gap;
}

TEST(Optimum, CountsMovesAndNewKeys) {
  Match const any;
  Match left, right;
  left.source = Prefix{0, 0, 1};
  right.source = Prefix{U64{1} << 63, 0, 1};
  EXPECT_EQ(fewestWrites({{any, 5, 0}, {any, 0, 0}}, 3), 1U);                  // there is room behind
  EXPECT_EQ(fewestWrites({{any, 0, 0}, {any, 5, 0}}, 3), 2U);                  // one has to move
  EXPECT_EQ(fewestWrites({{left, 9, 2}, {any, 0, 0}, {right, 5, 0}}, 5), 3U);  // one needs another priority
}

TEST(Optimum, IsNearWhatThePlannerWrites) {
  struct Case {
    char const* name;
    World world;
  };
  std::printf("overlaps  rules  free   planned  fewest   ratio  worst\n");
  for (Case const& c : {Case{"few", World::Sparse}, Case{"some", World::Mixed}, Case{"many", World::Dense},
                        Case{"all", World::All}})
    for (auto const& [rules, free, edits] : {std::tuple{6U, 1U, 400},
                                             {6U, 3U, 400},
                                             {9U, 1U, 200},
                                             {9U, 3U, 200},
                                             {12U, 1U, 20},
                                             {12U, 3U, 20}}) {
      Gap const gap = replacements(c.world, rules, free, edits);
      std::printf("%-8s  %5u  %4u  %8.2f  %6.2f  %6.2f  %5u\n", c.name, rules, free, gap.planned, gap.fewest,
                  gap.planned / gap.fewest, gap.worst);
      EXPECT_LT(gap.planned, 1.5 * gap.fewest) << c.name << ' ' << rules << ' ' << free;
    }
}

}  // namespace
}  // namespace Planning
