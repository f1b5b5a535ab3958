// SPDX-License-Identifier: Apache-2.0
// Poller: an epoll descriptor. A service that has several descriptors shows its event loop this one.
//
// Invariants: a descriptor is watched at most once. ready() never waits.
// Ownership: of the epoll descriptor; what is watched stays its owner's, who removes it before closing it.
//   (Closing alone is not enough: while a forked child holds the descriptor too, the kernel goes on reporting
//   it.)
// Threading: one thread.
// Cost: one system call a method.
// Errors: std::system_error when the kernel gives no descriptor or watches no more.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstddef>
#include <span>

#include "pallo/descriptor.h"
#include "pallo/types.h"

namespace Pallo {

class Poller {
 public:
  struct Event {
    U64 tag;
    U32 events;  // EPOLLIN, EPOLLOUT, ...
  };
  static constexpr std::size_t atOnce = 16;
  using Events = std::array<Event, atOnce>;

  Poller();

  // Readable when something watched is ready.
  int fd() const { return epoll_.get(); }
  // `tag` comes back with the descriptor's events.
  void add(int fd, U64 tag, U32 events = EPOLLIN);
  void change(int fd, U64 tag, U32 events);
  // A descriptor that is not watched is no error.
  void remove(int fd);
  // What is ready now, in `events`.
  std::span<Event const> ready(Events& events) const;

 private:
  Descriptor epoll_;
};

}  // namespace Pallo
