// SPDX-License-Identifier: Apache-2.0
// Says of a key that is not acknowledged what it waits for, by what the engine published.
//
// Threading: one thread.
// Cost: what is said of a waiting key, some look-ups and a read of its blocker's record; of other keys,
//   together, one walk of the snapshot's positions when the explainer is made.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "apps/vantrel/agent_view.h"
#include "vantrel/core/tables.h"

namespace VantrelCommand {

// Why an entry waits for a position.
struct Wait {
  Vantrel::WaitReason::Kind kind;
  struct Blocker {
    Vantrel::EntryKey key;
    U32 position;
  };
  std::optional<Blocker> blocker;  // none: it is gone
  U64 seconds;                     // for so long
  std::string text;  // "it waits for position 5, held by key 1, which is to stay there, for 3 s"
};
// `key` waits for `wanted` in the snapshot. `config`: what is wanted of its blocker.
Wait waitOf(Snapshot const& snapshot, Vantrel::TableConfig const& config, Vantrel::EntryKey key, U32 wanted);

// A time for people: "90 s", "3 min".
std::string duration(U64 seconds);

class Explainer {
 public:
  // `snapshot`: of the agent; without one `noSnapshot` says why not. `keys`: those that will be asked for.
  Explainer(Vantrel::TableConfig const& config, std::optional<Snapshot> snapshot, std::string noSnapshot,
            std::vector<Vantrel::EntryKey> const& keys);
  // One line.
  std::string explain(Vantrel::EntryKey key) const;
  // Without the key and its version.
  std::string reasonOf(Vantrel::EntryKey key) const { return reason(readEntry(config_, key)); }

 private:
  std::string reason(Vantrel::EntryConfig const& entry) const;

  Vantrel::TableConfig const& config_;
  std::optional<Snapshot> const snapshot_;
  std::string const noSnapshot_;
  std::unordered_map<U64, U32> programmedAt_;  // key -> position
  std::unordered_map<U64, U32> waitsFor_;      // key -> position
};

}  // namespace VantrelCommand
