// SPDX-License-Identifier: Apache-2.0
// The writer's side of waking: who watches the table, who of them sleeps, and how each is woken.
//
// A watcher that comes puts a page and a listening socket into the side directory and rings the bell. The
// writer sees the bell at its next change, connects to the socket and hands over an event descriptor. From
// then on a wake-up is one store to the watcher's page and one write to the event; and because the connection
// ends with the writer, a watcher learns of its death.
//
// Invariants: nothing is sent to a watcher whose page does not say that it sleeps. Nothing a watcher does or
//   leaves undone makes the writer wait.
// Ownership: owns the connections and events.
// Threading: the writer's.
// Cost: a change that wakes nobody costs one load for the bell and one a watcher.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "shoal/side_directory.h"

namespace Shoal {

class Wakers {
 public:
  explicit Wakers(SideDirectory const& directory);
  ~Wakers();
  Wakers(Wakers const&) = delete;
  Wakers& operator=(Wakers const&) = delete;

  // After a change was announced: wakes those who sleep.
  void wake();
  std::size_t watchers() const { return watchers_.size(); }
  U64 wakeUps() const { return wakeUps_; }

 private:
  struct Watcher;
  static constexpr std::size_t maxWatchers = 256;
  bool rescan();
  bool meet(std::string const& name);
  bool known(std::string const& name) const;
  void forgetTheGone(std::vector<std::string> const& names);
  void sweep(std::string const& name) const;

  SideDirectory const& directory_;
  std::unique_ptr<SharedPage> bell_;
  U32 heard_ = 0;
  std::vector<std::unique_ptr<Watcher>> watchers_;
  U64 wakeUps_ = 0;
};

}  // namespace Shoal
