// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/slot_set.h"

#include <algorithm>

namespace Planning {

void SlotSet::add(U32 slot) {
  ++count_;
  if (bits_.empty()) {
    list_.push_back(slot);
    if (list_.size() > listed && list_.size() > *std::ranges::max_element(list_) / 32) spread();
    return;
  }
  if (slot / 64 >= bits_.size()) bits_.resize(std::max<std::size_t>(slot / 64 + 1, bits_.size() * 5 / 4));
  bits_[slot / 64] |= U64{1} << slot % 64;
}

void SlotSet::spread() {
  bits_.resize(*std::ranges::max_element(list_) / 64 + 1);
  for (U32 const slot : list_) bits_[slot / 64] |= U64{1} << slot % 64;
  list_ = {};
}

void SlotSet::remove(U32 slot) {
  --count_;
  if (bits_.empty()) {
    auto const at = std::ranges::find(list_, slot);
    *at = list_.back();
    list_.pop_back();
    return;
  }
  bits_[slot / 64] &= ~(U64{1} << slot % 64);
  if (count_ == 0) bits_ = {};
}

void SlotSet::addTo(Bits& bits) const {
  for (U32 const slot : list_) bits[slot / 64] |= U64{1} << slot % 64;
  for (std::size_t i = 0; i < bits_.size() && i < bits.size(); ++i) bits[i] |= bits_[i];
}

}  // namespace Planning
