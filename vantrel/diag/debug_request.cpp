// SPDX-License-Identifier: Apache-2.0
// Debug requests: the engine's claims and programmed positions, copied into DebugStatus. The version is
// written last, so that who sees it match sees a complete snapshot.
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"
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

void showProgrammed(FastState const& state, DebugStatus& answer) {
  for (auto const& [key, c] : state.cstate) {
    if (!c->programmed()) continue;
    answer.statusIs(c->sti, key);
    answer.statusOpIdIs(key, c->opId);
  }
}

}  // namespace

void FastVantrelImpl::handleDebug() {
  FAST_ASSERT(debugConfig());
  FAST_ASSERT(debugStatus());
  U32 const requested = debugConfig()->version();
  U32 const answered = debugStatus()->version();
  if (requested == answered) return;
  VANTREL_TRACE(vantrelFastImplTrace(), 9, "dumping debug state ", requested, " ", answered);
  DebugStatus& answer = *debugStatus();
  empty(answer);
  if (requested != 0) {
    showClaims(*state(), answer);
    showProgrammed(*state(), answer);
  }
  answer.versionIs(requested);
}

}  // namespace Vantrel
