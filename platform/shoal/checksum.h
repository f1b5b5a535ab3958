// SPDX-License-Identifier: Apache-2.0
// The checksum of a slot, CRC-32C, word by word.
//
// The processor computes a step over a word in one instruction (SSE 4.2). Where it has no such instruction, a
// table serves.
//
// Invariants: any damage of up to five bits in 640 bytes is seen unless it hits the length, and any within 32
//   bits in a row (P. Koopman, 32-bit cyclic redundancy codes for internet applications, DSN 2002); anything
//   else with a chance of 1 - 2^-32. A slot of zeroes is damaged.
// Cost: one instruction a word.
#pragma once

#include <array>

#include "pallo/types.h"

namespace Shoal::Checksum {

inline constexpr U64 start = 0xFFFF'FFFF;

// A step by table, four bits at a time.
struct TableStep {
  static constexpr std::array<U32, 16> table = [] {
    std::array<U32, 16> t{};
    for (U32 i = 0; i < 16; ++i) {
      U32 rest = i;
      for (int bit = 0; bit < 4; ++bit) rest = rest >> 1 ^ (rest & 1 ? 0x82F6'3B78U : 0U);
      t[i] = rest;
    }
    return t;
  }();
  static constexpr U64 step(U64 crc, U64 word) {
    for (int nibble = 0; nibble < 16; ++nibble, word >>= 4) crc = crc >> 4 ^ table[(crc ^ word) & 15];
    return crc;
  }
};

struct InstructionStep {
  // Only where it is there. Assembly, so that the code around it needs no other target.
  static U64 step(U64 crc, U64 word) {
    asm("crc32q %1, %0" : "+r"(crc) : "r"(word));
    return crc;
  }
};

inline bool const hasInstruction = __builtin_cpu_supports("sse4.2");

}  // namespace Shoal::Checksum
