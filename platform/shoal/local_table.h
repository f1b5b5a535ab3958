// SPDX-License-Identifier: Apache-2.0
// LocalTable<R>: a table inside one process, with the contract of the shared ones. A write notifies at once.
//
// Invariants: a record keeps its slot until it is removed; a freed slot is reused before a new one is made.
// Cost: one hash probe and one copy a read; a walk visits slots in order.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "shoal/table.h"

namespace Shoal {

// A hash map from a key to the number of a slot.
class VANTREL_API KeyIndex {
 public:
  KeyIndex();
  ~KeyIndex();
  std::optional<U32> find(U64 key) const;
  void insert(U64 key, U32 slot);
  void erase(U64 key);
  U64 size() const;

 private:
  struct Map;
  std::unique_ptr<Map> map_;
};

template <class R>
class LocalTable : public Table<R> {
 public:
  using Traits = RecordTraits<R>;
  using typename Table<R>::Key;
  using typename Table<R>::Place;

  explicit LocalTable(std::string name = "local") : Table<R>(std::move(name)) {}

  R entry(Key const& key) const override {
    auto const at = index_.find(key.value());
    return at ? slots_[*at].record : Traits::empty();
  }
  Change changeOf(Key const& key) const override {
    auto const at = index_.find(key.value());
    return at ? Change{.number = slots_[*at].change} : Change{};
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
    U64 const key = Traits::key(record).value();
    auto at = index_.find(key);
    if (!at) index_.insert(key, *(at = takeSlot()));
    slots_[*at] = {record, ++changes_};
  }
  // False when the key was absent.
  bool entryQuietlyDel(Key const& key) {
    auto const at = index_.find(key.value());
    if (!at) return false;
    slots_[*at].change = 0;
    free_.push_back(*at);
    index_.erase(key.value());
    return true;
  }
  // The notification alone.
  using Table<R>::notifyEntry;
  using Table<R>::notifyEntryColl;

 private:
  struct Slot {
    R record = Traits::empty();
    U64 change = 0;  // that wrote it; 0: free
  };

  std::optional<Place> from(U64 slot) const {
    while (slot < slots_.size() && slots_[slot].change == 0) ++slot;
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

  KeyIndex index_;
  std::deque<Slot> slots_;
  std::vector<U32> free_;
  U64 changes_ = 0;
};

}  // namespace Shoal
