// SPDX-License-Identifier: Apache-2.0
// Debug requests: the engine's claims and programmed positions, copied into DebugStatus. The version is
// written last: a reader that finds the version it asked for sees a complete snapshot.
//
// Threading: the agent's thread.
// Cost: everything that the engine knows, once for each new version of the request.
// Errors: none of its own; an exception of a watcher of DebugStatus passes through.
#pragma once

namespace Vantrel {

class FastState;
class VantrelImpl;

// Answers the engine's request, unless it is answered already. Version 0 asks for an empty answer. Yields now
// and then; what the agent throws then leaves the request unanswered.
void handleDebug(VantrelImpl const& engine, FastState const& state);

}  // namespace Vantrel
