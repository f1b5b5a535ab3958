// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/validator.h"

#include <fmt/format.h>

#include <utility>

#include "vantrel/fast/state.h"

namespace Vantreld {
namespace {

using Vantrel::CState_s;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::FastVantrelImpl;
using Vantrel::OpId;
using Vantrel::TableKey;
using Why = std::optional<std::string>;

Why outsideTheVersions(OpId opId) {
  if (opId == OpId()) return "OpId 0: expected one above 0";
  if (opId >= OpId::deleteAcknowledge())
    return fmt::format("OpId {}: expected one below {}, which acknowledges a delete", opId.value(),
                       OpId::deleteAcknowledge().value());
  return std::nullopt;
}

// The engine keeps a key's first group and priority and finds its neighbours by them, but the hardware client
// is given those of the record: they must not differ.
Why againstConstants(EntryConfig const& r, CState_s const& known) {
  auto const changed = [](char const* what, auto from, auto to) {
    return fmt::format("its {} changed from {} to {}: delete the key first", what, from, to);
  };
  if (r.pg() != known.pg) return changed("group", known.pg, r.pg());
  if (r.prio() != known.prio) return changed("priority", known.prio, r.prio());
  if (r.hdl() != known.hdl) return changed("handle", known.hdl, r.hdl());
  return std::nullopt;
}

// The engine never programs a version that is older than the programmed one. A version between the programmed
// one and the one that waits for the same position fails an assertion of the engine.
Why againstVersions(EntryConfig const& r, U32 ti, CState_s const& known) {
  if (r.opId() < known.opId)
    return fmt::format("OpId {}: expected one above {}, which is programmed", r.opId().value(),
                       known.opId.value());
  if (known.p.ti == ti && r.opId() < known.p.opId && r.opId() > known.opId)
    return fmt::format("OpId {}: expected one above {}, which waits", r.opId().value(), known.p.opId.value());
  return std::nullopt;
}

// The record that the engine programmed last. Its version keeps the engine from acting on it; its position
// ends a chain of waiting entries (vantrel/fast/deadlock.cpp).
EntryConfig asProgrammed(CState_s const& known) {
  EntryConfig record(known.key, known.opId, known.hdl, known.pg, known.prio);
  record.tableIndexIs(TableKey(0), known.programmed() ? known.sti : 0);
  return record;
}

}  // namespace

Validator::Validator(Vantrel::Mapping mapping, U32 size, FastVantrelImpl const& engine,
                     std::function<void(std::string const&)> report)
    : mapping_(mapping), size_(size), engine_(engine), report_(std::move(report)) {}

void Validator::validate(EntryKey const& key, EntryConfig& record, char const* damage) {
  Why const why = damage ? damage : fault(record);
  if (!why) return clear(key);
  if (refuse(key, *why)) report_(damage ? *why : fmt::format("record of key {}: {}", key.value(), *why));
  CState_s const* const known = engine_.state()->record(key);
  record = known ? asProgrammed(*known) : EntryConfig();
}

Why Validator::fault(EntryConfig const& r) const {
  if (r.isDel() || r.empty()) return std::nullopt;
  if (r.tableIndexs() != 1) return fmt::format("expected one table index, found {}", r.tableIndexs());
  U32 const ti = r.tableIndex(TableKey(0));
  if (auto why = outsideTheMapping(r.pg(), ti)) return why;
  if (ti >= size_) return fmt::format("position {}: expected one below the hardware's {}", ti, size_);
  if (auto why = outsideTheVersions(r.opId())) return why;
  CState_s const* const known = engine_.state()->record(r.key());
  if (!known) return std::nullopt;
  if (auto why = againstConstants(r, *known)) return why;
  return againstVersions(r, ti, *known);
}

// Checks against the engine's shift of now, which an operator may set while nothing is programmed.
Why Validator::outsideTheMapping(U16 pg, U32 ti) const {
  if (mapping_.isAlgorithmic())
    if (auto why = mapping_.violation(pg, ti)) return why;
  return Vantrel::Mapping::fast(engine_.prioGrpShift()).violation(pg, mapping_.offset(ti));
}

// Returns whether the key or the reason is new: the engine may read the same record many times.
bool Validator::refuse(EntryKey const& key, std::string const& reason) {
  bool const isNew = refused_.insert(key).second;
  auto const at = listed_.find(key);
  if (at != listed_.end()) return std::exchange(at->second, reason) != reason;
  if (listed_.size() < mostListed) return listed_.emplace(key, reason).second;
  return isNew;
}

void Validator::clear(EntryKey const& key) {
  if (refused_.empty() || refused_.erase(key) == 0) return;
  listed_.erase(key);
}

}  // namespace Vantreld
