// SPDX-License-Identifier: Apache-2.0
// The wheel of tests and replays: time stands still until it is advanced, and wake-ups fire on the way.
//
// Invariants: while it lives it is the framework's clock; a wake-up is delivered at exactly its time.
// Ownership: puts the clock back that was there before it; of several wheels, whichever goes first.
// Threading: whoever advances it.
// Cost: nothing passes by itself.
#pragma once

#include "keel/timer_wheel.h"
#include "ostra/clock.h"

namespace Keel {

class VANTREL_API VirtualWheel : public TimerWheel, public Ostra::Clock {
 public:
  explicit VirtualWheel(double start = 0.0);
  ~VirtualWheel() override;

  double now() const override { return now_; }
  // Moves the clock by `seconds`, stopping at each wake-up on the way to deliver it.
  void advance(double seconds);

 private:
  double now_;
  Ostra::Clock const* previous_;
};

}  // namespace Keel
