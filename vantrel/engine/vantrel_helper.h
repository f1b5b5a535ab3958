// SPDX-License-Identifier: Apache-2.0
// VantrelHelper: the interface between the engine and the hardware. A hardware client derives from it.
//
// The engine calls one hardware operation at a time, in an order that keeps the priority order intact, and
// treats each as done when it returns. The base class programs nothing, so that an engine can run against it
// alone. It writes the engine's own acknowledgements into the status table; the subclass must acknowledge the
// hardware operations.
//
// Ownership: holds a reference to the status table, which may be null: then nothing is acknowledged.
// Threading: the agent's event loop.
// Errors: an override should not throw. The exception passes through the engine and leaves the call
//   half-done: after addEntry the key waits for its own position; after moveEntry or a delete, a
//   configuration with another position ends the process. Deleting the key repairs the engine's state
//   (docs/limits.md). At clean-up, which runs in a destructor, an exception ends the process.
#pragma once

#include <string>

#include "ostra/entity.h"
#include "vantrel/core/tables.h"

namespace Vantrel {

class VANTREL_API VantrelHelper : public Ostra::Entity {
 public:
  VantrelHelper(std::string name, Ostra::Ptr<TableStatus> tableStatus);

  Ostra::Ptr<TableStatus> const& tableStatus() const { return tableStatus_; }

  // Programs a new entry at the position that element 0 of its table indexes names. The position is free.
  virtual void addEntry(EntryConfig const& entry);
  // Removes a programmed entry. Element 0 names the position to clear, `pg` is 0, and the OpId is the entry's
  // own, or OpId::deleteAcknowledge() when the producer asked for the delete and waits for its
  // acknowledgement.
  virtual void deleteEntry(EntryConfig const& entry);
  // The same, to break a ring of entries that wait for one another: the entry comes back.
  virtual void deleteEntryDeadlock(EntryConfig const& entry);
  // Moves a programmed entry to the position that element 0 names. It is free; the old one is not named.
  virtual void moveEntry(EntryConfig const& entry);
  // Rewrites a programmed entry with a newer configuration. Before a move it names the new position already.
  virtual void updateEntry(EntryConfig const& entry);

  // Acknowledges the delete of a key that is not programmed in hardware.
  virtual void delAck(EntryKey const& key);
  // Removes the key's status.
  virtual void delStatus(EntryKey const& key);
  // Acknowledges `opId` for a key whose hardware entry needs no change.
  virtual void noopAck(EntryKey const& key, OpId const& opId);

  // Commits batched operations. Called after each full walk of the configuration table, and at clean-up.
  virtual void flush();

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  Ostra::Ptr<TableStatus> const tableStatus_;
};

}  // namespace Vantrel
