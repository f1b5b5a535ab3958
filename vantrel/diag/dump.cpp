// SPDX-License-Identifier: Apache-2.0
// The dump goes over each index in turn (precedence, pending, current) and writes a line for each of its
// records. What does not agree is noted on the way and fails an assertion when every line is written.
#include "vantrel/diag/dump.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/state.h"

namespace Vantrel {
namespace {

OpId lastDumpMax;  // the highest OpId of the previous dump in this process

template <class... Values>
void line(int level, Values const&... values) {
  VANTREL_TRACE(vantrelFastImplTrace(), level, values...);
}

// The highest of the OpIds that an entry's line shows, and of `so`.
OpId highest(EntryConfig const& config, CState_s const& c, OpId so) {
  if (!config.empty()) so = std::max(so, config.opId());
  if (c.programmed()) so = std::max(so, c.opId);
  if (c.p.ti != noIndex) so = std::max(so, c.p.opId);
  return so;
}

void describeConfig(std::ostream& out, EntryConfig const& config) {
  if (config.empty()) {
    out << "->delete";
    return;
  }
  out << "->cti:" << (config.tableIndexs() ? config.tableIndex(TableKey(0)) : 0)
      << " cOpId:" << config.opId();
}

void describeProgrammed(std::ostream& out, CState_s const& c) {
  if (c.programmed()) out << " sti:" << c.sti << " sOpId:" << c.opId;
}

void describeClaim(std::ostream& out, CState_s const& c) {
  if (c.p.ti == noIndex) return;
  out << " pending:" << c.p.ti << " pOpId:" << c.p.opId;
  if (c.p.type == PendingType::Priority) out << " PRIO";
  if (c.p.type == PendingType::Occupied) out << " OCC";
}

std::string describe(U32 index, EntryConfig const& config, CState_s const& c) {
  std::ostringstream out;
  if (index == noIndex)
    out << "[A]=";
  else
    out << "[" << index << "]=";
  out << c.key.value();
  describeConfig(out, config);
  describeProgrammed(out, c);
  describeClaim(out, c);
  out << " prio:" << c.prio << " pg:" << c.pg;
  return out.str();
}

// One run of dumpState.
class Dump {
 public:
  Dump(FastState const& state, TableConfig const& table) : state_(state), table_(table) {}

  void precedence() {
    if (positions_.precedence.count() == 0) return;
    line(9, "Precedence [pti]=key");
    for (auto at = positions_.precedence.atOrAbove(0); at; at = positions_.precedence.above(at->index))
      entry(at->index, at->value);
  }

  void pending() {
    if (state_.pending.count() == 0) return;
    line(9, "Pending [ti]=key -> pending_ti");
    for (auto at = state_.pending.atOrAbove(0); at; at = state_.pending.above(at->index)) {
      CState_s const* const c = at->value;
      entry(at->index, c);
      if (c->p.ti == at->index) continue;
      line(9, "pending index mismatch ", c->key, " at ", c->p.ti, " expected at ", at->index);
      fatal_ = true;
    }
  }

  void current() {
    line(9, "Current [ti]=key");
    for (auto const& [key, c] : state_.cstate) {
      if (c->programmed())
        occupy(*c);
      else
        entry(noIndex, c);
    }
    for (auto at = positions_.current.atOrAbove(0); at; at = positions_.current.above(at->index)) {
      CState_s const* const c = state_.record(occupied_[at->index]);
      FAST_ASSERT(c);
      entry(c->sti, c);
    }
  }

  void verdict() const {
    U32 const count = positions_.current.count();
    if (count != occupied_.size()) {
      line(9, "Occupied [ti] count: ", count, " current ", occupied_.size());
      for (auto at = positions_.current.atOrAbove(0); at; at = positions_.current.above(at->index))
        line(9, "[", at->index, "]");
    }
    FAST_ASSERT_AS(count == occupied_.size(), "count == occupied.size()");
    lastDumpMax = maxOpId_;
    FAST_ASSERT_AS(!fatal_, "fatal == false");
  }

 private:
  void entry(U32 index, CState_s const* c) {
    FAST_ASSERT(c);
    dumpEntry(index, readEntry(table_, c->key), c, lastDumpMax, maxOpId_);
  }
  void occupy(CState_s const& c) {
    auto const [at, isFirst] = occupied_.try_emplace(c.sti, c.key);
    if (isFirst) return;
    line(9, "duplicate ti ", c.sti, " key ", c.key, " existing key ", at->second);
    fatal_ = true;
    at->second = c.key;
  }

  FastState const& state_;
  Positions const& positions_ = state_.positions;
  TableConfig const& table_;
  std::map<U32, EntryKey> occupied_;  // position -> the record that claims to be programmed there
  bool fatal_ = false;
  OpId maxOpId_;
};

}  // namespace

void dumpEntry(U32 index, EntryConfig const& config, CState_s const* c, OpId, OpId& maxOpId) {
  FAST_ASSERT(c);
  maxOpId = highest(config, *c, maxOpId);
  VANTREL_TRACE(vantrelFastImplTrace(), 9, describe(index, config, *c));
}

void dumpState(FastState const& state, TableConfig const& table) {
  Dump dump(state, table);
  dump.precedence();
  dump.pending();
  dump.current();
  dump.verdict();
}

void dumpPending(FastState const& state) {
  for (auto at = state.pending.atOrAbove(0); at; at = state.pending.above(at->index))
    line(8, "Pending key=", at->value->key.value(), " index: ", at->index);
}

}  // namespace Vantrel
