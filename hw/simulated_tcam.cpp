// SPDX-License-Identifier: Apache-2.0
// Only the nearest neighbours of what a call changed are looked at: every other pair was in order before and
// still is.
#include "hw/simulated_tcam.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"

namespace Hw {

using Vantrel::EntryStatus;
using Vantrel::TableKey;

namespace {

U32 positionOf(SimulatedTcam::EntryConfig const& record) { return record.tableIndex(TableKey(0)); }

}  // namespace

char const* toText(Rule rule) {
  switch (rule) {
    case Rule::OnePosition:
      return "a record names exactly one position";
    case Rule::PositionInRow:
      return "the position is one of the row's";
    case Rule::PositionFree:
      return "the position is free";
    case Rule::KeyAbsent:
      return "an added key is not in the row";
    case Rule::KeyPresent:
      return "the key is in the row";
    case Rule::PositionOfEntry:
      return "a delete names the position where the key is";
    case Rule::PrioritiesAscend:
      return "priorities of a group do not decrease along the row";
  }
  return "unknown rule";
}

std::string SimulatedTcam::describe(Entry const& e) {
  return fmt::format("key {} (group {}, priority {}, position {})", e.key.value(), e.pg, e.prio, e.ti);
}

void SimulatedTcam::violationHandlerIs(ViolationHandler handler) {
  handler_ = handler ? std::move(handler) : [](Violation const& violation) { throw violation; };
}

std::optional<SimulatedTcam::Entry> SimulatedTcam::entry(EntryKey const& key) const {
  auto const found = entries_->find(key);
  return found == entries_->end() ? std::nullopt : std::optional(found->second);
}

std::optional<SimulatedTcam::Entry> SimulatedTcam::at(U32 ti) const {
  auto const found = positions_.find(ti);
  if (found == positions_.end()) return std::nullopt;
  if (!leaving_.empty())
    if (auto const old = leaving_.find(found->second); old != leaving_.end() && old->second.ti == ti)
      return old->second;
  return entry(found->second);
}

void SimulatedTcam::addEntry(EntryConfig const& record) {
  countOne("adds", count_.adds);
  if (auto const twin = entry(record.key())) {
    broken(Rule::KeyAbsent,
           fmt::format("add at {}: {} is there already", positionOf(record), describe(*twin)));
    return;
  }
  if (!canPlace("add", record)) return;
  Entry& made = (*entries_)[record.key()];
  made = {record.key(), record.opId(), record.pg(), record.prio(), positionOf(record)};
  auto const here = order_.try_emplace({made.pg, made.ti}, made.prio).first;
  memberIs("positions", positions_, made.ti, made.key, &Notifiee::onPosition);
  checkOrder("add", here);
  acknowledge(record.key(), record.opId());
}

void SimulatedTcam::moveEntry(EntryConfig const& record) {
  countOne("moves", count_.moves);
  Entry* const moved = find("move", record);
  if (!moved || !canPlace("move", record)) return;
  U32 const old = std::exchange(moved->ti, positionOf(record));
  moved->opId = record.opId();
  auto const here = reordered(*moved, old);
  memberIs("positions", positions_, moved->ti, moved->key, &Notifiee::onPosition);  // made,
  memberDel("positions", positions_, old, &Notifiee::onPosition);                   // then broken
  checkOrder("move", here);
  acknowledge(record.key(), record.opId());
}

void SimulatedTcam::updateEntry(EntryConfig const& record) {
  countOne("updates", count_.updates);
  Entry* const updated = find("update", record);
  if (!updated || !namesOnePosition("update", record)) return;
  updated->opId = record.opId();
  if (positionOf(record) == updated->ti) acknowledge(record.key(), record.opId());
}

void SimulatedTcam::deleteEntry(EntryConfig const& record) {
  countOne("deletes", count_.deletes);
  remove("delete", record);
}

void SimulatedTcam::deleteEntryDeadlock(EntryConfig const& record) {
  countOne("deadlockDeletes", count_.deadlockDeletes);
  remove("deadlock delete", record);
}

void SimulatedTcam::flush() { countOne("flushes", count_.flushes); }

void SimulatedTcam::remove(char const* call, EntryConfig const& record) {
  Entry* const gone = find(call, record);
  if (!gone || !namesOnePosition(call, record)) return;
  if (positionOf(record) != gone->ti) {
    broken(Rule::PositionOfEntry, fmt::format("{} at {}: {}", call, positionOf(record), describe(*gone)));
    return;
  }
  order_.erase({gone->pg, gone->ti});
  memberDel("positions", positions_, gone->ti, &Notifiee::onPosition);
  entries_->erase(record.key());
  if (!tableStatus()) return;
  if (record.opId() == OpId::deleteAcknowledge())
    acknowledge(record.key(), record.opId());
  else
    tableStatus()->entryDel(record.key());
}

void SimulatedTcam::acknowledge(EntryKey const& key, OpId const& opId) {
  if (tableStatus()) tableStatus()->entryIs(EntryStatus(key, opId));
}

bool SimulatedTcam::broken(Rule rule, std::string const& text) {
  countOne("violations", count_.violations);
  Violation const violation(rule, fmt::format("{}: broken by {}", toText(rule), text));
  scalarIs("lastViolation", lastViolation_, violation.what(), &Notifiee::onViolation);
  handler_(violation);
  return false;
}

bool SimulatedTcam::namesOnePosition(char const* call, EntryConfig const& record) {
  if (record.tableIndexs() == 1) return true;
  return broken(Rule::OnePosition, fmt::format("{} of key {}, which names {}", call, record.key().value(),
                                               record.tableIndexs()));
}

bool SimulatedTcam::canPlace(char const* call, EntryConfig const& record) {
  return namesOnePosition(call, record) && isFree(call, record.key(), positionOf(record));
}

bool SimulatedTcam::isFree(char const* call, EntryKey const& key, U32 ti) {
  if (ti >= size_)
    return broken(Rule::PositionInRow,
                  fmt::format("{} of key {} to position {}, the row has {}", call, key.value(), ti, size_));
  if (auto const holder = at(ti))
    return broken(Rule::PositionFree, fmt::format("{} of key {} to position {}, held by {}", call,
                                                  key.value(), ti, describe(*holder)));
  return true;
}

SimulatedTcam::Entry* SimulatedTcam::find(char const* call, EntryConfig const& record) {
  auto const found = entries_->find(record.key());
  if (found != entries_->end()) return &found->second;
  broken(Rule::KeyPresent, fmt::format("{} of key {}, which is not in the row", call, record.key().value()));
  return nullptr;
}

void SimulatedTcam::checkOrder(char const* call, Order::const_iterator here) {
  auto const& [place, prio] = *here;
  if (here != order_.begin())
    if (auto const& [left, above] = *std::prev(here); left.first == place.first && above > prio)
      outOfOrder(call, left.second, place.second);
  if (auto const next = std::next(here); next != order_.end())
    if (auto const& [right, below] = *next; right.first == place.first && below < prio)
      outOfOrder(call, place.second, right.second);
}

void SimulatedTcam::outOfOrder(char const* call, U32 left, U32 right) {
  broken(Rule::PrioritiesAscend,
         fmt::format("{}: {} lies before {}", call, describe(*at(left)), describe(*at(right))));
}

// Most moves lead to the next free position: close to where the entry was, there is its place to be found.
SimulatedTcam::Order::iterator SimulatedTcam::reordered(Entry const& entry, U32 from) {
  auto const was = order_.find({entry.pg, from});
  auto const near = std::next(was);
  auto node = order_.extract(was);
  node.key().second = entry.ti;
  return order_.insert(near, std::move(node));
}

std::string SimulatedTcam::audit() const {
  if (entries_->size() + leaving_.size() != positions_.size() || positions_.size() != order_.size())
    return fmt::format("{} entries, {} positions, {} in order", entries_->size() + leaving_.size(),
                       positions_.size(), order_.size());
  for (auto const& [ti, key] : positions_) {
    auto const e = at(ti);
    if (!e || e->ti != ti)
      return fmt::format("position {} names key {}, which is not there", ti, key.value());
  }
  std::optional<Entry> left;
  for (auto const& [place, prio] : order_) {
    auto const e = at(place.second);
    if (!e || place != std::pair(e->pg, e->ti) || prio != e->prio)
      return fmt::format("position {} of group {} is listed with priority {}, which no entry there has",
                         place.second, place.first, prio);
    if (left && left->pg == e->pg && left->prio > e->prio)
      return fmt::format("{} lies before {}", describe(*left), describe(*e));
    left = e;
  }
  return "";
}

Ostra::TypeInfo const& SimulatedTcam::staticType() {
  using T = SimulatedTcam;
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<T>("Hw::SimulatedTcam", &VantrelHelper::staticType())
          .attribute("size", &T::size)
          .attribute("entries", &T::entries)
          .attribute("addLatency", &T::addLatency, &T::addLatencyIs)
          .attribute("updateLatency", &T::updateLatency, &T::updateLatencyIs)
          .attribute("moveLatency", &T::moveLatency, &T::moveLatencyIs)
          .attribute("deleteLatency", &T::deleteLatency, &T::deleteLatencyIs)
          .attribute("busyRate", &T::busyRate, &T::busyRateIs)
          .attribute("refusedRate", &T::refusedRate, &T::refusedRateIs)
          .attribute("unknownRate", &T::unknownRate, &T::unknownRateIs)
          .attribute("capacity", &T::capacity, &T::capacityIs)
          .attribute("diesAt", &T::diesAt, &T::diesAtIs)
          .attribute("atOnce", &T::atOnce, &T::atOnceIs)
          .attribute("writes", &T::writes)
          .attribute("adds", &T::adds)
          .attribute("updates", &T::updates)
          .attribute("moves", &T::moves)
          .attribute("deletes", &T::deletes)
          .attribute("deadlockDeletes", &T::deadlockDeletes)
          .attribute("flushes", &T::flushes)
          .attribute("violations", &T::violations)
          .attribute("lastViolation", &T::lastViolation)
          .collection("positions", &T::positions)
          .operation("latencyIs", &T::latencyIs);
  return type;
}

}  // namespace Hw
