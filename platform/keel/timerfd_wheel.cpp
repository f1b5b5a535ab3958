// SPDX-License-Identifier: Apache-2.0
#include "keel/timerfd_wheel.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>

#include "ostra/clock.h"

namespace Keel {

TimerfdWheel::TimerfdWheel() : fd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
}

TimerfdWheel::~TimerfdWheel() { close(fd_); }

void TimerfdWheel::dispatch() {
  U64 expirations;
  if (read(fd_, &expirations, sizeof expirations) < 0 && errno != EAGAIN)
    throw std::system_error(errno, std::generic_category(), "reading the timer");
  deliver(Ostra::now());
}

void TimerfdWheel::earliestChanged() const {
  itimerspec when{};
  if (auto const time = earliest()) {
    // A time that is past fires at once; zero would switch the timer off. One that no clock reaches is cut.
    double const seconds = std::clamp(*time, 1e-9, 1e15);
    when.it_value.tv_sec = static_cast<time_t>(std::floor(seconds));
    when.it_value.tv_nsec =
        std::clamp(static_cast<long>(std::ceil((seconds - std::floor(seconds)) * 1e9)), 1L, 999'999'999L);
  }
  timerfd_settime(fd_, TFD_TIMER_ABSTIME, &when, nullptr);
}

}  // namespace Keel
