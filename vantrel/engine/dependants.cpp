// SPDX-License-Identifier: Apache-2.0
// Dependant tables: what an entry refers to in other hardware tables must exist before the entry is written.
//
//   read the configuration -> processDependantTables -> true: go on with the entry
//          ^                         | false
//          '-------------------------'   at most retryDepsMaxCnt attempts, then Ostra::InternalException
//
// The producer may still be writing the entry, so each attempt reads its record again. It does not wait
// between attempts, and it does not keep the key: the front end does, and hands it over again on a timer.
#include "ostra/exception.h"
#include "vantrel/core/trace.h"
#include "vantrel/engine/vantrel_impl.h"

namespace Vantrel {

// One variable and one return, so that the record is never copied on its way to the caller.
EntryConfig VantrelImpl::readAndProcessDeps(EntryKey const& key) {
  EntryConfig entry = readEntry(*tableConfig(), key);
  for (U32 attempts = 1;; ++attempts) {
    momentPassed();
    bool const programmed = processDependantTables(entry, key);
    if (programmed || entry.empty() || entry.isDel()) break;
    if (attempts >= retryDepsMaxCnt()) giveUpOnDependants(entry, key);
    entry = readEntry(*tableConfig(), key);
  }
  return entry;
}

void VantrelImpl::giveUpOnDependants(EntryConfig const& entry, EntryKey const& key) {
  failedDepCntInc(1);
  VANTREL_TRACE(vantrelImplTrace(), 8, "Failed to program dependant tables key:", key, " hdl:", entry.hdl());
  VANTREL_RECORD(2, lgId(), "Failed to program dependant tables key:", key, " hdl:", entry.hdl(),
                 " opId:", entry.opId());
  throw Ostra::InternalException("Failed to program dependant tables");
}

}  // namespace Vantrel
