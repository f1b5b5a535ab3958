// SPDX-License-Identifier: Apache-2.0
// Diagnostics: what looks at an engine's state and decides nothing. The engine calls it and does not know it;
// who provides it (vantrel/diag) registers it before main() begins.
//
// Ownership: what is registered lives as long as the process.
// Threading: registered once, before any thread.
// Cost: nothing until it is asked for.
#pragma once

#include "vantrel/core/tables.h"

namespace Vantrel {

class DebugConfig;
class DebugStatus;
class FastState;

struct Diagnostics {
  void (*dumpPending)(FastState const& state);
  void (*dumpState)(FastState const& state, TableConfig const& table);
  void (*handleDebug)(FastState const& state, DebugConfig const& request, DebugStatus& answer);
};

// Without, dumps write nothing and debug requests stay unanswered.
void diagnosticsAre(Diagnostics const& diagnostics);

}  // namespace Vantrel
