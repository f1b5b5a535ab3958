// SPDX-License-Identifier: Apache-2.0
// Compares the rules in the table with the rules that are wanted: which entries stay, which priorities the
// others get, and which entries have to go.
//
// The order of a filter matters only between rules that overlap. So wanted rules get priorities that never
// fall along the file and rise between any two that overlap; neighbouring rules that do not overlap share one
// (a band).
//
//   table    A:4096   B C:8192   D:12288
//   wanted   A   D   X   C   B                  B and C trade places inside their band; D is before them now
//   result   A:4096   D:5461   X:6826   C B:8192
//            A, B and C stay; D became a new entry, the old one is left over; X is new
//
// An entry stays when its match is still wanted and its priority fits into the wanted order; the largest set
// that fits is a longest non-decreasing subsequence of priorities along the file. When no priority is left
// between two entries that stay, the stretch around them gives up its entries until there is room.
//
// It knows no positions; it does not look for a band beyond the neighbours.
//
// Invariants: of the result: along the wanted rules priorities do not decrease, and of two that overlap the
//   later has the greater; no entry stays for two rules; every entry stays for one rule or is in `leftover`.
// Cost: n log n for rules that occur once, plus an overlap test per member of the bands a rule could join.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "hw/acl/rule.h"

namespace Acl {

// The distance of fresh priorities: how many times a gap can be halved.
inline constexpr U32 priorityStep = 4096;
// A fresh band holds no more rules than this: what bounds the cost.
inline constexpr std::size_t maxBand = 1024;

struct Held {
  Rule rule;
  U32 prio = 0;
};

struct Placed {
  std::optional<std::size_t> held;  // the entry that stays for this rule
  U32 prio = 0;
};

struct Diff {
  std::vector<Placed> placed;         // one for each wanted rule
  std::vector<std::size_t> leftover;  // the entries that stay for none, ascending
};

Diff diff(std::vector<Held> const& held, std::vector<Rule> const& wanted, U32 step = priorityStep);

}  // namespace Acl
