// SPDX-License-Identifier: Apache-2.0
// The checksum of a slot: the two running sums of Fletcher's, over 64-bit words in two columns, and at the
// end one number of the four.
//
//   place     0         1        2        3     ...
//   word   checksum   state     key    image 0  ...   the checksum counts as zero
//   column   left     right    left     right
//
// A word w is added as w ^ w >> 32 to its column's first sum, and that to the second, which so gives each
// place a weight of its own. The four multipliers make every weight odd, so that no damage to one word goes
// unseen, whatever it is; and without the fold two highest bits would cancel each other.
//
// Invariants: any damage inside one word, and any two damaged bits wherever they are, change it. All zeroes
//   do not have the checksum zero.
// Cost: additions only while the words pass by; no step needs a load that the copy does not need anyway.
#pragma once

#include "pallo/types.h"

namespace Shoal::Checksum {

struct Sums {
  U64 left = 0;  // first sums
  U64 right = 0;
  U64 leftSums = 0;  // sums of the first sums
  U64 rightSums = 0;
};

constexpr U64 fold(U64 word) { return word ^ word >> 32; }

constexpr void add(Sums& sums, U64 left, U64 right) {
  sums.leftSums += sums.left += fold(left);
  sums.rightSums += sums.right += fold(right);
}

constexpr U64 value(Sums const& sums) {
  return 0x5348'4F41'4C21 + sums.left * 0x9E3779B97F4A7C15U + sums.right * 0xC2B2AE3D27D4EB4FU +
         sums.leftSums * (2 * 0x2545F4914F6CDD1DU) + sums.rightSums * (2 * 0x165667B19E3779F9U);
}

// Of the slot's first `pairs` times two words.
constexpr U64 of(U64 const* slot, U64 pairs) {
  Sums sums;
  add(sums, 0, slot[1]);
  for (U64 i = 1; i < pairs; ++i) add(sums, slot[2 * i], slot[2 * i + 1]);
  return value(sums);
}

}  // namespace Shoal::Checksum
