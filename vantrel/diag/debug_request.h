// SPDX-License-Identifier: Apache-2.0
// Debug requests: the engine's claims and programmed positions, copied into DebugStatus. The version is
// written last: a reader that finds the version it asked for sees a complete snapshot.
//
// Threading: the agent's thread.
// Cost: everything that the engine knows, once for each new version of the request.
// Errors: none of its own; an exception of a watcher of DebugStatus passes through.
#pragma once

namespace Vantrel {

class DebugConfig;
class DebugStatus;
class FastState;

// Answers the request, unless it is answered already. Version 0 asks for an empty answer.
void handleDebug(FastState const& state, DebugConfig const& request, DebugStatus& answer);

}  // namespace Vantrel
