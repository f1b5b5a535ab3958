// SPDX-License-Identifier: Apache-2.0
// What the tests of watching have in common: a watched table, children that must be waited for, and
// processes that have no descriptor to spare.
#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>

#include "fixture.h"
#include "pallo/descriptor.h"
#include "pallo/file_lock.h"
#include "shoal/presence.h"

namespace ShoalTest {

using Presence = Reader::Presence;

// A mounted table with its watcher.
struct Watched {
  explicit Watched(std::string const& path, Presence presence = Presence::required)
      : reader(Ostra::make<Reader>(path, presence)) {
    watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
    watcher.hasNotificationActiveIs(true);
    settle(*reader);
  }
  // Dispatches until `done`; false when that takes longer than `milliseconds`.
  bool dispatchUntil(std::function<bool()> const& done, int milliseconds) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!done()) {
      auto const left =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      if (readable(reader->fd(), static_cast<int>(left.count()))) reader->dispatch();
    }
    return true;
  }
  bool sees(U64 key, U64 version, int milliseconds) {
    return dispatchUntil([&] { return watcher.seen.contains(key) && watcher.seen[key] == version; },
                         milliseconds);
  }
  // Dispatches until its next look, which it takes once a second. There is a second until the one after that.
  void awaitLook() {
    settle(*reader, 20);
    ASSERT_TRUE(readable(reader->fd(), 1500));
    settle(*reader);
  }
  Ostra::Ptr<Reader> reader;
  Watcher watcher;
};

// How many slots of a table's watchers are taken.
inline unsigned slotsTaken(std::string const& tablePath) {
  Pallo::Descriptor const page(open((tablePath + ".watch/slots").c_str(), O_RDWR | O_CLOEXEC));
  unsigned taken = 0;
  for (unsigned slot = 0; slot < Shoal::Sidecar::slots; ++slot)
    taken += Pallo::FileLock::isHeld(page.get(), slot);
  return taken;
}

// Runs `act` in a process of its own, which ends with its parent. It exits with what `act` returns; 99: it
// threw.
inline pid_t startChild(std::function<int()> const& act) {
  std::fflush(nullptr);
  pid_t const child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int status = 99;
  try {
    status = act();
  } catch (std::exception const& error) {
    std::fprintf(stderr, "child: %s\n", error.what());
  }
  std::fflush(nullptr);
  _exit(status);
}
// Its exit status; 1000 and the signal's number when one ended it.
inline int statusOf(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}
inline void killAndWait(pid_t child) {
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

// One process says that it came to a point, another waits for it. False when nobody will say it any more.
class Baton {
 public:
  Baton() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    in_ = Pallo::Descriptor(ends[0]);
    out_ = Pallo::Descriptor(ends[1]);
  }
  bool pass() const { return write(out_.get(), "w", 1) == 1; }
  bool take(int milliseconds = 20000) const {
    char byte;
    return readable(in_.get(), milliseconds) && read(in_.get(), &byte, 1) == 1;
  }

 private:
  Pallo::Descriptor in_, out_;
};

// No more descriptors for this process than it has, and `more`, while it lives. What it has need not be the
// lowest numbers: a parent may have left it any.
class FewDescriptors {
 public:
  explicit FewDescriptors(int more) {
    getrlimit(RLIMIT_NOFILE, &before_);
    int limit = 0;
    for (int free = 0; free <= more; ++limit) free += fcntl(limit, F_GETFD) < 0;
    rlimit const few{static_cast<rlim_t>(limit - 1), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

}  // namespace ShoalTest
