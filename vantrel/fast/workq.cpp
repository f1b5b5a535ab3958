// SPDX-License-Identifier: Apache-2.0
// The work queue: whoever waits for a position is retried when a change may have removed its obstacle.
//
//   pending:  ti 4 -> key 7      addToWorkq(4):  workq [ 7 ]      processPending():  handleEntryHelper(7)
//
// The queue is edge-triggered: nothing is ever rescanned. A queued entry keeps its claim; its retry decides
// what becomes of it. Keys queued while a drain runs are retried in the same drain.
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

void FastState::clearPending(EntryPState_s& p, bool unindex) {
  p.opId = OpId();
  if (unindex && p.ti != noIndex) {
    bool const removed = pending.remove(p.ti);
    FAST_ASSERT_AS(removed, "rc == 1");
  }
  p.ti = noIndex;
  p.type = PendingType::None;
}

void FastState::addToWorkq(U32 ti) {
  CState_s const* const waiter = pending.at(ti);
  if (!waiter) return;
  VANTREL_TRACE(vantrelFastImplTrace(), 9, "adding ", waiter->key, " to workq");
  VANTREL_RECORD(9, lgId(), "adding key:", waiter->key, " to workq");
  if (workqSet.insert(waiter->key.value())) workq.push_back(waiter->key);
}

void FastVantrelImpl::processPending() {
  FAST_ASSERT(initialized());
  VANTREL_TRACE(vantrelFastImplTrace(), 8, __func__);
  while (!state()->workq.empty()) {
    EntryKey const key = state()->workq.front();
    state()->workq.pop_front();
    bool const removed = state()->workqSet.remove(key.value());
    FAST_ASSERT_AS(removed, "rc");
    VANTREL_TRACE(vantrelFastImplTrace(), 8, "trying pending ", key);
    VANTREL_RECORD(9, lgId(), "pending key:", key);
    handleEntryHelper(key);
  }
}

}  // namespace Vantrel
