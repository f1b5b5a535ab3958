// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <unordered_set>
#include <utility>

#include "ostra/piecewise_map.h"

namespace VantrelCommand {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;
using Kind = Vantrel::WaitReason::Kind;

template <class Map>
auto find(Map const& map, typename Map::key_type key) {
  auto const at = map.find(key);
  return at == map.end() ? std::nullopt : std::optional(at->second);
}

// Of those among `keys` that the map of positions holds.
std::unordered_map<U64, U32> positionsOf(std::vector<EntryKey> const& keys,
                                         Vantrel::DebugStatus::KeyAtIndex const& map) {
  std::unordered_set<U64> wanted;
  for (EntryKey const key : keys) wanted.insert(key.value());
  std::unordered_map<U64, U32> positions;
  for (auto const& [ti, key] : map)
    if (wanted.contains(key.value())) positions[key.value()] = ti;
  return positions;
}

// What is wanted of an entry that is at a position for which another one waits.
std::string plans(EntryConfig const& holder, U32 position) {
  if (holder == EntryConfig() || holder.isDel()) return "which is no longer wanted";
  U32 const next = holder.tableIndexs() == 1 ? holder.tableIndex(TableKey(0)) : position;
  return next == position ? "which is to stay there" : fmt::format("which is to go to position {}", next);
}

std::string obstacle(Wait const& wait, Vantrel::TableConfig const& config, U32 wanted) {
  if (!wait.blocker) return "which is free";
  auto const [key, position] = *wait.blocker;
  if (wait.kind == Kind::Occupied)
    return fmt::format("held by key {}, {}", key.value(), plans(readEntry(config, key), wanted));
  return fmt::format("which is free, but key {} at position {} would be on its wrong side", key.value(),
                     position);
}

std::optional<Wait::Blocker> blockerOf(Snapshot const& snapshot, EntryKey key) {
  auto const position = find(snapshot.waits->blocker(), key);
  auto const holder = position ? find(snapshot.places->status(), *position) : std::nullopt;
  if (!holder) return std::nullopt;
  return Wait::Blocker{*holder, *position};
}

}  // namespace

std::string duration(U64 seconds) {
  if (seconds < 120) return fmt::format("{} s", seconds);
  if (seconds < 7200) return fmt::format("{} min", seconds / 60);
  return fmt::format("{} h", seconds / 3600);
}

Wait waitOf(Snapshot const& snapshot, Vantrel::TableConfig const& config, EntryKey key, U32 wanted) {
  auto const since = find(snapshot.waits->since(), key);
  U64 const now = static_cast<U64>(std::time(nullptr));
  Wait wait{find(snapshot.waits->kind(), key).value_or(Kind::None),
            blockerOf(snapshot, key),
            since ? now - std::min(*since, now) : 0,
            {}};
  wait.text = fmt::format("it waits for position {}, {}, for {}", wanted, obstacle(wait, config, wanted),
                          duration(wait.seconds));
  return wait;
}

Explainer::Explainer(Vantrel::TableConfig const& config, std::optional<Snapshot> snapshot,
                     std::string noSnapshot, std::vector<EntryKey> const& keys)
    : config_(config), snapshot_(std::move(snapshot)), noSnapshot_(std::move(noSnapshot)) {
  if (!snapshot_) return;
  programmedAt_ = positionsOf(keys, snapshot_->places->status());
  waitsFor_ = positionsOf(keys, snapshot_->places->pending());
}

std::string Explainer::explain(EntryKey key) const {
  EntryConfig const entry = readEntry(config_, key);
  return fmt::format("key {} (OpId {}): {}", key.value(), entry.opId().value(), reason(entry));
}

std::string Explainer::reason(EntryConfig const& entry) const {
  if (entry == EntryConfig()) return "its record is gone from the table";
  if (!snapshot_) return noSnapshot_;
  auto const at = programmedAt_.find(entry.key().value());
  bool const programmed = at != programmedAt_.end();
  if (entry.isDel())
    return programmed ? fmt::format("it is to be deleted and still at position {}", at->second)
                      : "it is deleted, and the hardware has not acknowledged that";
  if (auto const waits = waitsFor_.find(entry.key().value()); waits != waitsFor_.end())
    return waitOf(*snapshot_, config_, entry.key(), waits->second).text;
  if (!programmed)
    return "the agent neither holds it nor lets it wait: it has not seen it yet, or refuses the record";
  OpId const version = find(snapshot_->places->statusOpId(), entry.key()).value_or(OpId());
  if (auto const* refusal = snapshot_->hardware.refusalOf(entry.key(), entry.opId()))
    return fmt::format("the hardware refuses it: {}", refusal->reason);
  if (version == entry.opId())
    return fmt::format("it is at position {} in this version, and the hardware has not acknowledged it",
                       at->second);
  return fmt::format("it is at position {} in an older version, {}", at->second, version.value());
}

}  // namespace VantrelCommand
