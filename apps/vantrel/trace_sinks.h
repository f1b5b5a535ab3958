// SPDX-License-Identifier: Apache-2.0
// The output formats of `vantrel trace`.
//
// Threading: one thread.
// Errors: exceptions whose text names what could not be written.
#pragma once

#include <memory>
#include <string>

#include "lumelog/reader.h"

namespace VantrelCommand {

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void record(Lumelog::Reader const& reader, Lumelog::Record const& record) = 0;
  // Called when no more records are there for now: writes what is buffered.
  virtual void pause() {}
  virtual void end() {}
};

// One line a record; `several` puts the process before the message.
std::unique_ptr<TraceSink> textSink(bool several);
// One object a line.
std::unique_ptr<TraceSink> jsonSink();
// For each message the number and size of its records; for each ring, how far back it reaches and how often
// it wrapped.
std::unique_ptr<TraceSink> statsSink(bool json);
// A trace in the Common Trace Format in a directory, which must be new or empty.
std::unique_ptr<TraceSink> ctfSink(std::string const& directory);

// "2026-01-31T12:00:00.123456789Z"
std::string timeText(U64 realNs);

}  // namespace VantrelCommand
