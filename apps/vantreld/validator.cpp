// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/validator.h"

#include <fmt/format.h>

#include "vantrel/fast/state.h"

namespace Vantreld {
namespace {

using Vantrel::CState_s;
using Vantrel::EntryConfig;

// The mapping that the engine has now: an operator may set its shift while nothing is programmed.
std::optional<std::string> outsideTheMapping(U16 pg, U32 ti, Options const& o,
                                             Vantrel::FastVantrelImpl const& engine) {
  Vantrel::Mapping const chosen = o.mapping();
  if (chosen.isAlgorithmic())
    if (auto const why = chosen.violation(pg, ti)) return why;
  return Vantrel::Mapping::fast(engine.prioGrpShift()).violation(pg, chosen.offset(ti));
}

std::optional<std::string> outsideTheTable(EntryConfig const& r, U32 ti, Options const& o,
                                           Vantrel::FastVantrelImpl const& engine) {
  if (auto const why = outsideTheMapping(r.pg(), ti, o, engine)) return why;
  if (ti >= o.size) return fmt::format("position {}: expected one below the hardware's {}", ti, o.size);
  return std::nullopt;
}

// The engine keeps the group that a key had first, and trusts that OpIds rise.
std::optional<std::string> againstWhatIsKnown(EntryConfig const& r, U32 ti, Options const& o,
                                              Vantrel::FastVantrelImpl const& engine, CState_s const& known) {
  if (auto const why = outsideTheMapping(known.pg, ti, o, engine))
    return fmt::format("group {} of a live key changed to {}: {}", known.pg, r.pg(), *why);
  if (known.p.ti == ti && r.opId() < known.p.opId && r.opId() > known.opId)
    return fmt::format("OpId {}: expected one above {}, which waits", r.opId().value(), known.p.opId.value());
  return std::nullopt;
}

}  // namespace

std::optional<std::string> fault(EntryConfig const& r, Options const& o,
                                 Vantrel::FastVantrelImpl const& engine) {
  if (r.isDel()) return std::nullopt;
  auto const describe = [&r](std::string const& why) {
    return fmt::format("record of key {}: {}", r.key().value(), why);
  };
  if (r.tableIndexs() != 1)
    return describe(fmt::format("expected one table index, found {}", r.tableIndexs()));
  U32 const ti = r.tableIndex(Vantrel::TableKey(0));
  if (auto const why = outsideTheTable(r, ti, o, engine)) return describe(*why);
  if (CState_s const* const known = engine.state()->record(r.key()))
    if (auto const why = againstWhatIsKnown(r, ti, o, engine, *known)) return describe(*why);
  return std::nullopt;
}

}  // namespace Vantreld
