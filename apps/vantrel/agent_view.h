// SPDX-License-Identifier: Apache-2.0
// AgentView: what the agent itself says of its engine, for whoever wants to explain why something takes long.
//
// Errors: an agent that does not answer is no error: there is no snapshot, and problem() says why.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ostra/ptr.h"
#include "vantrel/diag/wait_status.h"
#include "vantrel/engine/debug_entities.h"

namespace VantrelCommand {

// The engine at one moment: what is where and who waits, and why. Kept up to date when another snapshot is
// taken.
struct Snapshot {
  Ostra::Ptr<Vantrel::DebugStatus const> places;
  Ostra::Ptr<Vantrel::WaitStatus const> waits;

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
};

class AgentView {
 public:
  virtual ~AgentView() = default;
  // A snapshot taken now, unless the agent does not give one within `seconds`.
  virtual std::optional<Snapshot> snapshot(double seconds) = 0;
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
