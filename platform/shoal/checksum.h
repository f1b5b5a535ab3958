// SPDX-License-Identifier: Apache-2.0
// The checksum of a slot: the two running sums of Fletcher's, over 64-bit words in four columns, and at the
// end one number of the eight.
//
//   row 0   checksum   state     key       image 0     the checksum counts as `start`
//   row 1   image 1    image 2   image 3   image 4
//   ...
//
// A word w is added as w ^ w >> 32 to its column's first sum, and that to the second, which so gives each row
// a weight of its own: 3 the last one, 5 the one before it, and so on. A column has its weight from the
// number that is made of them at the end. All weights are odd, so that no damage to one word goes unseen,
// whatever it is; and without the fold two highest bits would cancel each other.
//
// Invariants: any damage inside one word, and any two damaged bits wherever they are, change it. All zeroes
//   do not have the checksum zero.
// Cost: additions only while the words pass by, four columns at once where the processor has vectors; no
//   step needs a load that the copy does not need anyway.
#pragma once

#include <array>

#include "pallo/types.h"

namespace Shoal::Checksum {

inline constexpr unsigned columns = 4;
// Columns 2 and 3 weigh 1 + 2^17 times what 0 and 1 do, and then the odd ones 1 + 2^29 times.
inline constexpr int upperShift = 17;
inline constexpr int oddShift = 29;
inline constexpr U64 start = 0x5348'4F41'4C21;

struct Sums {
  std::array<U64, columns> first{};
  std::array<U64, columns> second{};  // sums of the first sums
};

constexpr U64 fold(U64 word) { return word ^ word >> 32; }

constexpr void addRow(Sums& sums, U64 const* row) {
  for (unsigned c = 0; c < columns; ++c) sums.second[c] += sums.first[c] += fold(row[c]);
}

constexpr U64 value(Sums const& sums) {
  auto const column = [&sums](unsigned c) { return sums.first[c] + 2 * sums.second[c]; };
  auto const two = [column](unsigned c) { return column(c) + column(c + 2) + (column(c + 2) << upperShift); };
  return two(0) + two(1) + (two(1) << oddShift);
}

// Of the slot's first rows.
constexpr U64 of(U64 const* slot, U64 rows) {
  Sums sums;
  std::array const head{start, slot[1], slot[2], slot[3]};
  addRow(sums, head.data());
  for (U64 i = 1; i < rows; ++i) addRow(sums, slot + i * columns);
  return value(sums);
}

}  // namespace Shoal::Checksum
