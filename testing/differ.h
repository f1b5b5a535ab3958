// SPDX-License-Identifier: Apache-2.0
// Differ: the real engine and the reference model side by side, compared after every step.
//
// Compared: every call that reached the hardware client or the status table, with all arguments, in order;
// every field of every record, the claims, the work queue in order, the blocked set, both handle maps, the
// statuses; counters, failed keys, the armed wake-up, the debug output. The engine's own state and the
// hardware's order are audited inside each hardware call and after the step.
//
// Errors: Difference, which says what differs, at which step.
#pragma once

#include <optional>

#include "testing/audit.h"
#include "testing/model/model.h"
#include "testing/world.h"

namespace Testing {

class Difference : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Differ : public World::Listener {
 public:
  explicit Differ(EngineChoice const& engine);
  // Throws Difference. After a cleanup nothing may follow.
  void run(Step const& step);
  // Whether the step would end the engine's process, by an assertion that the model foresees; its text, or
  // empty.
  std::string endsProcess(Step const& step) const;
  // Back to an empty table and an engine that knows nothing, by removing every key; handles are forgotten.
  // Compared like any other step.
  void empty();

  Model const& model() const { return model_; }
  EngineChoice const& engine() const { return choice_; }
  U64 steps() const { return steps_; }
  std::vector<Event> const& events() const { return events_; }  // of the last step

  // Claims that wait for a position that is free and in order; the first one's key. An engine that lost no
  // wake-up has none.
  std::optional<U64> idleClaim() const;

  void onEvent(EventKind kind, Vantrel::EntryConfig const& entry) override;
  void onTrace(std::string_view text, std::span<U64 const> values) override;

 private:
  void hardwareCall(EventKind kind, Vantrel::EntryConfig const& entry);
  std::vector<U64> order(Step const& step) const;
  void compare();
  void compareEvents() const;
  void compareRecords() const;
  void compareHandles() const;
  void compareRest() const;

  EngineChoice choice_;
  Model model_;
  HardwareView hardware_;
  std::vector<Event> events_;
  Choices choices_;
  std::string broken_;  // what an audit inside a hardware call found first
  U64 steps_ = 0;
  Vantrel::FastState const* state_ = nullptr;
  std::optional<World> world_;
};

// Runs a scenario from the start; the text of the first difference, empty when there is none.
std::string differenceIn(Scenario const& scenario);

}  // namespace Testing
