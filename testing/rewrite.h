// SPDX-License-Identifier: Apache-2.0
// Rewrites: from one consistent placement of a table's entries to another, one write for each entry, to see
// whether every entry arrives.
#pragma once

#include <random>
#include <vector>

#include "testing/differ.h"

namespace Testing {

struct Member {
  U16 pg;
  U32 prio;
};

// A position for each member, all different. Consistent when priorities are in order inside each group.
using Placement = std::vector<U32>;

bool consistent(std::vector<Member> const& members, Placement const& placement);
// Every consistent placement on positions 0 to positions - 1.
std::vector<Placement> placements(std::vector<Member> const& members, U32 positions);
// One of them, at random.
Placement randomPlacement(std::vector<Member> const& members, U32 positions, std::mt19937_64& random);

// The steps that write each member's position, in the given order of members; versions rise from `newest` on.
std::vector<Step> writes(std::vector<Member> const& members, Placement const& placement,
                         std::vector<U32> const& order, U64& newest);

// Whether each member lies at its place.
bool arrived(Model const& model, Placement const& placement);
// Runs the steps from an empty world; whether all arrive at `target` in the end.
bool arrives(Differ& differ, std::vector<Step> const& steps, Placement const& target);

// 0, 1, 2 ...
std::vector<U32> firstOrder(std::size_t members);
std::vector<Step> joined(std::vector<Step> first, std::vector<Step> const& second);

// The given number of members of up to two groups, of every kind; no two that differ only in names.
std::vector<std::vector<Member>> casts(U32 keys);

}  // namespace Testing
