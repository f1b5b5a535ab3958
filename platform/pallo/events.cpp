// SPDX-License-Identifier: Apache-2.0
#include "pallo/events.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <system_error>

namespace Pallo {
namespace {

timespec timeOf(double seconds) {
  double whole = 0;
  double const fraction = std::modf(seconds, &whole);
  return {static_cast<time_t>(whole), static_cast<long>(fraction * 1e9)};
}

}  // namespace

Doorbell::Doorbell() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Doorbell::ringsIs(bool rings) {
  if (std::exchange(rings_, rings) == rings) return;
  eventfd_t count = 0;
  rings ? ::eventfd_write(fd(), 1) : ::eventfd_read(fd(), &count);
}

Timer::Timer() : fd_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (!fd_) throw std::system_error(errno, std::generic_category(), "timerfd_create");
}

void Timer::startIs(double first, double period) {
  itimerspec const time{timeOf(period), timeOf(first)};
  ::timerfd_settime(fd(), 0, &time, nullptr);
}

bool Timer::runsOut() {
  U64 count = 0;
  return ::read(fd(), &count, sizeof count) > 0;
}

}  // namespace Pallo
