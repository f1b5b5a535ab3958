// SPDX-License-Identifier: Apache-2.0
// Diagnostics: the functions that show an engine's state (dumps, debug requests) and change nothing. The
// engine calls them through this table, because fast may not include diag; vantrel/diag registers them before
// main() begins.
//
// Ownership: what is registered must live as long as the process.
// Threading: registered once, before any thread starts.
// Cost: nothing until one of them is called.
#pragma once

#include "vantrel/core/tables.h"

namespace Vantrel {

class FastState;
class VantrelImpl;

struct Diagnostics {
  void (*dumpPending)(FastState const& state);
  void (*dumpState)(FastState const& state, TableConfig const& table);
  void (*handleDebug)(VantrelImpl const& engine, FastState const& state);
};

// Registers them. Until then dumps write nothing and debug requests stay unanswered.
void diagnosticsAre(Diagnostics const& diagnostics);

}  // namespace Vantrel
