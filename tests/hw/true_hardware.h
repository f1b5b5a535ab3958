// SPDX-License-Identifier: Apache-2.0
// TrueHardware: what a row of positions really holds, for tests. Every question is answered by a look at each
// position.
//
// Invariants: after every write and erase the entries of a group are in order, a position holds one entry and
//   a key is at no more than two; what breaks that is kept in broken().
// Ownership: none.
// Threading: one thread.
// Cost: linear in the positions.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vantrel/core/entry.h"

namespace TestHw {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

constexpr TableKey position(0);

class TrueHardware {
 public:
  explicit TrueHardware(U32 size) : row_(size) {}

  void write(EntryConfig const& entry, U32 ti);
  void erase(EntryKey const& key, U32 ti);
  // Puts it there, unchecked: what an earlier run left, or damage. Nothing: the position is free.
  void put(U32 ti, std::optional<EntryConfig> const& entry) { row_.at(ti) = entry; }

  U32 size() const { return static_cast<U32>(row_.size()); }
  std::optional<EntryConfig> const& at(U32 ti) const { return row_.at(ti); }
  std::vector<U32> positionsOf(EntryKey const& key) const;
  bool holds(EntryKey const& key) const { return !positionsOf(key).empty(); }
  // The newest version of the key that is held.
  std::optional<OpId> versionOf(EntryKey const& key) const;
  // "key@position" and version, of each that is held.
  std::string text() const;

  // The first thing that went wrong, empty when nothing did.
  std::string const& broken() const { return broken_; }
  void brokenIs(std::string const& what) {
    if (broken_.empty()) broken_ = what + "; the row is " + text();
  }

 private:
  void checkOrder(EntryConfig const& entry, U32 ti);

  std::vector<std::optional<EntryConfig>> row_;
  std::string broken_;
};

}  // namespace TestHw
