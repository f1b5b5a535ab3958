// SPDX-License-Identifier: Apache-2.0
#include "hw/recorder.h"

#include <ostream>

namespace Hw {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

namespace {
bool isStatusOperation(Operation operation) {
  return operation == Operation::DelAck || operation == Operation::DelStatus ||
         operation == Operation::NoopAck;
}
}  // namespace

char const* toText(Operation operation) {
  switch (operation) {
    case Operation::Add:
      return "add";
    case Operation::Delete:
      return "delete";
    case Operation::DeleteDeadlock:
      return "deleteDeadlock";
    case Operation::Move:
      return "move";
    case Operation::Update:
      return "update";
    case Operation::DelAck:
      return "delAck";
    case Operation::DelStatus:
      return "delStatus";
    case Operation::NoopAck:
      return "noopAck";
    case Operation::Flush:
      return "flush";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, Call const& call) {
  EntryConfig const& e = call.entry;
  out << toText(call.operation);
  if (call.operation == Operation::Flush) return out;
  out << " key:" << e.key() << " opId:" << e.opId();
  if (isStatusOperation(call.operation)) return out;
  out << " hdl:" << e.hdl() << " pg:" << e.pg() << " prio:" << e.prio();
  for (U32 i = 0; i < e.tableIndexs(); ++i) out << (i ? "," : " ti:") << e.tableIndex(TableKey(i));
  return out;
}

Recorder::Recorder(std::string name, std::ostream* out)
    : VantrelHelper(std::move(name), nullptr), out_(out) {}

void Recorder::record(Operation operation, EntryConfig const& entry) {
  if (out_)
    *out_ << Call{operation, entry} << '\n';
  else
    calls_.push_back({operation, entry});
}
void Recorder::recordStatus(Operation operation, EntryKey const& key, OpId const& opId) {
  record(operation, EntryConfig(key, opId, 0, 0, 0));
}

void Recorder::addEntry(EntryConfig const& entry) { record(Operation::Add, entry); }
void Recorder::deleteEntry(EntryConfig const& entry) { record(Operation::Delete, entry); }
void Recorder::deleteEntryDeadlock(EntryConfig const& entry) { record(Operation::DeleteDeadlock, entry); }
void Recorder::moveEntry(EntryConfig const& entry) { record(Operation::Move, entry); }
void Recorder::updateEntry(EntryConfig const& entry) { record(Operation::Update, entry); }
void Recorder::delAck(EntryKey const& key) {
  recordStatus(Operation::DelAck, key, OpId::deleteAcknowledge());
}
void Recorder::delStatus(EntryKey const& key) { recordStatus(Operation::DelStatus, key, OpId(0)); }
void Recorder::noopAck(EntryKey const& key, OpId const& opId) { recordStatus(Operation::NoopAck, key, opId); }
void Recorder::flush() { record(Operation::Flush, EntryConfig()); }

}  // namespace Hw
