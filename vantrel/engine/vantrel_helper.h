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

  // What the engine has in hardware of the key that a call names, for a client that keeps no such index.
  struct Programmed {
    EntryKey key;
    U32 ti = nowhere;  // before the call
    U32 prio = 0;      // the order is judged by these two, the first that the engine saw of the key
    U16 pg = 0;

    static constexpr U32 nowhere = 0xFFFFFFFF;
  };

  // Programs a new entry at the position that element 0 of its table indexes names. The position is free.
  virtual void addEntry(EntryConfig const& entry);
  // Removes a programmed entry. Element 0 names the position to clear, `pg` is 0, and the OpId is the entry's
  // own, or OpId::deleteAcknowledge() when the producer asked for the delete and waits for its
  // acknowledgement.
  virtual void deleteEntry(EntryConfig const& entry);
  // The same, to break a ring of entries that wait for one another: the entry comes back.
  virtual void deleteEntryDeadlock(EntryConfig const& entry);
  // Moves a programmed entry to the position that element 0 names. It is free; programmed() names the old
  // one.
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

  // Valid inside updateEntry, moveEntry, the two deletes and noopAck. Null when the entry is not in hardware,
  // or the engine did not say.
  Programmed const* programmed(EntryKey const& key) const {
    bool const isKnown = programmed_.key == key && programmed_.ti != Programmed::nowhere;
    return isKnown ? &programmed_ : nullptr;
  }
  // The engine says it before each of these calls, and before addEntry.
  void programmedIs(EntryKey const& key, U32 ti, U32 prio, U16 pg) {
    programmed_.key = key;  // field by field, because a copy of the whole would wait for the fields' stores
    programmed_.ti = ti;
    programmed_.prio = prio;
    programmed_.pg = pg;
  }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  Ostra::Ptr<TableStatus> const tableStatus_;
  Programmed programmed_;
};

}  // namespace Vantrel
