// SPDX-License-Identifier: Apache-2.0
#include "keel/virtual_wheel.h"

#include <algorithm>

namespace Keel {

VirtualWheel::VirtualWheel(double start) : now_(start), previous_(Ostra::clockIs(this)) {}

// Wheels may go in any order: only the current clock is replaced.
VirtualWheel::~VirtualWheel() {
  Ostra::Clock const* const current = Ostra::clockIs(previous_);
  if (current != this) Ostra::clockIs(current);
}

// Each instant is delivered once: what is asked for again at the same instant waits until the clock has
// moved.
void VirtualWheel::advance(double seconds) {
  auto const keep = Ostra::keepAlive(this);
  double const end = now_ + seconds;
  for (auto next = earliest(); next && *next <= end; next = earliestAfter(now_)) {
    now_ = std::max(now_, *next);
    deliver(now_);
  }
  now_ = end;
}

}  // namespace Keel
