// SPDX-License-Identifier: Apache-2.0
// AgentView: what the agent itself says of its engine and of its hardware, for whoever wants to explain why
// something takes long.
//
// Errors: an agent that does not answer is no error: there is no snapshot, and problem() says why.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ostra/ptr.h"
#include "vantrel/diag/wait_status.h"
#include "vantrel/engine/debug_entities.h"

namespace VantrelCommand {

// How far the hardware follows the engine.
struct HardwareState {
  // An entry that the hardware refuses for good.
  struct Refusal {
    Vantrel::OpId opId;  // the version that it refused
    std::string reason;
  };
  U64 behind = 0;                            // calls that are not completed
  U64 unwritten = 0;                         // acknowledgements for which there was no space
  std::string problem;                       // what went wrong last, perhaps long ago
  std::unordered_map<U64, Refusal> refused;  // by key

  // Why this version of the key is refused; null: it is not.
  Refusal const* refusalOf(Vantrel::EntryKey key, Vantrel::OpId opId) const;
  // What keeps it from following, as "the hardware is 7 calls behind: ..."; empty when it follows.
  std::string delay() const;
};

// The engine at one moment: what is where and who waits, and why. Kept up to date when another snapshot is
// taken.
struct Snapshot {
  Ostra::Ptr<Vantrel::DebugStatus const> places;
  Ostra::Ptr<Vantrel::WaitStatus const> waits;
  HardwareState hardware;  // a moment later

  // A key at a position, or waiting for it. A million of them are to be sorted.
  struct Place {
    U32 ti;
    bool waits;
    Vantrel::EntryKey key;
  };
  // By position; who waits for one stands behind who holds it.
  std::vector<Place> inOrder() const;
  // The version that is programmed there, or waits.
  Vantrel::OpId opIdOf(Place const& place) const;
  // Why what the engine has there is not in hardware; null: nothing is known against it.
  HardwareState::Refusal const* refusalOf(Place const& place) const;
  char const* stateOf(Place const& place) const;
};

class AgentView {
 public:
  virtual ~AgentView() = default;
  // A snapshot taken now, unless the agent does not give one within `seconds`.
  virtual std::optional<Snapshot> snapshot(double seconds) = 0;
  // Nothing when the agent does not answer within about `seconds`.
  virtual std::optional<HardwareState> hardware(double seconds) = 0;
  // Waits until every table that the agent has attached was walked and flushed; false when that was not so
  // within `seconds`. A table that nobody has attached yet is not flushed.
  virtual bool flushed(double seconds) = 0;
  // True while the agent can be reached. Waits for nothing; problem() says why not.
  virtual bool reached() = 0;
  // There is a socket to ask on.
  virtual bool listens() const = 0;
  // Why there was none, or not.
  virtual std::string problem() const = 0;
};

// Asks the agent of a directory over its management socket.
std::unique_ptr<AgentView> agentViewOf(std::string const& dir);

}  // namespace VantrelCommand
