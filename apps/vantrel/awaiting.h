// SPDX-License-Identifier: Apache-2.0
// Awaiting: waits for acknowledgements as a verb does: with a deadline, showing progress, and saying which
// keys are late and why. Without a deadline it says, each time once, that the agent cannot be reached.
//
//   awaiting.untilDone("acknowledged");      // says of each key that the hardware refuses for good, as soon
//   awaiting.requireNoneRefused();           // as the agent knows, and waits on for the others
//
// Cost: four times a second the agent is asked for its hardware; less often when it has much to tell.
// Ownership: refers to the tables.
// Threading: one thread.
// Errors: Late when the deadline passed; Refused.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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

class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Awaiting {
 public:
  // `timeout` seconds from now; none: as long as it takes.
  Awaiting(std::string dir, Vantrel::SharedTables& tables, std::optional<double> timeout, bool quiet);

  Vantrel::Acknowledgements& acknowledgements() { return acknowledgements_; }
  void await(Vantrel::EntryKey key, Vantrel::OpId opId) { acknowledgements_.await(key, opId); }
  // Returns when nothing is outstanding: each key is acknowledged, or refused by the hardware in the version
  // that is awaited. `what` is done, as the progress says.
  void untilDone(std::string const& what);
  // Throws Refused when one was.
  void requireNoneRefused() const;
  // A newer version of the key is written: what was refused before counts no more.
  void written(Vantrel::EntryKey key) { refused_.erase(key); }
  // Called for each key that the hardware refuses, in the version that is awaited.
  void onRefusedIs(std::function<void(Vantrel::EntryKey)> handler) { handler_ = std::move(handler); }
  // Keys that the hardware refuses, in whichever version; none when the agent does not say.
  std::vector<Vantrel::EntryKey> refusedKeys();
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
  void lookAtHardware();
  void refuse(Vantrel::EntryKey key, HardwareState::Refusal const& refusal);
  std::string refusedText() const;
  // Returns when hardware has just refused what was outstanding.
  void late();

  std::string const dir_;
  Vantrel::SharedTables& tables_;
  Vantrel::Acknowledgements acknowledgements_;
  std::optional<double> timeout_;
  Clock::time_point const started_ = Clock::now();
  Progress progress_;
  std::unique_ptr<AgentView> const agent_;
  Clock::time_point lookedFor_ = started_;
  bool unreachableSaid_ = false;
  std::function<void(Vantrel::EntryKey)> handler_;
  std::set<Vantrel::EntryKey> refused_;
  std::string delay_;  // what keeps the hardware, as it was said last
  Clock::time_point hardwareDue_ = started_;
};

}  // namespace VantrelCommand
