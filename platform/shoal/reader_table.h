// SPDX-License-Identifier: Apache-2.0
// ReaderTable<R>: a table in a file that another process writes, mounted read-only.
//
// Poll fd(); when it is readable, call dispatch(), which notifies. A watcher that kept up is notified key by
// key; one that fell behind the ring of changes, or whose file was replaced by another, is notified of each
// key that it was told of or met in a walk and that vanished, and then of the whole collection.
//
// Invariants: no change is ever lost: when dispatch() has nothing more to tell, the watchers have been told
//   of the last change of every key. The first call of fd() or dispatch() begins the watch; what was
//   announced since the table was mounted is told then.
// Ownership: the watch goes with the object.
// Threading: one thread.
// Cost: a read is a look-up and a copy of the words in use. At rest, one look a second.
// Errors: FileException at construction unless the table is awaited. A damaged record throws
//   Pallo::CorruptionDetectedException, one of impossible array sizes Pallo::InvalidSizeException, unless a
//   validator deals with it. Whatever writes throws Pallo::NoPermissionException.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "pallo/exception.h"
#include "shoal/error.h"
#include "shoal/table.h"
#include "shoal/table_file.h"

namespace Shoal {

template <class R>
class ReaderTable : public Table<R>, private FileReader::Sink {
 public:
  using Traits = RecordTraits<R>;
  using typename Table<R>::Key;
  using typename Table<R>::Place;
  using Presence = FileReader::Presence;
  // Called with each record that was read; an absent key's is empty. It may change the record, or throw
  // Pallo::CorruptionDetectedException. `damage` says what was wrong with a record that could not be read,
  // and is null otherwise; what the validator then makes of the record, which is empty, is returned.
  class Validator {
   public:
    virtual void validate(Key const& key, R& record, char const* damage) = 0;

   protected:
    ~Validator() = default;
  };

  explicit ReaderTable(std::string const& path, Presence presence = Presence::required)
      : Table<R>(path), file_(path, shapeOf<R>(), *this, presence) {}

  // It must live as long as the table, or until it is taken away by null.
  void validatorIs(Validator* validator) { validator_ = validator; }

  std::string const& path() const { return file_.path(); }
  // There is a table at the path now; and why not, when something else is there.
  bool mounted() const { return file_.mounted(); }
  std::string const& problem() const { return file_.problem(); }

  int fd() { return file_.fd(); }
  void dispatch() {
    auto const keep = Ostra::keepAlive(this);  // a watcher may drop the last reference
    file_.dispatch();
  }
  // How long one dispatch() may go on telling, seconds.
  void sliceIs(double seconds) { file_.sliceIs(seconds); }

  R entry(Key const& key) const override {
    R record = Traits::unset();
    try {
      read(key, record);
    } catch (Pallo::Exception const& damage) {
      if (!validator_) throw;
      record = Traits::empty();
      validator_->validate(key, record, damage.what());
      return record;
    }
    if (validator_) validator_->validate(key, record, nullptr);
    return record;
  }
  R peek(Key const& key) const override {
    R record = Traits::unset();
    read(key, record);
    return record;
  }
  Change changeOf(Key const& key) const override { return file_.changeOf(key.value()); }
  std::optional<Place> first() const override { return walk(0); }
  std::optional<Place> next(Place const& place) const override { return walk(place.hint); }
  U64 size() const override { return file_.size(); }

  void entryIs(R const&) override { throw Pallo::NoPermissionException("write to read-only Shoal table"); }
  void entryDel(Key const&) override {
    throw Pallo::NoPermissionException("remove from read-only Shoal table");
  }
  void cleanup() { throw Pallo::NoPermissionException("cleanup of read-only Shoal table"); }
  [[noreturn]] void writerCounters() const {
    throw Pallo::UnimplementedException("writerCounters() not implemented");
  }

 private:
  [[gnu::always_inline]] void read(Key const& key, R& record) const {
    Extent const extent = file_.read(key.value(), Traits::image(record));
    if (!extent.isEmpty()) [[likely]]
      Traits::accept(record, extent);
    else
      record = Traits::empty();
  }
  std::optional<Place> walk(U64 hint) const {
    return this->placeOf(file_.walk(hint, !this->notifieeList().empty()));
  }
  void changed(U64 key) override { this->notifyEntry(Key(key)); }
  void anythingChanged() override { this->notifyEntryColl(); }
  void damaged(std::string_view what) override { this->corruptionDetected(what); }

  mutable FileReader file_;
  Validator* validator_ = nullptr;
};

}  // namespace Shoal
