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

}  // namespace Testing
