// SPDX-License-Identifier: Apache-2.0
// Guarded windows: mapped files that others may cut short while they are read.
//
// The kernel answers a touch beyond a file's end with SIGBUS. One handler a process answers that, inside a
// guarded window, with zero pages; everywhere else it passes the signal on to the handler that was there
// before.
//
// Invariants: a touch inside a guarded window of read access never ends the process.
// Threading: windows come and go under a lock; the handler reads atomics only.
// Cost: nothing until a file is cut short. Asking the file's size before each read would cost more than the
//   read.
// Errors: FileException when there are too many windows.
#pragma once

#include "pallo/types.h"

namespace Shoal {

class GuardedWindow {
 public:
  GuardedWindow() = default;
  ~GuardedWindow() { unwatch(); }
  GuardedWindow(GuardedWindow const&) = delete;
  GuardedWindow& operator=(GuardedWindow const&) = delete;

  void watch(void* base, U64 bytes, bool writable);
  void unwatch();
  // A touch fell beyond the file's end since the last reset.
  bool hit() const;
  void reset();

 private:
  int place_ = -1;
};

}  // namespace Shoal
