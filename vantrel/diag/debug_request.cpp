// SPDX-License-Identifier: Apache-2.0
// Answers a debug request: empties the four collections of DebugStatus, fills them from the engine's state,
// and writes the version last.
#include "vantrel/diag/debug_request.h"

#include <array>

#include "vantrel/core/trace.h"
#include "vantrel/engine/debug_entities.h"
#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

void empty(DebugStatus& answer) {
  answer.pendingDelAll();
  answer.pendingOpIdDelAll();
  answer.statusDelAll();
  answer.statusOpIdDelAll();
}

void showClaims(FastState const& state, DebugStatus& answer) {
  for (auto claim = state.pending.atOrAbove(0); claim; claim = state.pending.above(claim->index)) {
    CState_s const& c = *claim->value;
    answer.pendingIs(c.p.ti, c.key);
    answer.pendingOpIdIs(c.key, c.p.opId);
  }
}

void show(CState_s const& c, DebugStatus& answer) {
  if (!c.programmed()) return;
  answer.statusIs(c.sti, c.key);
  answer.statusOpIdIs(c.key, c.opId);
}

// The records are scattered over the memory: 32 are prefetched at a time before they are shown.
void showProgrammed(FastState const& state, DebugStatus& answer) {
  std::array<CState_s const*, 32> fetched;
  for (auto at = state.cstate.begin(); at != state.cstate.end();) {
    std::size_t n = 0;
    for (; n < fetched.size() && at != state.cstate.end(); ++n, ++at)
      __builtin_prefetch(fetched[n] = at->second);
    for (std::size_t i = 0; i < n; ++i) show(*fetched[i], answer);
  }
}

}  // namespace

void handleDebug(FastState const& state, DebugConfig const& request, DebugStatus& answer) {
  U32 const requested = request.version();
  U32 const answered = answer.version();
  if (requested == answered) return;
  VANTREL_TRACE(vantrelFastImplTrace(), 9, "dumping debug state ", requested, " ", answered);
  empty(answer);
  if (requested != 0) {
    showClaims(state, answer);
    showProgrammed(state, answer);
  }
  answer.versionIs(requested);
}

}  // namespace Vantrel
