// SPDX-License-Identifier: Apache-2.0
// GuardedWindow: a mapped file that another process may truncate while it is used.
//
// The kernel answers an access beyond a file's end with SIGBUS. One handler a process maps zero pages there,
// inside a guarded window, and the access goes on; everywhere else it calls the handler that was installed
// before it.
//
// Invariants: an access inside a guarded window never ends the process. After a hit, the pages concerned
//   belong to this process alone: what is written there reaches no file. The owner asks hit(), maps the file
//   again and calls reset().
// Ownership: of the registration, not of the mapping.
// Threading: windows come and go under a lock; the handler reads atomics only. A SIGBUS handler that is
//   installed later must call the one it replaces.
// Cost: nothing until a file is truncated. Comparing the file's size before each access would cost more than
//   the access.
// Errors: Exception when 4096 windows are guarded already.
#pragma once

#include "pallo/types.h"

namespace Pallo {

class GuardedWindow {
 public:
  GuardedWindow() = default;
  ~GuardedWindow() { unwatch(); }
  GuardedWindow(GuardedWindow const&) = delete;
  GuardedWindow& operator=(GuardedWindow const&) = delete;

  // A hit also sets `alarm`, when given, to 0: for an owner who looks at that word anyway.
  void watch(void* base, U64 bytes, bool writable, U64* alarm = nullptr);
  void unwatch();
  // An access fell beyond the file's end since the last reset.
  bool hit() const;
  void reset();

 private:
  int place_ = -1;
};

}  // namespace Pallo
