// SPDX-License-Identifier: Apache-2.0
// Mapping: which positions and groups an engine accepts, as the producer must know it.
//
//   fast, shift s:              position < 2^s, group < 2^(32-s); every group may use every position
//   algorithmic, m partitions:  position = offset * m + group, group < m, offset <= 0xFFFF
//
// Invariants: a position that violation() passes never makes the engine with the same parameters stop.
// Cost: a value; two shifts or one division a check.
#pragma once

#include <optional>
#include <string>

#include "pallo/types.h"

namespace Vantrel {

class VANTREL_API Mapping {
 public:
  static constexpr U32 defaultShift = 19;
  static constexpr U32 mostShift = 32;      // bits of a precedence index
  static constexpr U32 offsets = 1U << 16;  // positions of one partition

  // `prioGrpShift` of at most `mostShift`, else std::invalid_argument.
  static Mapping fast(U32 prioGrpShift = defaultShift);
  // `maxPartitions` from 1 to 65536, else std::invalid_argument.
  static Mapping algorithmic(U32 maxPartitions);

  // What is wrong with the position or the group, if anything.
  std::optional<std::string> violation(U16 pg, U32 ti) const;

  bool isAlgorithmic() const { return partitions_ != 0; }
  // The number of groups that positions interleave: 1 for a fast engine, whose groups share all positions.
  U32 interleave() const { return isAlgorithmic() ? partitions_ : 1; }
  // The position of an offset within a group, and back.
  U32 position(U16 pg, U32 offset) const { return offset * interleave() + (isAlgorithmic() ? pg : 0); }
  U32 offset(U32 ti) const { return ti / interleave(); }
  // How many of the positions 0 to size-1 a group can use.
  U32 capacity(U16 pg, U32 size) const;
  // One past the greatest position that any group can use.
  U64 positions() const;

 private:
  Mapping(U32 shift, U32 partitions) : shift_(shift), partitions_(partitions) {}
  U32 shift_;
  U32 partitions_;  // 0: a fast engine
};

}  // namespace Vantrel
