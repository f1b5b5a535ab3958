// SPDX-License-Identifier: Apache-2.0
// Adoption: an agent that starts takes over what hardware holds from an earlier run, instead of erasing it.
//
//   driver.contents() --> adopt(): the engine is shown each entry where it is --> executor: nothing to write
//   then the producer's table is handed over as ever, and only the difference reaches hardware
//
// An entry that the engine cannot take over as it is, is erased: one whose group or priority the table has
// changed, a second place of a key that was being moved, an entry in an order that the engine's mapping does
// not allow, a position that cannot be read.
//
// An entry whose record in the table is the same word for word is shown with its version: nothing is written.
// One whose record differs is shown with a version just below the wanted one, unless its own is lower and
// tells that match or action changed. So the engine rewrites it, though the producer may have begun its
// versions anew; it is updated and moved as any other, and not absent in between.
#pragma once

#include <functional>
#include <vector>

#include "hw/driver.h"
#include "hw/executor.h"
#include "vantrel/engine/vantrel_impl.h"

namespace Hw {

struct Adopted {
  U64 entries = 0;  // that the engine took over
  U64 erased = 0;   // positions whose contents it did not
  // Taken over, and absent from the table: the agent hands these to the engine after its walk of the table.
  std::vector<Vantrel::EntryKey> unwanted;
};

// Requires an engine without entries, in front of that executor and driver. `wanted` is the table that the
// engine will read. `fits`: the engine's mapping has a place for the entry (null: for each).
// Yields between keys (VantrelImpl::Yield): an exception of betweenKeys() passes through, and what was not
// taken over yet stays inherited (Executor::eraseInherited).
VANTREL_API Adopted adopt(Vantrel::VantrelImpl& engine, Executor& executor, Driver& driver,
                          Vantrel::TableConfig const& wanted,
                          std::function<bool(Vantrel::EntryConfig const&)> const& fits = nullptr);

}  // namespace Hw
