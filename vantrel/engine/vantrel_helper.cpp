// SPDX-License-Identifier: Apache-2.0
#include "vantrel/engine/vantrel_helper.h"

#include "ostra/type_info.h"
#include "vantrel/core/probe.h"
#include "vantrel/core/trace.h"

namespace Vantrel {

VantrelHelper::VantrelHelper(std::string name, Ostra::Ptr<TableStatus> tableStatus)
    : Entity(std::move(name)), tableStatus_(std::move(tableStatus)) {}

void VantrelHelper::addEntry(EntryConfig const&) {}
void VantrelHelper::deleteEntry(EntryConfig const&) {}
void VantrelHelper::deleteEntryDeadlock(EntryConfig const&) {}
void VantrelHelper::moveEntry(EntryConfig const&) {}
void VantrelHelper::updateEntry(EntryConfig const&) {}
void VantrelHelper::flush() {}

void VantrelHelper::delAck(EntryKey const& key) {
  if (!tableStatus_) return;
  VANTREL_TRACE(vantrelImplTrace(), 9, __PRETTY_FUNCTION__, " key:", key);
  tableStatus_->entryIs(EntryStatus(key, OpId::deleteAcknowledge()));
  VANTREL_PROBE(acknowledge, key.value(), OpId::deleteAcknowledge().value());
}

void VantrelHelper::delStatus(EntryKey const& key) {
  if (!tableStatus_) return;
  VANTREL_TRACE(vantrelImplTrace(), 9, __PRETTY_FUNCTION__, " key:", key);
  tableStatus_->entryDel(key);
}

void VantrelHelper::noopAck(EntryKey const& key, OpId const& opId) {
  if (!tableStatus_) return;
  VANTREL_TRACE(vantrelImplTrace(), 9, __PRETTY_FUNCTION__, " key:", key);
  tableStatus_->entryIs(EntryStatus(key, opId));
  VANTREL_PROBE(acknowledge, key.value(), opId.value());
}

// The hardware operations have no name: they take whole records, and the engine would not know of an entry
// that was written past it.
Ostra::TypeInfo const& VantrelHelper::staticType() {
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<VantrelHelper>("Vantrel::VantrelHelper")
                                          .reference("tableStatus", &VantrelHelper::tableStatus)
                                          .operation("delAck", &VantrelHelper::delAck)
                                          .operation("delStatus", &VantrelHelper::delStatus)
                                          .operation("noopAck", &VantrelHelper::noopAck)
                                          .operation("flush", &VantrelHelper::flush);
  return type;
}

}  // namespace Vantrel
