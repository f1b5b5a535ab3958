// SPDX-License-Identifier: Apache-2.0
// Dispatch: one notified key becomes exactly one engine action.
//
//   record absent            -> processDelete(key, no acknowledgement)
//   record marked for delete -> processDelete(key, with acknowledgement)
//   any other record         -> processEntry(record), after the delete of the key that owned its handle
//
// Whether an add-or-update is an add, an update or a move is not decided here.
#include "ostra/piecewise_map.h"
#include "vantrel/core/trace.h"
#include "vantrel/engine/asserts.h"
#include "vantrel/engine/vantrel_impl.h"

namespace Vantrel {

bool VantrelImpl::handleEntryHelper(EntryKey const& key) {
  ENGINE_ASSERT(initialized());
  VANTREL_RECORD(9, lgId(), "notify on key:", key);
  if (prefetch_) prefetch_(*this, key);
  EntryConfig const entry = readAndProcessDeps(key);
  VANTREL_RECORD(9, lgId(), "handling key:", key, " hdl:", entry.hdl(), " opId:", entry.opId());
  if (debugEnabled()) dumpWhenDirty();
  bool const result =
      entry.empty() || entry.isDel() ? dispatchDelete(key, entry.isDel()) : dispatchAddOrUpdate(entry, key);
  if (debugEnabled()) dumpWhenDirty();
  return result;
}

bool VantrelImpl::dispatchDelete(EntryKey const& key, bool delAck) {
  bool const result = processDelete(key, delAck);
  if (auto const at = keyToHandle().find(key); at != keyToHandle().end()) {
    handleToKeyDel(at->second);
    keyToHandleDel(key);
  }
  return result;
}

bool VantrelImpl::dispatchAddOrUpdate(EntryConfig const& entry, EntryKey const& key) {
  U64 const handle = entry.hdl();
  bool deleted = false;
  auto const owner = handleToKey().find(handle);
  if (owner == handleToKey().end()) {
    handleToKeyIs(handle, key);
    keyToHandleIs(key, handle);
  } else if (EntryKey const old = owner->second; old != key) {
    deleted = takeOverHandle(handle, key, old);
  }
  return processEntry(entry) || deleted;
}

// The old key is deleted before the new one is programmed. Whether the delete is acknowledged, the new key's
// record says, read again.
bool VantrelImpl::takeOverHandle(U64 handle, EntryKey const& key, EntryKey const& old) {
  VANTREL_TRACE(vantrelImplTrace(), 9, "Reuse of handle: ", handle, ", deleting key: ", old);
  bool const ack = readEntry(*tableConfig(), key).isDel();
  bool const deleted = processDelete(old, ack);
  keyToHandleDel(old);
  keyToHandleIs(key, handle);
  handleToKeyIs(handle, key);
  return deleted;
}

void VantrelImpl::dumpWhenDirty() {
  if (!dirty()) return;
  dumpState();
  dirtyIs(false);
}

}  // namespace Vantrel
