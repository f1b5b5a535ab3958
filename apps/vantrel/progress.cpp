// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace VantrelCommand {

using namespace std::chrono_literals;

namespace {
constexpr U64 barWidth = 40;
}

Progress::Progress(bool quiet)
    : quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + 1s) {}
Progress::~Progress() { clear(); }

void Progress::show(std::string const& what, U64 done, U64 all, std::string const& note) {
  auto const now = Clock::now();
  if (quiet_ || now < next_) return;
  next_ = now + (terminal_ ? 100ms : 2000ms);
  draw(what, done, all, note.empty() ? note : "; " + note);
}

void Progress::draw(std::string const& what, U64 done, U64 all, std::string const& note) {
  U64 const percent = all == 0 ? 100 : done * 100 / all;
  if (!terminal_) {
    fmt::print(stderr, "{}: {} of {} ({}%){}\n", what, done, all, percent, note);
    return;
  }
  U64 const filled = std::min<U64>(percent * barWidth / 100, barWidth);
  fmt::print(stderr, "\r\x1b[K{} [{:#<{}}{: <{}}] {} of {}{}", what, "", filled, "", barWidth - filled, done,
             all, note);
  std::fflush(stderr);
  drawn_ = true;
}

void Progress::clear() {
  if (drawn_) fmt::print(stderr, "\r\x1b[K");
  drawn_ = false;
}

}  // namespace VantrelCommand
