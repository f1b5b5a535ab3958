// SPDX-License-Identifier: Apache-2.0
// The entries that the benchmarks handle: entry i lies at position 2i, or one aside; its group is one of
// eight, each with a stretch of positions of its own; priorities rise with the positions.
//
//   position:  0   1   2   3   4   5  ...            group 0: the first eighth of the positions
//            [ 0 ][   ][ 1 ][   ][ 2 ][   ]
//
// Keys are dense, and visited in a shuffled order unless a case is about order: at a million entries hardly
// anything that a key needs is in a cache.
#pragma once

#include <algorithm>
#include <bit>
#include <numeric>
#include <random>
#include <vector>

#include "vantrel/core/entry.h"

namespace Bench {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

struct Layout {
  U32 entries;
  bool onePriority = false;

  static constexpr U32 groups = 8;
  U32 positions() const { return 2 * entries; }
  // How many bits a position takes: 19, as an engine has it, unless there are more positions.
  U32 shift() const { return std::max(19U, static_cast<U32>(std::bit_width(positions() - 1))); }
  U16 group(U32 i) const { return onePriority ? U16{0} : static_cast<U16>(U64{i} * groups / entries); }
  U32 prio(U32 i) const { return onePriority ? 0 : i; }
};

inline EntryKey keyOf(U32 i) { return EntryKey(U64{i} + 1); }

// Four data words: what an access list rule of addresses, ports and action takes. `version` goes into the
// high part of the OpId, `action` into the low one.
inline EntryConfig config(Layout const& layout, U32 key, U32 i, U32 position, U64 version, U16 action = 0) {
  EntryConfig e(keyOf(key), OpId(version << 16 | action), key + 1, layout.group(i), layout.prio(i));
  e.tableIndexIs(TableKey(0), position);
  for (unsigned word = 0; word < 4; ++word) e.dataIs(Vantrel::DataKey(word), i + word);
  return e;
}

inline std::vector<U32> ascending(U32 n) {
  std::vector<U32> order(n);
  std::iota(order.begin(), order.end(), 0U);
  return order;
}
inline std::vector<U32> shuffled(U32 n, U32 seed = 1) {
  std::vector<U32> order = ascending(n);
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  return order;
}

}  // namespace Bench
