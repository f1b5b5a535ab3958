// SPDX-License-Identifier: Apache-2.0
// One line of a state dump.
#pragma once

#include "vantrel/core/entry.h"

namespace Vantrel {

struct CState_s;

// Writes one record under `index` (0xFFFFFFFF: known but not programmed) at facility level 9, and raises
// maxOpId to every OpId it shows. `lastMax`, the highest of the last dump, is not used.
VANTREL_API void dumpEntry(U32 index, EntryConfig const& config, CState_s const* c, OpId lastMax,
                           OpId& maxOpId);

}  // namespace Vantrel
