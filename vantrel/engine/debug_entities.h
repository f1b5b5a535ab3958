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

#include <memory>
#include <string>

#include "ostra/entity.h"
#include "ostra/piecewise_map_fwd.h"
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
  using KeyAtIndex = Ostra::PiecewiseMap<U32, EntryKey>;
  using OpIdOfKey = Ostra::PiecewiseMap<EntryKey, OpId>;

  explicit DebugStatus(std::string name);
  ~DebugStatus() override;

  // The table index that is waited for -> the waiting key.
  KeyAtIndex const& pending() const { return *pending_; }
  void pendingIs(U32 ti, EntryKey const& key);
  EntryKey pendingDel(U32 ti);
  void pendingDelAll();

  // The waiting key -> the operation identifier that it waits to program.
  OpIdOfKey const& pendingOpId() const { return *pendingOpId_; }
  void pendingOpIdIs(EntryKey const& key, OpId const& opId);
  OpId pendingOpIdDel(EntryKey const& key);
  void pendingOpIdDelAll();

  // The table index that is programmed -> the key there.
  KeyAtIndex const& status() const { return *status_; }
  void statusIs(U32 ti, EntryKey const& key);
  EntryKey statusDel(U32 ti);
  void statusDelAll();

  // The programmed key -> the operation identifier in hardware.
  OpIdOfKey const& statusOpId() const { return *statusOpId_; }
  void statusOpIdIs(EntryKey const& key, OpId const& opId);
  OpId statusOpIdDel(EntryKey const& key);
  void statusOpIdDelAll();

  // The DebugConfig version that the collections answer.
  U32 version() const { return version_; }
  void versionIs(U32 version) { scalarIs("version", version_, version, &Notifiee::onVersion); }
  // The collections were filled for the request that got this version, or for a later one.
  bool answers(U64 version) const { return static_cast<U32>(version_ - version) <= ~0u / 2; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  std::unique_ptr<KeyAtIndex> const pending_;
  std::unique_ptr<OpIdOfKey> const pendingOpId_;
  std::unique_ptr<KeyAtIndex> const status_;
  std::unique_ptr<OpIdOfKey> const statusOpId_;
  U32 version_ = 0;
};

VANTREL_API Ostra::Ptr<DebugConfig> debugConfigFactory(std::string name);
VANTREL_API Ostra::Ptr<DebugStatus> debugStatusFactory(std::string name);

}  // namespace Vantrel
