// SPDX-License-Identifier: Apache-2.0
// What the tests of shared tables have in common: a directory of their own, records, and a watcher that keeps
// notes.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "tests/support/temp_dir.h"
#include "vantrel/core/tables.h"

namespace ShoalTest {

using Config = Vantrel::EntryConfig;
using Vantrel::DataKey;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;
using Writer = Shoal::WriterTable<Config>;
using Reader = Shoal::ReaderTable<Config>;

// A directory in memory.
struct Directory : TestSupport::TempDir {
  Directory() : TempDir("/dev/shm") {}
};

// A record whose every field follows from key and version: a mixture of two records shows.
inline Config record(U64 key, U64 version) {
  Config r(EntryKey(key), OpId(version), static_cast<U32>(key * 7 + version), static_cast<U16>(version % 9),
           static_cast<U32>(key ^ version));
  r.tableIndexIs(TableKey(0), static_cast<U32>(key + version));
  for (unsigned i = 0; i < 1 + (key + version) % 64; ++i)
    r.dataIs(DataKey(i), key * 1000003 + version * 31 + i);
  return r;
}
inline bool isWhole(Config const& r) { return r == record(r.key().value(), r.opId().value()); }

// Notes every notification, and what the table held then.
class Watcher : public Shoal::Table<Config>::Notifiee {
 public:
  void onEntry(EntryKey const& key) override {
    keys.push_back(key.value());
    Config const r = notifier()->entry(key);
    if (r == Config())
      seen.erase(key.value());
    else
      seen[key.value()] = r.opId().value();
  }
  void onEntryColl() override {
    ++collections;
    for (auto place = notifier()->first(); place; place = notifier()->next(*place)) {
      Config const r = notifier()->entry(place->key);
      if (r != Config()) seen[place->key.value()] = r.opId().value();
    }
  }
  std::vector<U64> keys;
  int collections = 0;
  std::map<U64, U64> seen;  // key to version
};

// A validator that is one function.
class Checks final : public Reader::Validator {
 public:
  using Check = std::function<void(EntryKey const&, Config&, char const* damage)>;
  explicit Checks(Check check) : check_(std::move(check)) {}
  void validate(EntryKey const& key, Config& record, char const* damage) override {
    check_(key, record, damage);
  }

 private:
  Check const check_;
};

inline bool readable(int fd, int milliseconds = 0) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, milliseconds) == 1;
}
// Dispatches until nothing more comes for `milliseconds`.
inline void settle(Reader& reader, int milliseconds = 0) {
  while (readable(reader.fd(), milliseconds)) reader.dispatch();
}
inline std::map<U64, U64> contents(Shoal::Table<Config> const& table) {
  std::map<U64, U64> all;
  for (auto place = table.first(); place; place = table.next(*place)) {
    Config const r = table.entry(place->key);
    EXPECT_TRUE(isWhole(r)) << place->key;
    all[place->key.value()] = r.opId().value();
  }
  return all;
}

}  // namespace ShoalTest
