// SPDX-License-Identifier: Apache-2.0
// Dependant tables: what an entry refers to in other hardware tables must exist before the entry is written.
// The producer may still be writing it, so a failed attempt is repeated at once with a fresh copy of the
// record, up to retryDepsMaxCnt attempts; then the key is given up until the front end's retry timer brings
// it back.
#include "ostra/exception.h"
#include "vantrel/core/trace.h"
#include "vantrel/engine/vantrel_impl.h"

namespace Vantrel {

// One variable, returned at one place: the record is never copied on its way.
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
