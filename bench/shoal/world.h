// SPDX-License-Identifier: Apache-2.0
// The tables that are measured: one of each size to read and one to write, made when they are first needed,
// in a directory of shared memory that goes with the program.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "shoal/reader_table.h"
#include "shoal/table_view.h"
#include "shoal/writer_table.h"
#include "vantrel/core/tables.h"

namespace ShoalBench {

using Config = Vantrel::EntryConfig;
using Traits = Shoal::RecordTraits<Config>;
using Vantrel::DataKey;
using Vantrel::EntryKey;

// A record from its image, the elements that count.
inline Config decoded(std::byte const* image) {
  Config r = Traits::unset();
  std::memcpy(Traits::image(r), image, 104);
  std::memcpy(Traits::image(r) + 104, image + 104, 8 * std::min<U32>(r.datas(), 64));
  return r;
}

// The same from a slot, which keeps what is in use.
inline Config decodedSlot(std::byte const* slot) {
  U64 state;
  std::memcpy(&state, slot + 8, sizeof state);
  Shoal::Extent const extent = Shoal::Format::extent(state);
  std::byte const* const words = slot + Shoal::Format::slotHeadBytes;
  Config r = Traits::unset();
  std::memcpy(Traits::image(r), words, 8 * extent.head);
  std::memcpy(Traits::image(r) + 8 * Traits::tailAt, words + 8 * extent.head, 8 * extent.tail);
  return r;
}

// One table index and four data words.
inline Config record(U64 key, U64 version) {
  Config r(EntryKey{key}, Vantrel::OpId{version}, static_cast<U32>(key), 1, 100);
  r.tableIndexIs(Vantrel::TableKey(0), static_cast<U32>(key));
  for (unsigned i = 0; i < 4; ++i) r.dataIs(DataKey(i), key + i + 1);
  return r;
}

inline std::string const& directory() {
  struct Directory {
    std::string path = "/dev/shm/shoal-bench-XXXXXX";
    Directory() {
      if (!mkdtemp(path.data())) throw std::runtime_error("no directory in /dev/shm");
    }
    ~Directory() { std::filesystem::remove_all(path); }
  };
  static Directory const one;
  return one.path;
}

// A plain open-addressing table from a key to its record's slot in the mapped file.
class PlainTable {
 public:
  PlainTable(Shoal::TableView& view, U64 records) : mask_(std::bit_ceil(records * 2) - 1) {
    places_.assign(mask_ + 1, {0, nullptr});
    for (auto place = view.walk(0); place; place = view.walk(place->hint)) {
      U64 at = Shoal::Format::mix(place->key) & mask_;
      while (places_[at].slot) at = (at + 1) & mask_;
      U64 const slot = Shoal::Format::entryUnit(view.visited()->load()) * Shoal::Format::unitBytes;
      places_[at] = {place->key, view.mapping().base() + slot};
      slots_.push_back(places_[at].slot);
    }
    std::ranges::sort(slots_);
  }
  std::byte const* find(U64 key) const {
    U64 at = Shoal::Format::mix(key) & mask_;
    while (places_[at].key != key) at = (at + 1) & mask_;
    return places_[at].slot;
  }
  // In the order of memory.
  std::vector<std::byte const*> const& slots() const { return slots_; }

 private:
  struct Place {
    U64 key;
    std::byte const* slot;
  };
  U64 mask_;
  std::vector<Place> places_;
  std::vector<std::byte const*> slots_;
};

// Random odd keys; even ones are free for those who insert.
class World {
 public:
  enum class Use { read, write };
  static World& of(U64 records, Use use) {
    static std::map<std::pair<U64, Use>, std::unique_ptr<World>> all;
    auto& world = all[{records, use}];
    if (!world) world.reset(new World(records, use));
    return *world;
  }

  std::vector<U64> keys;
  std::vector<U64> order;  // keys at random, many times
  Shoal::WriterTable<Config> writer;
  Shoal::ReaderTable<Config> const reader;
  Ostra::Ptr<Shoal::ReaderTable<Config>> const watched;  // by somebody, and validated, as an agent's is
  Shoal::TableView view;
  PlainTable plain;  // of the table as it was filled
  U64 version = 1;   // last written
  U64 nextKey = 2;   // of a new record

 private:
  World(U64 records, Use use)
      : writer(path(records, use), {.replace = true}),
        reader((fill(records), path(records, use))),
        watched(Ostra::make<Shoal::ReaderTable<Config>>(path(records, use))),
        view(std::make_shared<Shoal::Mapping>(path(records, use), Shoal::Access::read)),
        plain(view, records) {
    watched->validatorIs(&validator_);
    watcher_.notifierIs(watched);
    watcher_.hasNotificationActiveIs(true);
  }
  static std::string path(U64 records, Use use) {
    return fmt::format("{}/{}-{}", directory(), static_cast<int>(use), records);
  }
  void fill(U64 records) {
    std::mt19937_64 random(records);
    keys.resize(records);
    for (U64& key : keys) writer.entryIs(record(key = random() | 1, 1));
    order.resize(std::clamp<U64>(records, 50000, 200000));
    for (U64& key : order) key = keys[random() % records];
  }

  class Validator final : public Shoal::ReaderTable<Config>::Validator {
   public:
    void validate(EntryKey const&, Config& r, char const* damage) override {
      if (damage || r.tableIndexs() != 1) throw Pallo::CorruptionDetectedException("no such record");
    }
  };

  Validator validator_;
  Shoal::Table<Config>::Notifiee watcher_;
};

}  // namespace ShoalBench
