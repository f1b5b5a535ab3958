// SPDX-License-Identifier: Apache-2.0
// Progress: shows on stderr how far a long operation is: a bar on a terminal, elsewhere a plain line every
// two seconds. An operation that ends within a second shows nothing.
//
// Cost: a clock reading for each call.
#pragma once

#include <chrono>
#include <string>

#include "pallo/types.h"

namespace VantrelCommand {

class Progress {
 public:
  // `quiet`: shows nothing at all.
  explicit Progress(bool quiet = false);
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  // `note`: what else there is to say, or nothing.
  void show(std::string const& what, U64 done, U64 all, std::string const& note = {});
  // Erases the bar from the terminal.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;
  void draw(std::string const& what, U64 done, U64 all, std::string const& note);

  bool const quiet_;
  bool const terminal_;
  bool drawn_ = false;
  Clock::time_point next_;
};

}  // namespace VantrelCommand
