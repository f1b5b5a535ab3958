// SPDX-License-Identifier: Apache-2.0
// How often memory was asked for, Judy's own requests apart. The program's malloc and JudyMalloc stand before
// the libraries'; operator new calls malloc and is counted there.
//
// Threading: one thread.
// Cost: one increment a request.
#pragma once

#include "pallo/types.h"

namespace Bench {

struct Allocations {
  U64 all = 0;   // calls of malloc, calloc, realloc and the aligned ones
  U64 judy = 0;  // of these, Judy's
  friend Allocations operator-(Allocations a, Allocations b) { return {a.all - b.all, a.judy - b.judy}; }
};
Allocations allocations();

// Bytes of heap in use, what the allocator adds to each block included.
U64 bytesInUse();

}  // namespace Bench
