// SPDX-License-Identifier: Apache-2.0
// SlotSet: a set of small numbers, a list while it is small and a row of bits when it is not.
//
// Invariants: a number is in it once.
// Cost: a change of the list looks through it; the list ends at `listed` numbers, or at a 32nd of the
//   greatest, where a row of bits takes no more room. Adding the set to a row of bits costs its list or its
//   words.
#pragma once

#include <bit>
#include <vector>

#include "pallo/types.h"

namespace Planning {

using Bits = std::vector<U64>;

// Calls visit(number) for each bit that is set, ascending.
template <class Visit>
void eachBit(Bits const& bits, Visit visit) {
  for (std::size_t i = 0; i < bits.size(); ++i)
    for (U64 word = bits[i]; word != 0; word &= word - 1)
      visit(static_cast<U32>(i * 64 + static_cast<unsigned>(std::countr_zero(word))));
}

class SlotSet {
 public:
  void add(U32 slot);
  void remove(U32 slot);
  // Sets the bits of all members; `bits` must have room for them.
  void addTo(Bits& bits) const;
  template <class Visit>
  void each(Visit visit) const {
    for (U32 const slot : list_) visit(slot);
    eachBit(bits_, visit);
  }
  bool empty() const { return count_ == 0; }
  U32 size() const { return count_; }

 private:
  static constexpr U32 listed = 64;
  void spread();

  U32 count_ = 0;
  std::vector<U32> list_;  // as long as there are no bits
  Bits bits_;
};

}  // namespace Planning
