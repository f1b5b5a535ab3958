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
  // Returns the text of the assertion by which the step would end the engine's process, as the model
  // predicts; empty when it would not.
  std::string endsProcess(Step const& step) const;
  // Removes every key, so that table and engine are empty, and forgets all handles. Compared like any other
  // step.
  void empty();

  Model const& model() const { return model_; }
  World const& world() const { return *world_; }
  Vantrel::FastState const& state() const { return *state_; }
  EngineChoice const& engine() const { return choice_; }
  U64 steps() const { return steps_; }
  std::vector<Event> const& events() const { return events_; }  // of the last step

  // Returns the key of a claim on a position that is free and in order, if there is one: only a lost wake-up
  // leaves such a claim.
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
  std::string broken_;  // the first finding of an audit inside a hardware call
  U64 steps_ = 0;
  Vantrel::FastState const* state_ = nullptr;
  std::optional<World> world_;
};

// Runs a scenario from the start; the text of the first difference, empty when there is none.
std::string differenceIn(Scenario const& scenario);

}  // namespace Testing
