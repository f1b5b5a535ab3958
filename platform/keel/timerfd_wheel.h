// SPDX-License-Identifier: Apache-2.0
// The wheel on the kernel's clock: a file descriptor to poll and a dispatch() to call when it is readable.
//
// Invariants: fd() is readable exactly while a wake-up is due, even one whose asker has left; at rest it
//   stays silent.
// Ownership: closes its descriptor; a loop stops polling it before the last reference goes.
// Threading: the loop that polls fd(). The wheel owns no thread.
// Cost: one timerfd_settime when the earliest wake-up changes.
// Errors: std::system_error when the kernel gives no timer.
#pragma once

#include "keel/timer_wheel.h"

namespace Keel {

class VANTREL_API TimerfdWheel : public TimerWheel {
 public:
  TimerfdWheel();
  ~TimerfdWheel() override;

  int fd() const { return fd_; }
  // Delivers what is due.
  void dispatch();

 protected:
  void earliestChanged() const override;

 private:
  int fd_;
};

}  // namespace Keel
