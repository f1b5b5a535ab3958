// SPDX-License-Identifier: Apache-2.0
// WriterTable<R>: a table in a file, of which this object is the one writer.
//
// Invariants, Cost: those of FileWriter. Its own watchers are told at once, as a LocalTable's are.
// Ownership: the writer's lock goes with the object, or with the process.
// Threading: one thread.
// Errors: FileException when the file is not such a table; WriterLockedException, naming the process that
//   holds it; NoSpaceException when the file system is full, and the table is as it was. Damage of the index
//   is healed from the records; a damaged record is replaced by the next write of its key.
#pragma once

#include <array>
#include <string>

#include "pallo/exception.h"
#include "shoal/error.h"
#include "shoal/table.h"
#include "shoal/table_file.h"

namespace Shoal {

template <class R>
class WriterTable : public Table<R> {
 public:
  using Traits = RecordTraits<R>;
  using typename Table<R>::Key;
  using typename Table<R>::Place;

  // Opens the table at `path`, or makes it.
  explicit WriterTable(std::string const& path, WriterOptions const& options = {})
      : Table<R>(path), file_(path, shapeOf<R>(), options) {}

  R entry(Key const& key) const override {
    R record = Traits::unset();
    Extent const extent = file_.read(key.value(), Traits::image(record));
    if (extent.isEmpty()) return Traits::empty();
    Traits::accept(record, extent);
    return record;
  }
  Change changeOf(Key const& key) const override { return file_.changeOf(key.value()); }
  std::optional<Place> first() const override { return this->placeOf(file_.walk(0)); }
  std::optional<Place> next(Place const& place) const override {
    return this->placeOf(file_.walk(place.hint));
  }
  U64 size() const override { return file_.size(); }

  void entryIs(R const& record) override {
    alignas(U64) std::array<std::byte, Traits::bytes> image;
    Extent const extent = Traits::encode(record, image.data());
    file_.put(Traits::key(record).value(), image.data(), extent);
    this->notifyEntry(Traits::key(record));
  }
  void entryDel(Key const& key) override {
    if (file_.remove(key.value())) this->notifyEntry(key);
  }
  // Removes every record.
  void cleanup() {
    for (U64 const key : file_.removeAll()) this->notifyEntry(Key(key));
  }
  // Takes the space for so many records in all now: as long as there are no more, no write lacks any. Throws
  // NoSpaceException, and the table is as it was.
  void reserve(U64 records) { file_.reserve(records); }
  WriterCounters writerCounters() const { return file_.counters(); }
  // Changes that the table has ever seen, from all its writers, in the files it replaced too.
  U64 changes() const { return file_.changes(); }

 private:
  FileWriter file_;
};

}  // namespace Shoal
