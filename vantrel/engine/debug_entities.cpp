// SPDX-License-Identifier: Apache-2.0
#include "vantrel/engine/debug_entities.h"
#include "ostra/type_info.h"

namespace Vantrel {

Ostra::TypeInfo const& DebugConfig::staticType() {
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<DebugConfig>("Vantrel::DebugConfig")
          .attribute("version", &DebugConfig::version, &DebugConfig::versionIs)
          .operation("versionInc", &DebugConfig::versionInc);
  return type;
}

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
