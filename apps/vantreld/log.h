// SPDX-License-Identifier: Apache-2.0
// Log: what the agent says on stdout or stderr, a line at a time, whatever became of the other end.
//
// Invariants: say() never throws, raises no signal (the process ignores SIGPIPE) and waits for no reader. A
//   line that cannot be written now is dropped and counted, and the count is said as soon as something can be
//   written again. So is the number of provoked lines that came too fast.
// Ownership: none; the descriptor stays open for the life of the process.
// Threading: one thread.
// Cost: two system calls a line.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

#include "pallo/types.h"

namespace Vantreld {

class Log {
 public:
  explicit Log(int fd) : fd_(fd) {}
  Log(Log const&) = delete;
  Log& operator=(Log const&) = delete;

  template <class... Args>
  void say(fmt::format_string<Args...> format, Args&&... args) noexcept {
    write([&] { return fmt::format(format, std::forward<Args>(args)...); });
  }
  // A line that others can bring about as often as they like: a burst of ten, then one a second.
  template <class... Args>
  void provoked(fmt::format_string<Args...> format, Args&&... args) noexcept {
    if (mayBeProvoked()) say(format, std::forward<Args>(args)...);
  }
  // Says what is still to be said of lines that were not. To be called now and then.
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

  int const fd_;
  U64 lost_ = 0;          // lines that could not be written
  U64 held_ = 0;          // lines that came too fast
  bool midLine_ = false;  // the last line was cut
  double tokens_ = mostTokens;
  double refilled_ = 0;  // when
};

}  // namespace Vantreld
