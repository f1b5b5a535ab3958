// SPDX-License-Identifier: Apache-2.0
// TimeSlice: how long a piece of work may go on before others have their turn.
//
//   TimeSlice slice(0.002);
//   while (more() && !slice.over()) work();
//
// Invariants: the work that is under way when the time is up is finished, and at most fifteen more short ones
//   follow.
// Threading: one thread.
// Cost: the clock is read after each piece while pieces are long, after every 16 while they are short.
#pragma once

#include "ostra/clock.h"

namespace Ostra {

class TimeSlice {
 public:
  explicit TimeSlice(double seconds) : end_(now() + seconds), looked_(end_ - seconds), seconds_(seconds) {}

  // To be asked after each piece of work.
  bool over() {
    if (--left_ > 0) return false;
    double const time = now();
    bool const quick = (time - looked_) * 32 < seconds_;
    stride_ = quick ? (stride_ < 16 ? stride_ * 2 : 16) : 1;
    left_ = stride_;
    looked_ = time;
    return time >= end_;
  }

 private:
  double end_;
  double looked_;  // when the clock was read last
  double seconds_;
  int stride_ = 1;
  int left_ = 1;
};

}  // namespace Ostra
