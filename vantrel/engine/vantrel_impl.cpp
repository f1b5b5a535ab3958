// SPDX-License-Identifier: Apache-2.0
// The sequence in which one key is handled, and what a concrete engine must provide.
#include "vantrel/engine/vantrel_impl.h"

#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"
#include "vantrel/core/trace.h"
#include "vantrel/engine/asserts.h"

namespace Vantrel {

VantrelImpl::VantrelImpl(std::string name, Ostra::Ptr<TableConfig const> tableConfig,
                         Ostra::Ptr<DebugConfig const> debugConfig, Ostra::Ptr<DebugStatus> debugStatus,
                         Ostra::Ptr<VantrelHelper> helper, U32 lgId)
    : Entity(std::move(name)),
      tableConfig_(std::move(tableConfig)),
      debugConfig_(std::move(debugConfig)),
      debugStatus_(std::move(debugStatus)),
      helper_(std::move(helper)),
      lgId_(lgId),
      handleToKey_(std::make_unique<KeyOfHandle>()),
      keyToHandle_(std::make_unique<HandleOfKey>()) {
  VantrelImpl::handleInitialized();
}

VantrelImpl::~VantrelImpl() { notifieeList().clear(); }

void VantrelImpl::handleInitialized() {
  ENGINE_ASSERT(lgId() && "missing lgId");
  initLg();
  initializedIs(true);
}

void VantrelImpl::handleEntry(EntryKey const& key) {
  if (!initialized()) return;
  Lumelog::Log::Moments const moments(lg);
  VANTREL_TRACE(vantrelImplTrace(), 9, "Notify on key=", key);
  bool const changed = handleEntryHelper(key);
  if (changed || alwaysProcessPending()) processPending();
  checkDeadlock();
  VANTREL_TRACE(vantrelImplTrace(), 9, "Finished notify on key=", key);
}

// The agent's work takes time: the next record reads the clock.
void VantrelImpl::yieldNow() const {
  yield_->betweenKeys();
  momentPassed();
}

VantrelHelper& VantrelImpl::hardware() const {
  momentPassed();
  return *helper_;
}

void VantrelImpl::handleToKeyIs(U64 handle, EntryKey const& key) {
  memberIs("handleToKey", *handleToKey_, handle, key, &Notifiee::onHandleToKey);
}
void VantrelImpl::handleToKeyDel(U64 handle) {
  memberDel("handleToKey", *handleToKey_, handle, &Notifiee::onHandleToKey);
}
void VantrelImpl::handleToKeyDelAll() {
  membersDelAll("handleToKey", *handleToKey_, &Notifiee::onHandleToKey);
}
void VantrelImpl::keyToHandleIs(EntryKey const& key, U64 handle) {
  memberIs("keyToHandle", *keyToHandle_, key, handle, &Notifiee::onKeyToHandle);
}
void VantrelImpl::keyToHandleDel(EntryKey const& key) {
  memberDel("keyToHandle", *keyToHandle_, key, &Notifiee::onKeyToHandle);
}
void VantrelImpl::keyToHandleDelAll() {
  membersDelAll("keyToHandle", *keyToHandle_, &Notifiee::onKeyToHandle);
}

void VantrelImpl::checkDeadlock() {}
void VantrelImpl::dumpPending() {}
void VantrelImpl::dumpState() {}
void VantrelImpl::handleDebug() {}

bool VantrelImpl::processDependantTables(EntryConfig const&, EntryKey const&) {
  momentStands();
  return true;
}

void VantrelImpl::processPending() { ENGINE_ASSERT(false); }

bool VantrelImpl::processEntry(EntryConfig const&) {
  ENGINE_ASSERT(false);
  return false;
}

bool VantrelImpl::processDelete(EntryKey const&, bool) {
  ENGINE_ASSERT(false);
  return false;
}

OpId VantrelImpl::currentOpId(EntryKey const&) const {
  ENGINE_ASSERT(false && "Not implemented in base class");
  return {};
}

U32 VantrelImpl::numPending() const {
  ENGINE_ASSERT(false);
  return 0;
}

U32 VantrelImpl::numDeadlock() const {
  ENGINE_ASSERT(false);
  return 0;
}

namespace {
std::string keysWouldBeLost(VantrelImpl const&) {
  return "a running engine that is not initialized would drop every key it is told of";
}
std::string ownersWouldBeLost(VantrelImpl const&) { return "the engine keeps who owns which handle itself"; }
}  // namespace

// processEntry, processDependantTables and readAndProcessDeps have no name: they take or return whole
// records, which a line on the management socket cannot carry. handleEntry does the same with the record in
// the table.
Ostra::TypeInfo const& VantrelImpl::staticType() {
  using I = VantrelImpl;
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<I>("Vantrel::VantrelImpl")
          .reference("tableConfig", &I::tableConfig)
          .reference("debugConfig", &I::debugConfig)
          .reference("debugStatus", &I::debugStatus)
          .reference("helper", &I::helper)
          .attribute("lgId", &I::lgId)
          .attribute("retryDepsMaxCnt", &I::retryDepsMaxCnt, &I::retryDepsMaxCntIs)
          .attribute("failedDepCnt", &I::failedDepCnt, &I::failedDepCntIs)
          .attribute("debugEnabled", &I::debugEnabled, &I::debugEnabledIs)
          .attribute("dirty", &I::dirty, &I::dirtyIs)
          .attribute("alwaysProcessPending", &I::alwaysProcessPending, &I::alwaysProcessPendingIs)
          .collection("handleToKey", &I::handleToKey, &I::handleToKeyIs, &I::handleToKeyDel)
          .refusedBecause(&ownersWouldBeLost)
          .collection("keyToHandle", &I::keyToHandle, &I::keyToHandleIs, &I::keyToHandleDel)
          .refusedBecause(&ownersWouldBeLost)
          .attribute("initialized", &I::initialized, &I::initializedIs)
          .refusedBecause(&keysWouldBeLost)
          .operation("handleToKeyDelAll", &I::handleToKeyDelAll)
          .refusedBecause(&ownersWouldBeLost)
          .operation("keyToHandleDelAll", &I::keyToHandleDelAll)
          .refusedBecause(&ownersWouldBeLost)
          .operation("failedDepCntInc", &I::failedDepCntInc)
          .operation("handleEntry", &I::handleEntry)
          .operation("handleEntryHelper", &I::handleEntryHelper)
          .operation("checkDeadlock", &I::checkDeadlock)
          .operation("processPending", &I::processPending)
          .operation("processDelete", &I::processDelete)
          .operation("currentOpId", &I::currentOpId)
          .attribute("numPending", &I::numPending)
          .attribute("numDeadlock", &I::numDeadlock)
          .operation("dumpPending", &I::dumpPending)
          .operation("dumpState", &I::dumpState)
          .operation("handleDebug", &I::handleDebug)
          .operation("handleInitialized", &I::handleInitialized);
  return type;
}

}  // namespace Vantrel
