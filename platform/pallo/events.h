// SPDX-License-Identifier: Apache-2.0
// Doorbell and Timer: descriptors by which a service wakes itself, for its Poller to watch.
//
// Ownership: of the descriptor.
// Threading: one thread.
// Cost: one system call where something changes, else none.
// Errors: std::system_error when the kernel gives no descriptor.
#pragma once

#include "pallo/descriptor.h"
#include "pallo/types.h"

namespace Pallo {

// Readable while it rings.
class Doorbell {
 public:
  Doorbell();
  int fd() const { return fd_.get(); }
  void ringsIs(bool rings);

 private:
  Descriptor fd_;
  bool rings_ = false;
};

// Readable from the moment it runs out until runsOut() is called.
class Timer {
 public:
  Timer();
  int fd() const { return fd_.get(); }
  // Seconds from now, and then every `period` seconds unless that is zero. `first` zero: never.
  void startIs(double first, double period = 0);
  // False when it has not run out since.
  bool runsOut();

 private:
  Descriptor fd_;
};

}  // namespace Pallo
