// SPDX-License-Identifier: Apache-2.0
// What the agent did with a key lately, in words, from the trace file in its directory.
//
// Cost: reads the agent's trace file once: some ten milliseconds.
// Errors: none: without a trace file that can be read, problem says why.
#pragma once

#include <string>
#include <vector>

#include "vantrel/core/entry.h"

namespace VantrelCommand {

struct History {
  struct Event {
    U64 realNs;  // since 1970
    std::string what;
  };
  std::vector<Event> events;  // oldest first; the last `most` of them
  U64 left = 0;               // earlier ones in the same time
  U64 tries = 0;              // how often it was taken from the work queue
  std::string problem;

  static constexpr std::size_t most = 12;
};

// Of the last `seconds`.
History historyOf(std::string const& dir, Vantrel::EntryKey key, double seconds);

}  // namespace VantrelCommand
