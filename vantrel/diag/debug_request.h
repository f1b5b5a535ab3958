// SPDX-License-Identifier: Apache-2.0
// Debug requests: the engine's claims and programmed positions, copied into DebugStatus. The version is
// written last, so that who sees it match sees a complete snapshot.
//
// Threading: the agent's thread.
// Cost: everything that the engine knows, once for each new version of the request.
// Errors: none of its own; what a watcher of the answer throws passes through.
#pragma once

namespace Vantrel {

class DebugConfig;
class DebugStatus;
class FastState;

// Answers the request, unless it is answered already. Version 0 asks for an empty answer.
void handleDebug(FastState const& state, DebugConfig const& request, DebugStatus& answer);

}  // namespace Vantrel
