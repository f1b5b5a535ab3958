// SPDX-License-Identifier: Apache-2.0
#include "keel/virtual_wheel.h"

#include <algorithm>

namespace Keel {

VirtualWheel::VirtualWheel(double start) : now_(start), previous_(Ostra::clockIs(this)) {}

VirtualWheel::~VirtualWheel() { Ostra::clockIs(previous_); }

void VirtualWheel::advance(double seconds) {
  double const end = now_ + seconds;
  for (auto next = earliest(); next && *next <= end; next = earliest()) {
    now_ = std::max(now_, *next);
    deliver(now_);
  }
  now_ = end;
}

}  // namespace Keel
