// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/explain.h"

#include <fmt/format.h>

#include <utility>

namespace VantrelCommand {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::TableKey;

Explainer::Explainer(Vantrel::TableConfig const& config, std::optional<Snapshot> snapshot,
                     std::string noSnapshot)
    : config_(config), snapshot_(std::move(snapshot)), noSnapshot_(std::move(noSnapshot)) {
  for (auto place = config_.first(); place; place = config_.next(*place)) {
    EntryConfig const entry = readEntry(config_, place->key);
    if (entry.tableIndexs() == 1)
      wishes_[entry.key().value()] = {entry.pg(), entry.prio(), entry.tableIndex(TableKey(0))};
  }
  if (!snapshot_) return;
  for (auto const& [ti, place] : snapshot_->programmed) programmedAt_[place.key.value()] = ti;
  for (auto const& [ti, place] : snapshot_->waiting) waitsFor_[place.key.value()] = ti;
}

Explanation Explainer::explain(EntryKey key) const {
  EntryConfig const entry = readEntry(config_, key);
  Explanation explanation{key, entry.opId(), std::nullopt, std::nullopt, std::nullopt, {}};
  std::string const why = reason(entry, explanation);
  explanation.text = fmt::format("key {} (OpId {}): {}", key.value(), entry.opId().value(), why);
  return explanation;
}

std::string Explainer::reason(EntryConfig const& entry, Explanation& explanation) const {
  if (entry == EntryConfig()) return "its record is gone from the table";
  if (!snapshot_) return noSnapshot_;
  if (entry.isDel()) return deleteReason(entry);
  if (auto const waits = waitsFor_.find(entry.key().value()); waits != waitsFor_.end()) {
    explanation.position = waits->second;
    return waitReason(entry, explanation);
  }
  auto const at = programmedAt(entry.key());
  if (!at)
    return "the agent neither holds it nor lets it wait: it has not seen it yet, or refuses the record";
  if (snapshot_->programmed.at(*at).opId == entry.opId())
    return fmt::format("it is at position {} in this version, and the hardware has not acknowledged it", *at);
  return fmt::format("it is at position {} in an older version, {}", *at,
                     snapshot_->programmed.at(*at).opId.value());
}

std::string Explainer::deleteReason(EntryConfig const& entry) const {
  auto const at = programmedAt(entry.key());
  return at ? fmt::format("it is to be deleted and still at position {}", *at)
            : "it is deleted, and the hardware has not acknowledged that";
}

std::string Explainer::waitReason(EntryConfig const& entry, Explanation& explanation) const {
  U32 const wanted = *explanation.position;
  if (auto const holder = snapshot_->programmed.find(wanted); holder != snapshot_->programmed.end()) {
    explanation.heldBy = holder->second.key;
    auto const next = wishes_.find(holder->second.key.value());
    std::string const more = next == wishes_.end() ? "which is no longer wanted"
                             : next->second.ti == wanted
                                 ? "which is to stay there"
                                 : fmt::format("which is to go to position {}", next->second.ti);
    return fmt::format("it waits for position {}, held by key {}, {}", wanted, holder->second.key.value(),
                       more);
  }
  if (auto const neighbour = misplacedNeighbour(entry)) {
    EntryKey const other = snapshot_->programmed.at(*neighbour).key;
    explanation.outranks = other;
    return fmt::format(
        "it waits for position {}, which is free, but key {} at position {} would be on its wrong side",
        wanted, other.value(), *neighbour);
  }
  return fmt::format("it waits for position {}, which is free", wanted);
}

std::optional<U32> Explainer::programmedAt(EntryKey key) const {
  auto const at = programmedAt_.find(key.value());
  if (at == programmedAt_.end()) return std::nullopt;
  return at->second;
}

// The nearest entry of its group that contradicts its priority at the position it wants.
std::optional<U32> Explainer::misplacedNeighbour(EntryConfig const& entry) const {
  U32 const wanted = entry.tableIndex(TableKey(0));
  std::optional<U32> nearest;
  for (auto const& [ti, place] : snapshot_->programmed) {
    auto const other = wishes_.find(place.key.value());
    if (other == wishes_.end() || other->second.pg != entry.pg() || place.key == entry.key()) continue;
    bool const wrong = ti < wanted ? other->second.prio > entry.prio() : other->second.prio < entry.prio();
    if (!wrong) continue;
    auto const distance = [&](U32 at) { return at < wanted ? wanted - at : at - wanted; };
    if (!nearest || distance(ti) < distance(*nearest)) nearest = ti;
  }
  return nearest;
}

}  // namespace VantrelCommand
