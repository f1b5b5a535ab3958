// SPDX-License-Identifier: Apache-2.0
// The framework's current time: seconds as double, monotonic, from one clock that a test or a replay can own.
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

// Installs a clock (null: the system's) and returns the one it replaces, null for the system's. The caller
// keeps ownership and must put the old one back before its own goes.
VANTREL_API Clock const* clockIs(Clock const* clock);

}  // namespace Ostra
