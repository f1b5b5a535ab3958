// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "ostra/clock.h"

namespace Vantreld {
namespace {

// A pipe that is ready takes that much without blocking.
constexpr std::size_t mostBytes = PIPE_BUF;

bool isReady(int fd) {
  pollfd waiting{fd, POLLOUT, 0};
  return ::poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLOUT) != 0;
}

// Opens a pipe, terminal or device anew: O_NONBLOCK on the inherited description would reach the other
// processes that write there. A regular file has its position in the description, a socket cannot be opened.
Pallo::Descriptor openedAnew(int fd) {
  struct stat file {};
  if (::fstat(fd, &file) != 0 || S_ISREG(file.st_mode) || S_ISSOCK(file.st_mode)) return {};
  std::string const path = fmt::format("/proc/self/fd/{}", fd);
  return Pallo::Descriptor(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// JOURNAL_STREAM names the file that is the journal's, by device and inode.
bool journalReads(int fd) {
  char const* const journal = std::getenv("JOURNAL_STREAM");
  struct stat file {};
  return journal && ::fstat(fd, &file) == 0 && fmt::format("{}:{}", file.st_dev, file.st_ino) == journal;
}

}  // namespace

Log::Log(int fd, int priority)
    : fd_(fd), prefix_(journalReads(fd) ? fmt::format("<{}>", priority) : ""), own_(openedAnew(fd)) {}

ssize_t Log::sent(std::string const& line) const {
  if (own_) return ::write(own_.get(), line.data(), line.size());
  ssize_t const sent = ::send(fd_, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  return isReady(fd_) ? ::write(fd_, line.data(), line.size()) : -1;
}

bool Log::put(std::string const& text) {
  std::string line = (midLine_ ? "\n" : "") + prefix_ + "vantreld: " + text;
  line.resize(std::min(line.size(), mostBytes - 1));
  line += '\n';
  ssize_t const written = sent(line);
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
