// SPDX-License-Identifier: Apache-2.0
// Log: the agent's lines on stdout or stderr, written even when nobody reads the other end.
//
// Invariants: say() never throws, raises no signal (the process must ignore SIGPIPE) and waits for no reader.
//   A line that cannot be written now is dropped and counted, and the count is written before the next line
//   that can be. The same holds for provoked lines over the rate limit.
//   Not held where /proc cannot be used: a pipe that another process fills between poll and write blocks.
// Ownership: a second descriptor of the same pipe or terminal; the first must stay open as long as the log.
// Threading: one thread.
// Cost: one system call a line, three in a regular file.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

#include "pallo/descriptor.h"
#include "pallo/types.h"

namespace Vantreld {

class Log {
 public:
  // `priority`: that of syslog, which heads a line when the journal reads it.
  explicit Log(int fd, int priority = 6);
  Log(Log const&) = delete;
  Log& operator=(Log const&) = delete;

  template <class... Args>
  void say(fmt::format_string<Args...> format, Args&&... args) noexcept {
    write([&] { return fmt::format(format, std::forward<Args>(args)...); });
  }
  // For a line that other processes can cause as often as they like: at most ten at once, then one a second.
  template <class... Args>
  void provoked(fmt::format_string<Args...> format, Args&&... args) noexcept {
    if (mayBeProvoked()) say(format, std::forward<Args>(args)...);
  }
  // Writes the counts of lines that were dropped. Must be called from time to time.
  void catchUp() noexcept;

 private:
  static constexpr double mostTokens = 10;

  template <class Text>
  void write(Text const& text) noexcept try {
    catchUp();
    if (lost_ != 0 || !put(text())) ++lost_;
  } catch (...) {  // no memory for it
    ++lost_;
  }
  bool mayBeProvoked() noexcept;
  void refill() noexcept;
  bool put(std::string const& text);
  ssize_t sent(std::string const& line) const;

  int const fd_;
  std::string const prefix_;     // "<6>", or nothing: the journal does not read it
  Pallo::Descriptor const own_;  // does not block; none for a regular file or a socket
  U64 lost_ = 0;                 // lines that could not be written
  U64 held_ = 0;                 // lines over the rate limit
  bool midLine_ = false;         // the last line was written in part
  double tokens_ = mostTokens;   // of a token bucket: a provoked line takes one, a second adds one
  double refilled_ = 0;          // when tokens were added last, seconds
};

}  // namespace Vantreld
