// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "ostra/clock.h"

namespace Vantreld {
namespace {

// A pipe that is ready takes that much without blocking.
constexpr std::size_t mostBytes = PIPE_BUF;

bool isReady(int fd) {
  pollfd waiting{fd, POLLOUT, 0};
  return ::poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLOUT) != 0;
}

}  // namespace

bool Log::put(std::string const& text) {
  std::string line = (midLine_ ? "\nvantreld: " : "vantreld: ") + text;
  line.resize(std::min(line.size(), mostBytes - 1));
  line += '\n';
  if (!isReady(fd_)) return false;
  ssize_t const written = ::write(fd_, line.data(), line.size());
  if (written > 0) midLine_ = static_cast<std::size_t>(written) < line.size();
  return written == static_cast<ssize_t>(line.size());
}

void Log::catchUp() noexcept try {
  if (lost_ != 0 && put(fmt::format("{} lines could not be written here", lost_))) lost_ = 0;
  if (held_ == 0 || lost_ != 0) return;
  refill();
  if (tokens_ >= 1 && put(fmt::format("{} more lines like these came too fast to be said", held_))) held_ = 0;
} catch (...) {  // no memory for it
}

void Log::refill() noexcept {
  double const now = Ostra::now();
  tokens_ = std::min(mostTokens, tokens_ + (now - refilled_));
  refilled_ = now;
}

bool Log::mayBeProvoked() noexcept {
  refill();
  if (tokens_ >= 1) return tokens_ -= 1, true;
  ++held_;
  return false;
}

}  // namespace Vantreld
