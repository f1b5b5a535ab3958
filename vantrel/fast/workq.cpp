// SPDX-License-Identifier: Apache-2.0
// The work queue: an entry that waits for a position is retried when a change may have removed its obstacle.
//
//   pending:  ti 4 -> key 7      addToWorkq(4):  workq [ 7 ]      processPending():  handleEntryHelper(7)
//
// The queue is edge-triggered: waiting entries are never scanned. A queued entry keeps its claim until its
// retry renews or ends it. Keys queued while a drain runs are retried in the same drain. It does not keep a
// key whose retry failed.
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

void FastState::unindexClaim(U32 ti) {
  bool const removed = pending.remove(ti);
  FAST_ASSERT_AS(removed, "rc == 1");
}

void FastState::queue(CState_s const& waiter) {
  VANTREL_TRACE(vantrelFastImplTrace(), 9, "adding ", waiter.key, " to workq");
  VANTREL_RECORD(9, lgId(), "adding key:", waiter.key, " to workq");
  if (workqSet.insert(waiter.key.value())) workq.push_back(waiter.key);
}

void FastVantrelImpl::processPending() {
  FAST_ASSERT(initialized());
  VANTREL_TRACE(vantrelFastImplTrace(), 8, __func__);
  while (!state()->workq.empty()) {
    retryNext();
    if (!state()->workq.empty()) yield();
  }
}

// Out of line: mostly the queue is empty.
[[gnu::noinline]] void FastVantrelImpl::retryNext() {
  EntryKey const key = state()->workq.front();
  state()->workq.pop_front();
  bool const removed = state()->workqSet.remove(key.value());
  FAST_ASSERT_AS(removed, "rc");
  VANTREL_TRACE(vantrelFastImplTrace(), 8, "trying pending ", key);
  momentPassed();
  VANTREL_RECORD(9, lgId(), "pending key:", key);
  if (CState_s* const c = state()->record(key)) state()->chains.claimRetried(c->p);
  handleEntryHelper(key);
}

}  // namespace Vantrel
