// SPDX-License-Identifier: Apache-2.0
// What the two entities keep, and their names.
#include "vantrel/engine/debug_entities.h"

#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"

namespace Vantrel {

Ostra::TypeInfo const& DebugConfig::staticType() {
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<DebugConfig>("Vantrel::DebugConfig")
          .attribute("version", &DebugConfig::version, &DebugConfig::versionIs)
          .operation("versionInc", &DebugConfig::versionInc);
  return type;
}

DebugStatus::DebugStatus(std::string name)
    : Entity(std::move(name)),
      pending_(std::make_unique<KeyAtIndex>()),
      pendingOpId_(std::make_unique<OpIdOfKey>()),
      status_(std::make_unique<KeyAtIndex>()),
      statusOpId_(std::make_unique<OpIdOfKey>()) {}

DebugStatus::~DebugStatus() = default;

void DebugStatus::pendingIs(U32 ti, EntryKey const& key) {
  memberIs("pending", *pending_, ti, key, &Notifiee::onPending);
}
EntryKey DebugStatus::pendingDel(U32 ti) { return memberDel("pending", *pending_, ti, &Notifiee::onPending); }
void DebugStatus::pendingDelAll() { membersDelAll("pending", *pending_, &Notifiee::onPending); }

void DebugStatus::pendingOpIdIs(EntryKey const& key, OpId const& opId) {
  memberIs("pendingOpId", *pendingOpId_, key, opId, &Notifiee::onPendingOpId);
}
OpId DebugStatus::pendingOpIdDel(EntryKey const& key) {
  return memberDel("pendingOpId", *pendingOpId_, key, &Notifiee::onPendingOpId);
}
void DebugStatus::pendingOpIdDelAll() {
  membersDelAll("pendingOpId", *pendingOpId_, &Notifiee::onPendingOpId);
}

void DebugStatus::statusIs(U32 ti, EntryKey const& key) {
  memberIs("status", *status_, ti, key, &Notifiee::onStatus);
}
EntryKey DebugStatus::statusDel(U32 ti) { return memberDel("status", *status_, ti, &Notifiee::onStatus); }
void DebugStatus::statusDelAll() { membersDelAll("status", *status_, &Notifiee::onStatus); }

void DebugStatus::statusOpIdIs(EntryKey const& key, OpId const& opId) {
  memberIs("statusOpId", *statusOpId_, key, opId, &Notifiee::onStatusOpId);
}
OpId DebugStatus::statusOpIdDel(EntryKey const& key) {
  return memberDel("statusOpId", *statusOpId_, key, &Notifiee::onStatusOpId);
}
void DebugStatus::statusOpIdDelAll() { membersDelAll("statusOpId", *statusOpId_, &Notifiee::onStatusOpId); }

namespace {
std::string engineWrites(DebugStatus const&) { return "the engine writes it"; }
}  // namespace

Ostra::TypeInfo const& DebugStatus::staticType() {
  using D = DebugStatus;
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<D>("Vantrel::DebugStatus")
          .collection("pending", &D::pending, &D::pendingIs, &D::pendingDel)
          .refusedBecause(&engineWrites)
          .collection("pendingOpId", &D::pendingOpId, &D::pendingOpIdIs, &D::pendingOpIdDel)
          .refusedBecause(&engineWrites)
          .collection("status", &D::status, &D::statusIs, &D::statusDel)
          .refusedBecause(&engineWrites)
          .collection("statusOpId", &D::statusOpId, &D::statusOpIdIs, &D::statusOpIdDel)
          .refusedBecause(&engineWrites)
          .attribute("version", &D::version, &D::versionIs)
          .refusedBecause(&engineWrites)
          .toldLast()
          .operation("pendingDelAll", &D::pendingDelAll)
          .refusedBecause(&engineWrites)
          .operation("pendingOpIdDelAll", &D::pendingOpIdDelAll)
          .refusedBecause(&engineWrites)
          .operation("statusDelAll", &D::statusDelAll)
          .refusedBecause(&engineWrites)
          .operation("statusOpIdDelAll", &D::statusOpIdDelAll)
          .refusedBecause(&engineWrites);
  return type;
}

Ostra::Ptr<DebugConfig> debugConfigFactory(std::string name) {
  return Ostra::make<DebugConfig>(std::move(name));
}
Ostra::Ptr<DebugStatus> debugStatusFactory(std::string name) {
  return Ostra::make<DebugStatus>(std::move(name));
}

}  // namespace Vantrel
