// SPDX-License-Identifier: Apache-2.0
// One line of a state dump, as dumpState() writes many: what the producer wants of a key beside what the
// engine has made of it.
//
//   [4]=77->cti:9 cOpId:12 sti:4 sOpId:11 pending:9 pOpId:12 OCC prio:30 pg:1
//
// Threading: the agent's thread.
// Cost: nothing is formatted while the facility's level is below 9.
// Errors: a record that is not there is an assertion.
#pragma once

#include "vantrel/core/entry.h"

namespace Vantrel {

struct CState_s;

// Writes one record under `index` (0xFFFFFFFF: known but not programmed) at facility level 9, and raises
// maxOpId to every OpId it shows. `lastMax`, the highest of the last dump, is not used.
VANTREL_API void dumpEntry(U32 index, EntryConfig const& config, CState_s const* c, OpId lastMax,
                           OpId& maxOpId);

}  // namespace Vantrel
