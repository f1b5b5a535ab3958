// SPDX-License-Identifier: Apache-2.0
// Where `vantrel trace` puts the records it shows.
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
  // Nothing more comes for now: what was held back goes out.
  virtual void pause() {}
  virtual void end() {}
};

// One line a record; `several` puts the process before the message.
std::unique_ptr<TraceSink> textSink(bool several);
// One object a line.
std::unique_ptr<TraceSink> jsonSink();
// Records and bytes a message, how far back each ring reaches and how often it wrapped.
std::unique_ptr<TraceSink> statsSink(bool json);
// A trace in the Common Trace Format in a directory, which must be new or empty.
std::unique_ptr<TraceSink> ctfSink(std::string const& directory);

// "2026-01-31T12:00:00.123456789Z"
std::string timeText(U64 realNs);

}  // namespace VantrelCommand
