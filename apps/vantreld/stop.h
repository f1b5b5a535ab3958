// SPDX-License-Identifier: Apache-2.0
// StopSignals: SIGTERM and SIGINT. The first one asks the agent to stop; the second one ends the process at
// once.
//
// Invariants: one object a process.
// Ownership: owns its descriptor. The signals are ignored once the object is gone.
// Threading: one thread; the handlers interrupt it.
// Errors: std::system_error.
#pragma once

#include <stdexcept>

#include "pallo/descriptor.h"

namespace Vantreld {

// Thrown by betweenKeys() to end a walk or a drain when the agent was asked to stop.
class Stop : public std::runtime_error {
 public:
  Stop() : std::runtime_error("the agent was asked to stop") {}
};

class StopSignals {
 public:
  // The process's exit status after the second signal.
  static constexpr int endedStatus = 3;

  StopSignals();
  ~StopSignals();
  StopSignals(StopSignals const&) = delete;
  StopSignals& operator=(StopSignals const&) = delete;

  // Readable from the first signal on.
  int fd() const { return event_.get(); }
  bool asked() const;

 private:
  Pallo::Descriptor const event_;
};

}  // namespace Vantreld
