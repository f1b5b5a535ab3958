// SPDX-License-Identifier: Apache-2.0
// Retry: a key whose dependant tables failed is kept, and handed to the engine again when a timer fires. All
// failed keys share one wake-up, armed by the first failure after a pass. A pass hands over each key once, in
// ascending order:
//
//   failedKey 3, 5, 9    pass: 3 succeeds, 5 fails again, 9 succeeds    failedKey 5, a new wake-up armed
//                                    '-- inserted behind the pass, which goes on to 9: tried once
//
// There is no back-off and no limit: a key is retried every retryPeriod seconds until it succeeds. Without a
// timer wheel failed keys are kept, and no pass is made.
#include "ostra/clock.h"
#include "vantrel/sm/reactors.h"

namespace Vantrel {

bool VantrelSm::failedKeyDel(EntryKey const& key) {
  auto const at = failedKey_.find(key);
  if (at == failedKey_.end()) return false;
  bool const value = at->second;
  failedKeyDel(at);
  return value;
}

FailedKeys::const_iterator VantrelSm::failedKeyDel(FailedKeys::const_iterator at) {
  EntryKey const key = at->first;
  auto const removed = failedKey_.erase(at);
  failedKeyNotify(key);
  return removed;
}

void VantrelSm::failedKeyDelAll() {
  for (auto at = failedKey_.begin(); at != failedKey_.end(); ++at) at = failedKeyDel(at);
}

void VantrelSm::doScheduleRetry(EntryKey const& key) {
  SM_TRACE_ENTRY("doScheduleRetry");
  if (timerReactor_ && timerReactor_->notifier() && !retryTimerSet()) {
    timerReactor_->timeMinIs(Ostra::now() + retryPeriod());
    retryTimerSetIs(true);
  }
  failedKeyIs(key, true);
}

void VantrelSm::handleRetry() {
  SM_TRACE_ENTRY("handleRetry");
  auto const keep = Ostra::keepAlive(this);
  retryTimerSetIs(false);
  for (auto at = failedKey_.begin(); at != failedKey_.end(); ++at) {
    EntryKey const key = at->first;
    at = failedKeyDel(at);
    VantrelSm::handleEntry(key);
    if (failedKey_.upper_bound(key) != failedKey_.end()) vantrelImpl()->yield();
  }
}

}  // namespace Vantrel
