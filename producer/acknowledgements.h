// SPDX-License-Identifier: Apache-2.0
// Acknowledgements: what a producer still waits for, kept up to date by the status table's notifications.
//
// Invariants: a key is outstanding until the status table was seen to hold exactly what is awaited of it; it
//   never becomes outstanding again by itself.
// Ownership: holds the table it watches.
// Threading: the thread that dispatches the table.
// Cost: a read of a status per notification of an outstanding key, and a look-up more for a second delete; a
//   whole-collection notification does so with each outstanding key.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ostra/ptr.h"
#include "vantrel/core/tables.h"

namespace Vantrel {

// The key's status. Damage is reported to the table and reads as no status.
VANTREL_API EntryStatus readStatus(TableStatus const& table, EntryKey key);

class VANTREL_API Acknowledgements {
 public:
  explicit Acknowledgements(Ostra::Ptr<TableStatus const> status);
  ~Acknowledgements();
  Acknowledgements(Acknowledgements const&) = delete;
  Acknowledgements& operator=(Acknowledgements const&) = delete;

  // Waits for the key's status to become `opId`: a version, or OpId::deleteAcknowledge(). Replaces what was
  // awaited.
  void await(EntryKey key, OpId opId);
  // Waits for the acknowledgement of a delete that is about to be written. To be called before that: when the
  // mark of an earlier delete of the key still stands in the status table, only what is written after it
  // counts. Any mark in a table that takes its place does: an agent that starts begins with an empty one.
  void awaitDelete(EntryKey key);
  void forget(EntryKey key);

  bool done() const { return outstanding() == 0; }
  U64 outstanding() const;
  std::optional<OpId> awaited(EntryKey key) const;
  std::vector<EntryKey> keys() const;  // outstanding ones, ascending

  // Called for each key as it is acknowledged. May await and forget.
  void onAcknowledgedIs(std::function<void(EntryKey)> handler);

 private:
  class Watcher;
  std::unique_ptr<Watcher> watcher_;
};

}  // namespace Vantrel
