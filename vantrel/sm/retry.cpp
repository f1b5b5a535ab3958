// SPDX-License-Identifier: Apache-2.0
// Retry: keys whose dependants failed come back on the timer. All share one wake-up, armed by the first
// failure after a pass; a pass hands over each waiting key once, in ascending order. A key that fails again
// goes back to its own place, which the pass has left behind: it is not tried twice in one pass.
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

// Without a wheel the key is kept all the same, and nothing brings it back.
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
