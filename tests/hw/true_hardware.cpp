// SPDX-License-Identifier: Apache-2.0
#include "tests/hw/true_hardware.h"

#include <fmt/format.h>

#include <algorithm>

namespace TestHw {

void TrueHardware::write(EntryConfig const& entry, U32 ti) {
  if (ti >= size()) return brokenIs(fmt::format("write at {}, outside of the row", ti));
  auto const& there = row_[ti];
  if (there && there->key() != entry.key())
    brokenIs(fmt::format("write of key {} over key {} at {}", entry.key().value(), there->key().value(), ti));
  row_[ti] = entry;
  if (positionsOf(entry.key()).size() > 2)
    brokenIs(fmt::format("key {} is at three positions", entry.key().value()));
  checkOrder(entry, ti);
}

void TrueHardware::erase(EntryKey const& key, U32 ti) {
  if (ti >= size()) return brokenIs(fmt::format("erase at {}, outside of the row", ti));
  if (row_[ti] && row_[ti]->key() != key)
    brokenIs(fmt::format("erase of key {} at {}, where key {} is", key.value(), ti, row_[ti]->key().value()));
  row_[ti].reset();
}

void TrueHardware::checkOrder(EntryConfig const& entry, U32 ti) {
  for (U32 other = 0; other < size(); ++other) {
    auto const& there = row_[other];
    if (!there || other == ti || there->pg() != entry.pg()) continue;
    if (other < ti ? there->prio() > entry.prio() : there->prio() < entry.prio())
      brokenIs(fmt::format("key {} at {} and key {} at {} are out of order", entry.key().value(), ti,
                           there->key().value(), other));
  }
}

std::vector<U32> TrueHardware::positionsOf(EntryKey const& key) const {
  std::vector<U32> found;
  for (U32 ti = 0; ti < size(); ++ti)
    if (row_[ti] && row_[ti]->key() == key) found.push_back(ti);
  return found;
}

std::optional<OpId> TrueHardware::versionOf(EntryKey const& key) const {
  std::optional<OpId> newest;
  for (U32 const ti : positionsOf(key)) newest = std::max(newest, std::optional(row_[ti]->opId()));
  return newest;
}

std::string TrueHardware::text() const {
  std::string all;
  for (U32 ti = 0; ti < size(); ++ti)
    if (row_[ti])
      all += fmt::format("{}{}@{} v{:x}", all.empty() ? "" : ", ", row_[ti]->key().value(), ti,
                         row_[ti]->opId().value());
  return all.empty() ? "empty" : all;
}

}  // namespace TestHw
