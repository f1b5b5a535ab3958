// SPDX-License-Identifier: Apache-2.0
// Mapping: a priority group and a position become one 32-bit precedence index, whose numeric order is the
// hardware's precedence order inside a group; and which positions and groups that leaves room for.
//
//   TCAM, shift s:              pti = [ group | position : s ]           position < 2^s, group < 2^(32-s);
//                                                                        every group may use every position
//   algorithmic, m partitions:  position = offset * m + partition
//                               pti = [ partition | offset : s ]         partition = group, offset <= 0xFFFF
//
// Invariants: a position that violation() accepts fails no assertion of an engine with the same parameters.
//   For such a position lti(pti(position)) is the position.
// Cost: a value; two shifts or one division a call.
// Errors: std::invalid_argument for a shift or a number of partitions that no engine has.
#pragma once

#include <optional>
#include <string>

#include "pallo/types.h"

namespace Vantrel {

// Shifts of 32 and more are well-defined on 64 bits; results are cut to 32.
struct TcamMapping {
  static constexpr U32 defaultShift = 19;

  U32 shift = defaultShift;

  constexpr bool hasPosition(U32 ti) const { return right(ti, shift) == 0; }
  constexpr bool hasGroup(U16 pg) const { return right(pg, 32 - shift) == 0; }
  constexpr U32 pti(U16 pg, U32 ti) const { return static_cast<U32>(left(pg, shift)) | ti; }
  constexpr U32 lti(U32 pti) const { return pti & lowMask(shift); }

  static constexpr U64 left(U64 value, U32 by) { return by < 64 ? value << by : 0; }
  static constexpr U64 right(U64 value, U32 by) { return by < 64 ? value >> by : 0; }
  static constexpr U32 lowMask(U32 bits) { return static_cast<U32>(left(1, bits) - 1); }
};

// `partitions` must not be zero: every call divides by it.
struct AlgorithmicMapping {
  static constexpr U32 defaultShift = 16;
  static constexpr U32 offsets = 1U << 16;  // positions of one partition

  U32 partitions;
  U32 shift = defaultShift;

  constexpr U32 offset(U32 ti) const { return ti / partitions; }
  constexpr U32 partition(U32 ti) const { return ti % partitions; }
  constexpr U32 position(U32 partition, U32 offset) const { return offset * partitions + partition; }
  constexpr bool hasOffset(U32 ti) const { return offset(ti) < offsets; }
  constexpr U32 pti(U32 ti) const {
    return offset(ti) | static_cast<U32>(TcamMapping::left(partition(ti), shift));
  }
  constexpr U32 lti(U32 pti) const {
    return position(static_cast<U32>(TcamMapping::right(pti, shift)), pti & TcamMapping::lowMask(shift));
  }
};

// Either of the two. A producer uses it to check positions before it writes them.
class VANTREL_API Mapping {
 public:
  static constexpr U32 defaultShift = TcamMapping::defaultShift;
  static constexpr U32 mostShift = 32;  // bits of a precedence index

  // `prioGrpShift` of at most `mostShift`, else std::invalid_argument.
  static Mapping fast(U32 prioGrpShift = defaultShift);
  // `maxPartitions` from 1 to 65536, else std::invalid_argument.
  static Mapping algorithmic(U32 maxPartitions);

  // What is wrong with the position or the group, if anything.
  std::optional<std::string> violation(U16 pg, U32 ti) const;

  bool isAlgorithmic() const { return algorithmic_.partitions != 0; }
  // The number of groups that positions interleave: 1 for a fast engine, whose groups share all positions.
  U32 interleave() const { return isAlgorithmic() ? algorithmic_.partitions : 1; }
  // The position of an offset within a group, and back.
  U32 position(U16 pg, U32 offset) const {
    return isAlgorithmic() ? algorithmic_.position(pg, offset) : offset;
  }
  U32 offset(U32 ti) const { return ti / interleave(); }
  // How many of the positions 0 to size-1 a group can use.
  U32 capacity(U16 pg, U32 size) const;
  // One past the greatest position that any group can use.
  U64 positions() const;

 private:
  Mapping(U32 shift, U32 partitions) : tcam_{shift}, algorithmic_{partitions} {}
  TcamMapping tcam_;
  AlgorithmicMapping algorithmic_;  // without partitions: tcam_ is in use
};

}  // namespace Vantrel
