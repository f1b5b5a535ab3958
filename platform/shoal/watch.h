// SPDX-License-Identifier: Apache-2.0
// Watch: a descriptor to poll, which becomes readable when there may be something new about a table at a
// path: a change in it, another file, another writer.
//
// Three sources, the later ones for what the earlier ones cannot tell: the slot's FIFO, for changes and for
// a writer's end; inotify on the table's directory, for a file that appears, replaces the table or was
// written over, and for the end of a writer that had not met this watcher; and a look once a second, for all
// else: a wake-up that somebody stole, a process without a descriptor to spare.
//
// Invariants: asleepIs(true) before the last look at the table: then whoever changes it afterwards wakes this
//   watcher. Whatever happens, it wakes once a second.
// Ownership: owns its descriptors and its slot.
// Threading: one thread.
// Cost: awake, the writer sends nothing.
// Errors: FileException at construction when the process has no descriptors for it.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "pallo/descriptor.h"
#include "pallo/events.h"
#include "pallo/poller.h"
#include "shoal/presence.h"

namespace Shoal {

class Watch {
 public:
  explicit Watch(std::string const& tablePath);

  int fd() const { return poller_.fd(); }
  void asleepIs(bool asleep);
  // Makes the descriptor readable at once, or in a tenth of a second.
  void lookAgain() { timer_.startIs(atOnce, period); }
  void lookAgainSoon() { timer_.startIs(soon, period); }

  struct News {
    bool fileMayBeAnother = false;
    bool writerMayHaveEnded = false;
    std::string problem;  // why changes are told late from now on; said once
  };
  // Takes what made the descriptor readable. `table` is the table's file, -1 when there is none.
  News drain(int table);

 private:
  static constexpr double atOnce = 2e-9;  // seconds; zero would stop the timer
  static constexpr double soon = 0.1;
  static constexpr double period = 1;
  void watchDirectory();
  void unwatchDirectory();
  void readDirectoryNews(News& news);
  void registerAnew(int table, News& news);

  std::string const tablePath_;
  std::string const fileName_;
  Pallo::Poller poller_;
  Pallo::Timer timer_;
  Pallo::Descriptor directoryNews_;
  std::pair<U64, U64> directoryWatched_;  // device and inode: the path may lead to another by now
  std::optional<Registration> registration_;
  std::string problem_;
};

}  // namespace Shoal
