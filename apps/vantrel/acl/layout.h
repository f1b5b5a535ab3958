// SPDX-License-Identifier: Apache-2.0
// Gives the entries of one group, in their order, ascending places out of a row, moving as few as possible.
//
//   places   0   1   2   3   4   5   6   7
//   before   a       b   c               d        wanted order a b x c d
//   after    a   b   x   c               d        between b and c there was no room: b makes some
//
// An entry can stay where it is when the entries before it fit before it and those after it fit behind it.
// With i the entry's rank and p its place, a set of entries can stay together exactly when p - i does not
// decrease along it and stays between 0 and the number of free places; so the largest such set is a longest
// non-decreasing subsequence. The others are spread evenly over the gaps between those that stay.
//
// It does not keep room for the future beyond spreading evenly.
//
// Cost: n log n.
#pragma once

#include <optional>
#include <vector>

#include "pallo/types.h"

namespace Acl {

// `places`: where each entry is now, in wanted order; nothing, or a place at or beyond `capacity`, for one
// that must get a place. At most `capacity` entries. Returns each one's place, strictly ascending, below
// `capacity`.
std::vector<U32> layOut(std::vector<std::optional<U32>> const& places, U32 capacity);

}  // namespace Acl
