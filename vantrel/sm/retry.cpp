// SPDX-License-Identifier: Apache-2.0
// Retry: keys whose dependants failed come back on the timer. All share one wake-up, armed by the first
// failure after a pass; a pass hands over each waiting key once, in ascending order. A key that fails again
// goes back to its own place, which the pass has left behind: it is not tried twice in one pass.
#include "vantrel/core/trace.h"
#include "vantrel/sm/vantrel_sm.h"

namespace Vantrel {

bool VantrelSm::failedKeyDel(EntryKey const& key) {
  auto const at = failedKey_.find(key);
  if (at == failedKey_.end()) return false;
  bool const value = at->second;
  failedKey_.erase(at);
  return value;
}

void VantrelSm::handleRetry() {
  VANTREL_TRACE_ENTRY(vantrelSmTrace(), 8, "Vantrel", "handleRetry");
  retryTimerSetIs(false);
  for (auto at = failedKey_.begin(); at != failedKey_.end();) {
    EntryKey const key = at->first;
    failedKey_.erase(at);
    VantrelSm::handleEntry(key);
    at = failedKey_.upper_bound(key);
  }
}

}  // namespace Vantrel
