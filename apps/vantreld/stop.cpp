// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/stop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>

namespace Vantreld {
namespace {

std::atomic<int> event = -1;
std::atomic<bool> stopAsked = false;
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

// Writes without a Log, which the signal may have interrupted.
void sayAtOnce(std::string_view line) {
  pollfd waiting{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&waiting, 1, 0) == 1)
    static_cast<void>(::write(STDERR_FILENO, line.data(), line.size()) ==
                      0);  // a failure cannot be reported any more
}

[[noreturn]] void endNow() {
  sayAtOnce("vantreld: ended by a second signal: what is in hardware stays there, and so do the statuses\n");
  ::_exit(StopSignals::endedStatus);
}

// Calls only what is async-signal-safe.
void onStopSignal(int) {
  int const error = errno;
  if (stopAsked.exchange(true)) endNow();
  eventfd_t const one = 1;
  static_cast<void>(::write(event, &one, sizeof one) == 0);
  errno = error;
}

void handlerIs(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  for (int const number : {SIGTERM, SIGINT})
    if (::sigaction(number, &action, nullptr) != 0)
      throw std::system_error(errno, std::generic_category(), "sigaction");
}

}  // namespace

StopSignals::StopSignals() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
  event = event_.get();
  handlerIs(&onStopSignal);
}

StopSignals::~StopSignals() {
  handlerIs(SIG_IGN);
  event = -1;
}

bool StopSignals::asked() const { return stopAsked; }

}  // namespace Vantreld
