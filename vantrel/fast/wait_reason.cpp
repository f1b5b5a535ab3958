// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/wait_reason.h"

#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

using Kind = WaitReason::Kind;

WaitReason reason(Kind kind, CState_s const& c, OpId opId, U32 ti, CState_s const* other) {
  WaitReason r{kind, opId, ti, c.sti, c.prio, c.pg, 0, std::nullopt};
  if (kind != Kind::NoClaim) r.since = static_cast<U64>(std::time(nullptr)) - waitClock(c.p.since);
  if (other) r.other = {other->key, other->prio, other->sti};
  return r;
}

bool waits(EntryConfig const& config, CState_s const& c) {
  return !config.empty() && !config.isDel() && config.tableIndexs() == 1 && config.opId() > c.opId;
}

}  // namespace

WaitReason FastVantrelImpl::waitReason(EntryKey const& key) const {
  CState_s const* const c = state()->record(key);
  if (!c) return {};
  switch (c->p.type) {
    case PendingType::Occupied:
      return reason(Kind::Occupied, *c, c->p.opId, c->p.ti, state()->positions.current.at(c->p.ti));
    case PendingType::Priority:
      return reason(Kind::Priority, *c, c->p.opId, c->p.ti, priorityBlocker(*c, c->p.ti));
    case PendingType::None:
      break;
  }
  EntryConfig const config = peekEntry(*tableConfig(), key);
  if (!waits(config, *c)) return {};
  U32 const ti = config.tableIndex(TableKey(0));
  return reason(Kind::NoClaim, *c, config.opId(), ti, newerAt(ti, config.opId()));
}

// Who claims the position with a version that is not older, or has come to it with one.
CState_s const* FastVantrelImpl::newerAt(U32 ti, OpId opId) const {
  if (CState_s const* const claimant = state()->pending.at(ti); claimant && claimant->p.opId >= opId)
    return claimant;
  CState_s const* const occupant = state()->positions.current.at(ti);
  return occupant && occupant->opId >= opId ? occupant : nullptr;
}

}  // namespace Vantrel
