// SPDX-License-Identifier: Apache-2.0
// The longest non-decreasing subsequence, by patience sorting.
//
// Cost: n log n.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Planning {

// The indexes of one longest non-decreasing subsequence of `values`, ascending.
template <class T>
std::vector<std::size_t> longestNonDecreasing(std::vector<T> const& values) {
  constexpr std::size_t none = ~std::size_t{0};
  std::vector<std::size_t> tails;  // tails[l]: where the best chain of length l + 1 ends
  std::vector<std::size_t> before(values.size(), none);
  for (std::size_t i = 0; i < values.size(); ++i) {
    auto const at = std::upper_bound(tails.begin(), tails.end(), values[i],
                                     [&](T const& value, std::size_t tail) { return value < values[tail]; });
    if (at != tails.begin()) before[i] = *(at - 1);
    if (at == tails.end())
      tails.push_back(i);
    else
      *at = i;
  }
  std::vector<std::size_t> chain(tails.size());
  std::size_t at = tails.empty() ? none : tails.back();
  for (std::size_t l = chain.size(); l-- > 0; at = before[at]) chain[l] = at;
  return chain;
}

}  // namespace Planning
