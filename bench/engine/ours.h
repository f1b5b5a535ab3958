// SPDX-License-Identifier: Apache-2.0
// The engine with an in-process table and the base hardware client, which programs nothing and writes the
// engine's own acknowledgements into a status table.
//
// Ownership: an Ours gives back all its engine's memory; its records return to the process's pool in the
//   order in which a fresh pool has them.
#pragma once

#include "bench/engine/layout.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

namespace Bench {

// A table that counts how often it is read.
class CountingTable : public Shoal::LocalTable<EntryConfig> {
 public:
  EntryConfig entry(EntryKey const& key) const override {
    ++reads_;
    return LocalTable::entry(key);
  }
  U64 reads() const { return reads_; }

 private:
  mutable U64 reads_ = 0;
};

class Ours {
 public:
  using Table = Shoal::LocalTable<EntryConfig>;
  explicit Ours(U32 shift, Ostra::Ptr<Table> table = Ostra::make<Table>());
  ~Ours();

  Table& table() { return *table_; }

  // Each is one notified key.
  void add(EntryKey key) { engine_->handleEntry(key); }
  void update(EntryKey key) { engine_->handleEntry(key); }
  void acknowledge(EntryKey key) { engine_->handleEntry(key); }
  void move(EntryKey key) { engine_->handleEntry(key); }
  void block(EntryKey key) { engine_->handleEntry(key); }
  void unblock(EntryKey key) { engine_->handleEntry(key); }
  void remove(EntryKey key) { engine_->handleEntry(key); }
  void removeWaking(EntryKey key) { engine_->handleEntry(key); }
  void blockMove(EntryKey key) { engine_->handleEntry(key); }
  void closeRing(EntryKey key) { engine_->handleEntry(key); }
  // A front end that starts on the table: every key, then a flush.
  void walk();

  Vantrel::FastVantrelImpl& engine() { return *engine_; }

 private:
  Ostra::Ptr<Table> table_;
  Ostra::Ptr<Shoal::LocalTable<Vantrel::EntryStatus>> status_ =
      Ostra::make<Shoal::LocalTable<Vantrel::EntryStatus>>();
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine_;
};

// The same with breakMixedRings.
class OursMixed : public Ours {
 public:
  explicit OursMixed(U32 shift, Ostra::Ptr<Table> table = Ostra::make<Table>())
      : Ours(shift, std::move(table)) {
    engine().breakMixedRingsIs(true);
  }
};

}  // namespace Bench
