// SPDX-License-Identifier: Apache-2.0
// Places: who lies where in a window of positions, and the nearest free or taken place on either side.
//
// Invariants: of the two rows of bits exactly one has each place's bit.
// Cost: a look-up of the nearest scans 64 places a step.
#pragma once

#include <vector>

#include "pallo/types.h"

namespace Planning {

class Places {
 public:
  static constexpr U32 nobody = 0xFFFFFFFF;
  static constexpr U32 none = 0xFFFFFFFF;

  explicit Places(U32 size);
  U32 size() const { return static_cast<U32>(slots_.size()); }
  U32 free() const { return free_; }
  U32 at(U32 place) const { return slots_[place]; }
  void take(U32 place, U32 slot);
  void leave(U32 place);

  // The nearest at or after, or at or before, a place; `none` when there is none. `place` may be size() for
  // the former, and `none`, which is before the first, for the latter.
  U32 freeFrom(U32 place) const { return from(freeBits_, place); }
  U32 freeUpTo(U32 place) const { return upTo(freeBits_, place); }
  U32 takenFrom(U32 place) const { return from(takenBits_, place); }
  U32 takenUpTo(U32 place) const { return upTo(takenBits_, place); }

 private:
  static U32 from(std::vector<U64> const& bits, U32 place);
  static U32 upTo(std::vector<U64> const& bits, U32 place);

  U32 free_;
  std::vector<U32> slots_;
  std::vector<U64> freeBits_;
  std::vector<U64> takenBits_;
};

}  // namespace Planning
