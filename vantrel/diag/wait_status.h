// SPDX-License-Identifier: Apache-2.0
// WaitStatus: beside a snapshot of the engine, why each entry that waits does so: what kind of obstacle,
// which entry it is, and since when.
//
// Invariants: version is written last: who sees that of DebugStatus sees the reasons of that snapshot.
// Ownership: the agent's. It calls explain() when the version of DebugStatus has changed.
// Threading: the agent's event loop.
// Cost: some look-ups for each claim.
// Errors: a write from outside is refused by name (ostra/type_info.h).
#pragma once

#include <memory>
#include <string>

#include "ostra/entity.h"
#include "ostra/piecewise_map_fwd.h"
#include "vantrel/core/entry.h"
#include "vantrel/fast/wait_reason.h"

namespace Vantrel {

class DebugStatus;
class FastVantrelImpl;

class VANTREL_API WaitStatus : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<WaitStatus const> {
   public:
    virtual void onKind(EntryKey const&) {}
    virtual void onBlocker(EntryKey const&) {}
    virtual void onSince(EntryKey const&) {}
    virtual void onVersion() {}
  };
  using KindOfKey = Ostra::PiecewiseMap<EntryKey, WaitReason::Kind>;
  using IndexOfKey = Ostra::PiecewiseMap<EntryKey, U32>;
  using TimeOfKey = Ostra::PiecewiseMap<EntryKey, U64>;

  explicit WaitStatus(std::string name);
  ~WaitStatus() override;

  // Says of each key that the snapshot shows waiting what the engine knows now.
  void explain(FastVantrelImpl const& engine, DebugStatus const& snapshot);

  // The waiting key -> the kind of its obstacle.
  KindOfKey const& kind() const { return *kind_; }
  void kindIs(EntryKey const& key, WaitReason::Kind kind);
  WaitReason::Kind kindDel(EntryKey const& key);

  // The waiting key -> the position of the entry that is in its way; the snapshot says which one that is.
  // Not there: the obstacle is gone, and the key is queued or its retry failed.
  IndexOfKey const& blocker() const { return *blocker_; }
  void blockerIs(EntryKey const& key, U32 ti);
  U32 blockerDel(EntryKey const& key);

  // The waiting key -> when it began to wait, seconds since 1970.
  TimeOfKey const& since() const { return *since_; }
  void sinceIs(EntryKey const& key, U64 since);
  U64 sinceDel(EntryKey const& key);

  // That of the DebugStatus which is explained.
  U32 version() const { return version_; }
  void versionIs(U32 version) { scalarIs("version", version_, version, &Notifiee::onVersion); }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  std::unique_ptr<KindOfKey> const kind_;
  std::unique_ptr<IndexOfKey> const blocker_;
  std::unique_ptr<TimeOfKey> const since_;
  U32 version_ = 0;
};

}  // namespace Vantrel
