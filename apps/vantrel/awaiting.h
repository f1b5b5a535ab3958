// SPDX-License-Identifier: Apache-2.0
// Awaiting: waits for acknowledgements as a verb does: with a deadline, showing progress, and saying which
// keys are late and why. Without a deadline it says, each time once, that the agent cannot be reached.
//
// Ownership: refers to the tables.
// Threading: one thread.
// Errors: Late when the deadline passed.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "apps/vantrel/agent_view.h"
#include "apps/vantrel/progress.h"
#include "producer/acknowledgements.h"
#include "producer/shared_tables.h"

namespace VantrelCommand {

// Its text has one line for each late key, up to a few.
class Late : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Awaiting {
 public:
  // `timeout` seconds from now; none: as long as it takes.
  Awaiting(std::string dir, Vantrel::SharedTables& tables, std::optional<double> timeout, bool quiet);

  Vantrel::Acknowledgements& acknowledgements() { return acknowledgements_; }
  void await(Vantrel::EntryKey key, Vantrel::OpId opId) { acknowledgements_.await(key, opId); }
  // Returns when nothing is outstanding. `what` is done, as the progress says.
  void untilDone(std::string const& what);
  // Returns when the agent says that it has walked and flushed the table; false when there is no agent that
  // could say so.
  bool untilFlushed();
  // Tells what there is to tell, without waiting.
  void catchUp() { tables_.wait(0); }
  void progress(std::string const& what, U64 done, U64 all) { progress_.show(what, done, all); }
  void clearProgress() { progress_.clear(); }

 private:
  using Clock = std::chrono::steady_clock;
  double secondsLeft() const;
  void sayWhenUnreachable();
  [[noreturn]] void late();

  std::string const dir_;
  Vantrel::SharedTables& tables_;
  Vantrel::Acknowledgements acknowledgements_;
  std::optional<double> timeout_;
  Clock::time_point const started_ = Clock::now();
  Progress progress_;
  std::unique_ptr<AgentView> const agent_;
  Clock::time_point lookedFor_ = started_;
  bool unreachableSaid_ = false;
};

}  // namespace VantrelCommand
