// SPDX-License-Identifier: Apache-2.0
// The work queue: an entry that waits for a position is retried when a change may have removed its obstacle.
//
//   pending:  ti 4 -> key 7      addToWorkq(4):  workq [ 7 ]      processPending():  handleEntryHelper(7)
//
// The queue is edge-triggered: waiting entries are never scanned. A queued entry keeps its claim until its
// retry renews or ends it. Keys queued while a drain runs are retried in the same drain. A key whose retry
// fails is handed to the front end with breakMixedRings, and lost without it.
#include "ostra/exception.h"
#include "vantrel/core/probe.h"
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
  VANTREL_PROBE(wake_up, waiter.key.value(), waiter.p.ti);
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
  retry(key);
}

void FastVantrelImpl::retry(EntryKey const& key) try {
  handleEntryHelper(key);
} catch (Ostra::InternalException const&) {
  if (!breakMixedRings()) throw;
  retryFailed(key);
}

// Leaves the key to the front end's timer. Its claim ends: nobody would wake it a second time, and it would
// stay when its obstacle is gone. Without a front end the caller learns of it.
void FastVantrelImpl::retryFailed(EntryKey const& key) {
  if (CState_s* const c = state()->record(key)) state()->clearPending(c->p, true);
  dirtyIs(true);
  if (!retryLater(key)) throw;
}

}  // namespace Vantrel
