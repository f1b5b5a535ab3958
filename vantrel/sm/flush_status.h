// SPDX-License-Identifier: Apache-2.0
// VantrelFlushStatus: two counters by which a producer in another process learns that its table has been
// attached (tableCounter moved) and that the table's first contents are in hardware (flushCounter moved).
//
// Invariants: tableCounter moves once for each front end, flushCounter once for each front end's first
//   complete walk, both modulo 256. Writing the present value notifies nobody.
// Ownership: the agent makes it by name and passes it to the front ends, which hold it.
// Threading: the agent's event loop.
// Cost: a write without watchers is a comparison and a store.
#pragma once

#include "ostra/entity.h"

namespace Vantrel {

class VANTREL_API VantrelFlushStatus : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<VantrelFlushStatus const> {
   public:
    virtual void onTableCounter() {}
    virtual void onFlushCounter() {}
  };

  using Entity::Entity;

  // Modulo 256, like the other one.
  U8 tableCounter() const { return tableCounter_; }
  void tableCounterIs(U8 v) { scalarIs("tableCounter", tableCounter_, v, &Notifiee::onTableCounter); }
  U8 flushCounter() const { return flushCounter_; }
  void flushCounterIs(U8 v) { scalarIs("flushCounter", flushCounter_, v, &Notifiee::onFlushCounter); }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  U8 tableCounter_ = 0;
  U8 flushCounter_ = 0;
};

}  // namespace Vantrel
