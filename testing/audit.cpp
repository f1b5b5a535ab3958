// SPDX-License-Identifier: Apache-2.0
#include "testing/audit.h"

#include <algorithm>
#include <string>

namespace Testing {

using Vantrel::CState_s;
using Vantrel::EntryConfig;
using Vantrel::FastState;
using Vantrel::noIndex;
using Vantrel::PendingType;
using Vantrel::TableKey;

namespace {

void require(bool condition, char const* what, U64 key) {
  if (!condition) throw Broken(std::string(what) + ", key " + std::to_string(key));
}

// Where the indexes should have a record: its own place, unless it is the one that is being changed.
U32 indexedAt(CState_s const& c, InFlight const& change) {
  if (change.key != c.key.value()) return c.sti;
  switch (change.kind) {
    case EventKind::Add:
    case EventKind::Move:
      return change.ti;
    case EventKind::Delete:
    case EventKind::DeleteDeadlock:
      return noIndex;
    default:
      return c.sti;
  }
}

void auditClaim(FastState const& state, CState_s const& c) {
  U64 const key = c.key.value();
  if (c.p.ti == noIndex) {
    require(c.p.opId.value() == 0 && c.p.type == PendingType::None, "a claim on nothing", key);
    return;
  }
  require(state.pending.at(c.p.ti) == &c, "a claim that is not in the pending index", key);
  require(c.p.opId > c.opId, "a claim that is not newer than what is programmed", key);
  require(c.p.type == PendingType::Occupied || c.p.type == PendingType::Priority, "a claim without a reason",
          key);
}

void auditWorkq(FastState const& state) {
  std::vector<U64> seen;
  for (auto const& key : state.workq) {
    require(state.workqSet.contains(key.value()), "queued but not in the set", key.value());
    require(std::find(seen.begin(), seen.end(), key.value()) == seen.end(), "queued twice", key.value());
    seen.push_back(key.value());
  }
  require(!seen.empty() || state.workqSet.empty(), "an empty queue and a set that is not", 0);
  for (auto const& [key, c] : state.cstate) {
    bool const queued = std::find(seen.begin(), seen.end(), key.value()) != seen.end();
    require(queued || !state.workqSet.contains(key.value()), "in the set but not queued", key.value());
  }
}

}  // namespace

U32 precedenceIndex(EngineChoice const& engine, U16 pg, U32 ti) {
  U32 const place = engine.atcam ? ti / engine.maxPartitions : ti;
  return static_cast<U32>((U64{pg} << engine.shift()) + place);
}

void audit(FastState const& state, EngineChoice const& engine, InFlight const& change) {
  Vantrel::Positions const& positions = state.positions;
  U32 claims = 0;
  U32 priorityClaims = 0;
  U32 programmed = 0;
  for (auto const& [key, c] : state.cstate) {
    require(c->key == key, "a record under another key", key.value());
    auditClaim(state, *c);
    if (c->p.ti != noIndex) ++claims;
    if (c->p.type == PendingType::Priority && c->programmed() && state.priorityClaims.at(c->p.ti) == c)
      ++priorityClaims;
    U32 const at = indexedAt(*c, change);
    if (at == noIndex) continue;
    ++programmed;
    require(positions.current.at(at) == c, "not in the current index", key.value());
    require(positions.precedence.at(precedenceIndex(engine, c->pg, at)) == c, "not in the precedence index",
            key.value());
  }
  require(state.pending.count() == claims, "more pending indexes than claims", change.key);
  require(state.priorityClaims.count() == priorityClaims, "a claim on the order that is none", change.key);
  require(positions.current.count() == programmed, "more current indexes than programmed records",
          change.key);
  require(positions.precedence.count() == programmed, "more precedence indexes than programmed records",
          change.key);
  for (auto const& key : state.blocked) require(state.record(key), "blocked but unknown", key.value());
  auditWorkq(state);
}

std::vector<HardwareView::Place>::iterator HardwareView::placeOf(U64 key) {
  return std::find_if(places_.begin(), places_.end(), [&](Place const& p) { return p.key == key; });
}

void HardwareView::call(EventKind kind, EntryConfig const& entry, U32 prio, U16 pg) {
  U64 const key = entry.key().value();
  auto const old = placeOf(key);
  if (kind == EventKind::Add) {
    require(old == places_.end(), "added twice", key);
    take({entry.tableIndex(TableKey(0)), key, prio, pg});
    return;
  }
  require(old != places_.end(), "not in hardware", key);
  if (kind == EventKind::Update) return;
  if (kind == EventKind::Move) {
    std::size_t const oldIndex = static_cast<std::size_t>(old - places_.begin());
    take({entry.tableIndex(TableKey(0)), key, prio, pg});
    places_.erase(places_.begin() + static_cast<std::ptrdiff_t>(oldIndex));
    checkOrder();
    return;
  }
  require(entry.tableIndexs() == 1 && entry.tableIndex(TableKey(0)) == old->ti, "deleted elsewhere", key);
  places_.erase(old);
}

void HardwareView::take(Place const& place) {
  for (Place const& p : places_) require(p.ti != place.ti, "two entries at one position", place.key);
  places_.push_back(place);
  checkOrder();
}

void HardwareView::checkOrder() const {
  for (Place const& a : places_)
    for (Place const& b : places_) {
      if (a.pg != b.pg || precedenceIndex(engine_, a.pg, a.ti) >= precedenceIndex(engine_, b.pg, b.ti))
        continue;
      require(a.prio <= b.prio, "a lower priority behind a higher one in its group", a.key);
    }
}

}  // namespace Testing
