// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/layout.h"

#include "pallo/assert.h"
#include "producer/planner/longest.h"

namespace Acl {
namespace {

// The ranks of the entries that stay.
std::vector<std::size_t> staying(std::vector<std::optional<U32>> const& places, U32 capacity) {
  std::vector<U64> slack;  // p - i of those that could stay
  std::vector<std::size_t> ranks;
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (!places[i] || *places[i] < i || *places[i] - i > capacity - places.size()) continue;
    slack.push_back(*places[i] - i);
    ranks.push_back(i);
  }
  std::vector<std::size_t> chain = Planning::longestNonDecreasing(slack);
  for (std::size_t& member : chain) member = ranks[member];
  return chain;
}

// Spreads the entries from `rank` on over the places from `begin` up to, without, `end`.
void spread(std::vector<U32>& result, std::size_t rank, std::size_t count, U64 begin, U64 end) {
  for (std::size_t j = 0; j < count; ++j)
    result[rank + j] = static_cast<U32>(begin + (j + 1) * (end - begin + 1) / (count + 1) - 1);
}

}  // namespace

std::vector<U32> layOut(std::vector<std::optional<U32>> const& places, U32 capacity) {
  PALLO_ASSERT("Loader", places.size() <= capacity);
  std::vector<U32> result(places.size());
  std::size_t rank = 0;
  U64 begin = 0;
  for (std::size_t const stays : staying(places, capacity)) {
    spread(result, rank, stays - rank, begin, *places[stays]);
    result[stays] = *places[stays];
    rank = stays + 1;
    begin = U64{result[stays]} + 1;
  }
  spread(result, rank, places.size() - rank, begin, capacity);
  return result;
}

}  // namespace Acl
