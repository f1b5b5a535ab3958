// SPDX-License-Identifier: Apache-2.0
// The name of the hash map that large collections are. Whoever looks into one includes ostra/piecewise_map.h.
#pragma once

#include <string_view>  // std::hash

namespace Ostra {

template <class K, class V, class Hash = std::hash<K>>
class PiecewiseMap;

}  // namespace Ostra
