// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/places.h"

#include <bit>

namespace Planning {

Places::Places(U32 size)
    : free_(size), slots_(size, nobody), freeBits_((size + 63) / 64), takenBits_((size + 63) / 64) {
  for (U32 place = 0; place < size; ++place) freeBits_[place / 64] |= U64{1} << place % 64;
}

void Places::take(U32 place, U32 slot) {
  slots_[place] = slot;
  freeBits_[place / 64] &= ~(U64{1} << place % 64);
  takenBits_[place / 64] |= U64{1} << place % 64;
  --free_;
}

void Places::leave(U32 place) {
  slots_[place] = nobody;
  takenBits_[place / 64] &= ~(U64{1} << place % 64);
  freeBits_[place / 64] |= U64{1} << place % 64;
  ++free_;
}

U32 Places::from(std::vector<U64> const& bits, U32 place) {
  std::size_t i = place / 64;
  if (i >= bits.size()) return none;
  U64 word = bits[i] & ~U64{0} << place % 64;
  while (word == 0)
    if (++i == bits.size())
      return none;
    else
      word = bits[i];
  return static_cast<U32>(i * 64 + static_cast<unsigned>(std::countr_zero(word)));
}

U32 Places::upTo(std::vector<U64> const& bits, U32 place) {
  if (place == none) return none;
  std::size_t i = place / 64;
  U64 word = bits[i] & ~U64{0} >> (63 - place % 64);
  while (word == 0)
    if (i-- == 0)
      return none;
    else
      word = bits[i];
  return static_cast<U32>(i * 64 + 63 - static_cast<unsigned>(std::countl_zero(word)));
}

}  // namespace Planning
