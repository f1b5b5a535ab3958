// SPDX-License-Identifier: Apache-2.0
// Answers a debug request: empties the four collections of DebugStatus, fills them from the engine's state,
// and writes the version last.
#include "vantrel/diag/debug_request.h"

#include <array>

#include "vantrel/core/trace.h"
#include "vantrel/engine/debug_entities.h"
#include "vantrel/engine/vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

void empty(DebugStatus& answer) {
  answer.pendingDelAll();
  answer.pendingOpIdDelAll();
  answer.statusDelAll();
  answer.statusOpIdDelAll();
}

constexpr std::size_t membersAtOnce = 256;  // between two yields

void showClaims(VantrelImpl const& engine, FastState const& state, DebugStatus& answer) {
  std::size_t shown = 0;
  for (auto claim = state.pending.atOrAbove(0); claim; claim = state.pending.above(claim->index)) {
    CState_s const& c = *claim->value;
    answer.pendingIs(c.p.ti, c.key);
    answer.pendingOpIdIs(c.key, c.p.opId);
    if (++shown % membersAtOnce == 0) engine.yield();
  }
}

void show(CState_s const& c, DebugStatus& answer) {
  if (!c.programmed()) return;
  answer.statusIs(c.sti, c.key);
  answer.statusOpIdIs(c.key, c.opId);
}

// The records are scattered over the memory: 32 are prefetched at a time before they are shown.
void showProgrammed(VantrelImpl const& engine, FastState const& state, DebugStatus& answer) {
  std::array<CState_s const*, 32> fetched;
  std::size_t shown = 0;
  for (auto at = state.cstate.begin(); at != state.cstate.end();) {
    std::size_t n = 0;
    for (; n < fetched.size() && at != state.cstate.end(); ++n, ++at)
      __builtin_prefetch(fetched[n] = at->second);
    for (std::size_t i = 0; i < n; ++i) show(*fetched[i], answer);
    shown += n;
    if (shown % membersAtOnce == 0) engine.yield();
  }
}

}  // namespace

void handleDebug(VantrelImpl const& engine, FastState const& state) {
  DebugStatus& answer = *engine.debugStatus();
  U32 const requested = engine.debugConfig()->version();
  U32 const answered = answer.version();
  if (requested == answered) return;
  VANTREL_TRACE(vantrelFastImplTrace(), 9, "dumping debug state ", requested, " ", answered);
  empty(answer);
  if (requested != 0) {
    showClaims(engine, state, answer);
    showProgrammed(engine, state, answer);
  }
  answer.versionIs(requested);
}

}  // namespace Vantrel
