// SPDX-License-Identifier: Apache-2.0
// LocalTable<R>: a table inside one process, with the contract of the shared ones. A write notifies at once.
//
// Invariants: a record keeps its slot until it is removed; a freed slot is reused before a new one is made.
// Cost: one hash probe and one copy a read; a walk visits slots in order.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <deque>
#include <vector>

#include "shoal/table.h"

namespace Shoal {

template <class R>
class LocalTable : public Table<R> {
 public:
  using Traits = RecordTraits<R>;
  using typename Table<R>::Key;
  using typename Table<R>::Place;

  explicit LocalTable(std::string name = "local") : Table<R>(std::move(name)) {}

  R entry(Key const& key) const override {
    auto const at = index_.find(key.value());
    return at == index_.end() ? Traits::empty() : slots_[at->second].record;
  }
  std::optional<Place> first() const override { return from(0); }
  std::optional<Place> next(Place const& place) const override { return from(place.hint + 1); }
  U64 size() const override { return index_.size(); }

  void entryIs(R const& record) override {
    entryQuietlyIs(record);
    this->notifyEntry(Traits::key(record));
  }
  void entryDel(Key const& key) override {
    if (entryQuietlyDel(key)) this->notifyEntry(key);
  }

  // The change alone; nobody is told.
  void entryQuietlyIs(R const& record) {
    auto const [at, inserted] = index_.try_emplace(Traits::key(record).value(), 0);
    if (inserted) at->second = takeSlot();
    slots_[at->second] = {record, true};
  }
  // False when the key was absent.
  bool entryQuietlyDel(Key const& key) {
    auto const at = index_.find(key.value());
    if (at == index_.end()) return false;
    slots_[at->second].used = false;
    free_.push_back(at->second);
    index_.erase(at);
    return true;
  }
  // The notification alone.
  using Table<R>::notifyEntry;
  using Table<R>::notifyEntryColl;

 private:
  struct Slot {
    R record = Traits::empty();
    bool used = false;
  };

  std::optional<Place> from(U64 slot) const {
    while (slot < slots_.size() && !slots_[slot].used) ++slot;
    if (slot == slots_.size()) return std::nullopt;
    return Place{Traits::key(slots_[slot].record), slot};
  }
  U32 takeSlot() {
    if (free_.empty()) {
      slots_.emplace_back();
      return static_cast<U32>(slots_.size() - 1);
    }
    U32 const slot = free_.back();
    free_.pop_back();
    return slot;
  }

  boost::unordered_flat_map<U64, U32> index_;
  std::deque<Slot> slots_;
  std::vector<U32> free_;
};

}  // namespace Shoal
