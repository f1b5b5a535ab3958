// SPDX-License-Identifier: Apache-2.0
// Dump and audit: writes the whole state as text and checks that its indexes agree. A line shows the key's
// configuration (c), what is programmed (s) and what is pending (p):
//
//   [4]=77->cti:9 cOpId:12 sti:4 sOpId:11 pending:9 pOpId:12 OCC prio:30 pg:1
//
// Threading: the agent's thread.
// Cost: nothing is formatted while the facility's level is below 9.
// Errors: a broken invariant fails an assertion, but only after the whole dump is written, so that the trace
//   shows the state. Nothing is repaired.
#pragma once

#include "vantrel/core/tables.h"

namespace Vantrel {

struct CState_s;
class FastState;

// Everything, at facility level 9; the claims alone, at level 8.
void dumpState(FastState const& state, TableConfig const& table);
void dumpPending(FastState const& state);

// Writes one record under `index` (0xFFFFFFFF: known but not programmed) at facility level 9, and raises
// maxOpId to every OpId it shows. `lastMax`, the highest of the last dump, is not used.
void dumpEntry(U32 index, EntryConfig const& config, CState_s const* c, OpId lastMax, OpId& maxOpId);

}  // namespace Vantrel
