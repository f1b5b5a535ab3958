// SPDX-License-Identifier: Apache-2.0
// DebugConfig asks for a snapshot of the engine, DebugStatus holds the answer.
//
// Invariants: DebugStatus::version is written last: who sees the version that he asked for sees a complete
//   snapshot.
// Ownership: the agent's; engine and front end hold references.
// Threading: the agent's event loop.
// Cost: a change is a hash-map step, and what its watchers make of it.
// Errors: a value of the wrong type, or a write from outside to what the engine writes, is refused by name
//   (ostra/type_info.h).
#pragma once

#include <boost/unordered_map.hpp>
#include <cstddef>
#include <string>

#include "ostra/entity.h"
#include "vantrel/core/entry.h"

namespace Vantrel {

class VANTREL_API DebugConfig : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<DebugConfig const> {
   public:
    virtual void onVersion() {}
  };

  using Entity::Entity;

  // The request counter; 0: no request was ever made.
  U32 version() const { return version_; }
  void versionIs(U32 version) { scalarIs("version", version_, version, &Notifiee::onVersion); }
  // Returns the version that was asked for, whatever others ask for by the time this returns.
  U32 versionInc(U32 n) {
    U32 const asked = version_ + n;
    versionIs(asked);
    return asked;
  }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  U32 version_ = 0;
};

class VANTREL_API DebugStatus : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<DebugStatus const> {
   public:
    virtual void onPending(U32 const&) {}
    virtual void onPendingOpId(EntryKey const&) {}
    virtual void onStatus(U32 const&) {}
    virtual void onStatusOpId(EntryKey const&) {}
    virtual void onVersion() {}
  };
  // Maps whose buckets can be walked in slices while others change: a snapshot may have a million members.
  using KeyAtIndex = boost::unordered_map<U32, EntryKey>;
  using OpIdOfKey = boost::unordered_map<EntryKey, OpId>;

  using Entity::Entity;

  // The table index that is waited for -> the waiting key.
  KeyAtIndex const& pending() const { return pending_; }
  void pendingIs(U32 ti, EntryKey const& key) {
    memberIs("pending", pending_, ti, key, &Notifiee::onPending);
  }
  EntryKey pendingDel(U32 ti) { return memberDel("pending", pending_, ti, &Notifiee::onPending); }
  void pendingDelAll() { membersDelAll("pending", pending_, &Notifiee::onPending); }

  // The waiting key -> the operation identifier that it waits to program.
  OpIdOfKey const& pendingOpId() const { return pendingOpId_; }
  void pendingOpIdIs(EntryKey const& key, OpId const& opId) {
    memberIs("pendingOpId", pendingOpId_, key, opId, &Notifiee::onPendingOpId);
  }
  OpId pendingOpIdDel(EntryKey const& key) {
    return memberDel("pendingOpId", pendingOpId_, key, &Notifiee::onPendingOpId);
  }
  void pendingOpIdDelAll() { membersDelAll("pendingOpId", pendingOpId_, &Notifiee::onPendingOpId); }

  // The table index that is programmed -> the key there.
  KeyAtIndex const& status() const { return status_; }
  void statusIs(U32 ti, EntryKey const& key) { memberIs("status", status_, ti, key, &Notifiee::onStatus); }
  EntryKey statusDel(U32 ti) { return memberDel("status", status_, ti, &Notifiee::onStatus); }
  void statusDelAll() { membersDelAll("status", status_, &Notifiee::onStatus); }

  // The programmed key -> the operation identifier in hardware.
  OpIdOfKey const& statusOpId() const { return statusOpId_; }
  void statusOpIdIs(EntryKey const& key, OpId const& opId) {
    memberIs("statusOpId", statusOpId_, key, opId, &Notifiee::onStatusOpId);
  }
  OpId statusOpIdDel(EntryKey const& key) {
    return memberDel("statusOpId", statusOpId_, key, &Notifiee::onStatusOpId);
  }
  void statusOpIdDelAll() { membersDelAll("statusOpId", statusOpId_, &Notifiee::onStatusOpId); }

  // Room for so many members, so that filling does not stop to grow.
  void roomIs(std::size_t waiting, std::size_t programmed) {
    pending_.reserve(waiting);
    pendingOpId_.reserve(waiting);
    status_.reserve(programmed);
    statusOpId_.reserve(programmed);
  }

  // The DebugConfig version that the collections answer.
  U32 version() const { return version_; }
  void versionIs(U32 version) { scalarIs("version", version_, version, &Notifiee::onVersion); }
  // The collections were filled for the request that got this version, or for a later one.
  bool answers(U64 version) const { return static_cast<U32>(version_ - version) <= ~0u / 2; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  KeyAtIndex pending_;
  OpIdOfKey pendingOpId_;
  KeyAtIndex status_;
  OpIdOfKey statusOpId_;
  U32 version_ = 0;
};

VANTREL_API Ostra::Ptr<DebugConfig> debugConfigFactory(std::string name);
VANTREL_API Ostra::Ptr<DebugStatus> debugStatusFactory(std::string name);

}  // namespace Vantrel
