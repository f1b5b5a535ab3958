// SPDX-License-Identifier: Apache-2.0
#include "keel/virtual_wheel.h"

#include <algorithm>
#include <vector>

namespace Keel {

namespace {
std::vector<VirtualWheel*> living;  // the newest last
}

VirtualWheel::VirtualWheel(double start) : now_(start), previous_(Ostra::clockIs(this)) {
  living.push_back(this);
}

// Wheels may go in any order: the one that came after this one has another predecessor now.
VirtualWheel::~VirtualWheel() {
  std::erase(living, this);
  for (VirtualWheel* const wheel : living)
    if (wheel->previous_ == this) wheel->previous_ = previous_;
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
