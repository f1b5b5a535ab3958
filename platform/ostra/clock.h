// SPDX-License-Identifier: Apache-2.0
// The framework's current time: seconds as double, monotonic, from one clock that a test or a replay can own.
//
// Invariants: the system's clock never goes back; an installed one is believed whatever it says.
// Ownership: whoever installs a clock keeps it, and puts the old one back before it goes.
// Threading: installed and read on the agent's thread.
// Cost: one virtual call, or one clock_gettime without a system call.
#pragma once

#include "pallo/types.h"

namespace Ostra {

class VANTREL_API Clock {
 public:
  virtual ~Clock() = default;
  virtual double now() const = 0;
};

// Seconds on the current clock: CLOCK_MONOTONIC unless another clock was installed.
VANTREL_API double now();

// Installs a clock (null: the system's) and returns the one it replaces, null for the system's.
VANTREL_API Clock const* clockIs(Clock const* clock);

}  // namespace Ostra
