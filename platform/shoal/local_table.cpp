// SPDX-License-Identifier: Apache-2.0
#include "shoal/local_table.h"

#include <boost/unordered/unordered_flat_map.hpp>

namespace Shoal {

struct KeyIndex::Map : boost::unordered_flat_map<U64, U32> {};

KeyIndex::KeyIndex() : map_(std::make_unique<Map>()) {}
KeyIndex::~KeyIndex() = default;

std::optional<U32> KeyIndex::find(U64 key) const {
  auto const at = map_->find(key);
  if (at == map_->end()) return std::nullopt;
  return at->second;
}
void KeyIndex::insert(U64 key, U32 slot) { map_->emplace(key, slot); }
void KeyIndex::erase(U64 key) { map_->erase(key); }
U64 KeyIndex::size() const { return map_->size(); }

}  // namespace Shoal
