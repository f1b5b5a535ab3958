// SPDX-License-Identifier: Apache-2.0
// WriterTable<R>: a table in a file, of which this object is the one writer.
//
// Invariants, Cost: those of TableWriter. Its own watchers are told at once, as a LocalTable's are.
// Ownership: the writer's lock goes with the object, or with the process.
// Threading: one thread.
// Errors: FileException when the file is not such a table; WriterLockedException, naming the process that
//   holds it; NoSpaceException when the file system is full, and the table is as it was.
#pragma once

#include <array>
#include <string>
#include <utility>

#include "shoal/error.h"
#include "shoal/image.h"
#include "shoal/straight_read.h"
#include "shoal/table.h"
#include "shoal/table_writer.h"

namespace Shoal {

template <class R>
class WriterTable : public Table<R> {
 public:
  using Traits = RecordTraits<R>;
  using typename Table<R>::Key;
  using typename Table<R>::Place;

  // Opens the table at `path`, or makes it.
  explicit WriterTable(std::string const& path, WriterOptions const& options = {})
      : Table<R>(path), writer_(path, shapeOf<R>(), options) {
    writer_.view().damageSinkIs([this](std::string_view what) { this->corruptionDetected(what); });
  }

  R entry(Key const& key) const override {
    R record = StraightRead<R>::blank();
    bool const found = straight_(writer_.view(), record, key.value()) ||
                       (LiesAsItsImage<R> && StraightRead<R>::overCopy(writer_.view(), record, key.value()));
    if (!found) record = recordOf<R>(writer_.view(), key);
    return record;
  }
  std::optional<Place> first() const override { return walk(0); }
  std::optional<Place> next(Place const& place) const override { return walk(place.hint); }
  U64 size() const override { return writer_.view().size(); }

  void entryIs(R const& record) override {
    std::array<std::byte, Traits::bytes> image;
    Traits::encode(record, image.data());
    writer_.put(Traits::key(record).value(), image.data());
    this->notifyEntry(Traits::key(record));
  }
  void entryDel(Key const& key) override {
    if (writer_.remove(key.value())) this->notifyEntry(key);
  }
  // Removes every record.
  void cleanup() {
    writer_.removeAll();
    this->notifyEntryColl();
  }
  WriterCounters writerCounters() const { return writer_.counters(); }
  // Changes that the file has ever seen, from all its writers.
  U64 changes() const { return writer_.view().head(); }

 private:
  std::optional<Place> walk(U64 hint) const {
    auto const place = writer_.view().walk(hint);
    if (!place) return std::nullopt;
    return Place{Key(place->key), place->hint};
  }

  typename StraightRead<R>::Function const straight_ = StraightRead<R>::forThisProcessor();
  mutable TableWriter writer_;
};

}  // namespace Shoal
