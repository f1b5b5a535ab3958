// SPDX-License-Identifier: Apache-2.0
// Says of a key that is not acknowledged what it waits for.
//
// Threading: one thread.
// Cost: one walk of the configuration table to make; a few look-ups a key.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <unordered_map>

#include "apps/vantrel/agent_view.h"
#include "vantrel/core/tables.h"

namespace VantrelCommand {

struct Explanation {
  Vantrel::EntryKey key;
  Vantrel::OpId opId;                         // the version that is not acknowledged
  std::optional<U32> position;                // that it waits for
  std::optional<Vantrel::EntryKey> heldBy;    // who is at that position
  std::optional<Vantrel::EntryKey> outranks;  // or who would be on the wrong side of it there
  std::string text;                           // one line
};

class Explainer {
 public:
  // `snapshot`: of the agent; without one `noSnapshot` says why not.
  Explainer(Vantrel::TableConfig const& config, std::optional<Snapshot> snapshot, std::string noSnapshot);
  Explanation explain(Vantrel::EntryKey key) const;

 private:
  struct Wish {
    U16 pg;
    U32 prio;
    U32 ti;
  };
  std::string reason(Vantrel::EntryConfig const& entry, Explanation& explanation) const;
  std::string deleteReason(Vantrel::EntryConfig const& entry) const;
  std::string waitReason(Vantrel::EntryConfig const& entry, Explanation& explanation) const;
  std::optional<U32> programmedAt(Vantrel::EntryKey key) const;
  std::optional<U32> misplacedNeighbour(Vantrel::EntryConfig const& entry) const;

  Vantrel::TableConfig const& config_;
  std::optional<Snapshot> snapshot_;
  std::string noSnapshot_;
  std::unordered_map<U64, U32> programmedAt_;  // key -> position
  std::unordered_map<U64, U32> waitsFor_;      // key -> position
  std::unordered_map<U64, Wish> wishes_;
};

}  // namespace VantrelCommand
