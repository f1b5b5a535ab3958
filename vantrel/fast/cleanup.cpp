// SPDX-License-Identifier: Apache-2.0
// Clean-up: when an engine is destroyed, everything it programmed or acknowledged is withdrawn. Deletes queue
// their waiters as always, but the queue is not drained any more.
//
//   keyToHandle: 7 -> 70, 9 -> 90     programmed: | 9 |   | 7 |     9 waited for nothing, 7 claims position 0
//   delete 9, its status              programmed: |   |   | 7 |     7 is queued, and stays where it is
//   delete 7, its status; flush       programmed: |   |   |   |
//
// It does not touch the configuration table, nor a key that has no handle.
#include "ostra/piecewise_map.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/fast_vantrel_impl.h"

namespace Vantrel {

void FastVantrelImpl::doCleanup() {
  VANTREL_RECORD(3, lgId(), "doCleanup");
  // The deletes change the engine's state, never keyToHandle.
  for (auto at = keyToHandle().begin(); at != keyToHandle().end();) {
    EntryKey const key = at->first;
    processDelete(key, false);
    if (helper()) hardware().delStatus(key);
    if (++at != keyToHandle().end()) yield();
  }
  if (helper()) hardware().flush();
}

// Called by the destructor of each class that overrides pti: the clean-up must use the pti that the entries
// were programmed with.
void FastVantrelImpl::cleanupOnce() {
  if (cleanedUp_) return;
  cleanedUp_ = true;
  doCleanup();
}

}  // namespace Vantrel
