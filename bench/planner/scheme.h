// SPDX-License-Identifier: Apache-2.0
// Scheme: one way to keep a list of rules in a row. Rules are numbered in the order of the list, and are in
// it or not.
#pragma once

#include <memory>
#include <set>
#include <vector>

#include "bench/planner/row.h"

namespace Bench {

class Scheme {
 public:
  virtual ~Scheme() = default;
  virtual void load(std::vector<U32> const& rules) = 0;  // ascending; once, into an empty row
  virtual void insert(U32 rule) = 0;
  virtual void erase(U32 rule) = 0;
};

// All rules there will ever be; some schemes look at them beforehand.
using Rules = std::vector<Planning::Match>;
using MakeScheme = std::unique_ptr<Scheme> (*)(Rules const&, PlanRow&);

std::unique_ptr<Scheme> planned(Rules const&, PlanRow&);
// One priority a rule, the free places behind all: whatever is behind an insert moves on by one.
std::unique_ptr<Scheme> blockAtEnd(Rules const&, PlanRow&);
// The same with levels of overlap as priorities, of the whole set, known beforehand: of each level behind an
// insert one rule moves. This is the prefix-length order of Shah and Gupta 2001 ("Fast updating algorithms
// for TCAMs"), with longest chains of overlaps in place of prefix lengths.
std::unique_ptr<Scheme> levelsAndBlock(Rules const&, PlanRow&);
// The list's order, evenly spread; the nearest free place on either side is moved to the insert.
std::unique_ptr<Scheme> nearestGap(Rules const&, PlanRow&);
// Any order that the overlaps allow, without priority numbers: chains of overlapping entries to one side, the
// fewest by dynamic programming over the positions, as in RuleTris (Wen et al. 2016, "RuleTris:
// Minimizing rule update latency for TCAM-based SDN switches"); of both sides the cheaper.
std::unique_ptr<Scheme> dependencyChains(Rules const&, PlanRow&);

}  // namespace Bench
