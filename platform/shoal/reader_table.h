// SPDX-License-Identifier: Apache-2.0
// ReaderTable<R>: a table in a file that another process writes, mounted read-only.
//
// Poll fd(); when it is readable, call dispatch(), which notifies. A watcher that kept up is notified key by
// key; one that fell behind the ring of changes, or whose file was replaced by another, is notified of each
// key it knew that vanished, and then of the whole collection.
//
// Invariants: no change is ever lost: when dispatch() has nothing more to tell, the watchers have been told
//   of the last change of every key. The first call of fd() or dispatch() begins the watch; what was
//   announced since the table was mounted is told then.
// Ownership: the watch goes with the object.
// Threading: one thread.
// Cost: a read is a look-up and a copy of the words in use. At rest, nothing.
// Errors: FileException at construction and in fd(). A damaged record, and one that the validator rejects,
//   raises Pallo::CorruptionDetectedException; with a validator a record of impossible array sizes does so
//   too, without one Pallo::InvalidSizeException passes through. Whatever writes raises
//   Pallo::NoPermissionException.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "shoal/error.h"
#include "shoal/image.h"
#include "shoal/mount.h"
#include "shoal/straight_read.h"
#include "shoal/table.h"

namespace Shoal {

template <class R>
class ReaderTable : public Table<R>, private Mount::Sink {
 public:
  using Traits = RecordTraits<R>;
  using typename Table<R>::Key;
  using typename Table<R>::Place;
  // What is wrong with a record that is otherwise whole; nothing when it may be used.
  using Validator = std::function<std::optional<std::string>(R const&)>;

  explicit ReaderTable(std::string const& path) : Table<R>(path), mount_(path, shapeOf<R>(), *this) {}

  std::string const& path() const { return mount_.path(); }
  void validatorIs(Validator validator) { validator_ = std::move(validator); }

  int fd() { return mount_.fd(); }
  void dispatch() {
    auto const keep = Ostra::keepAlive(this);  // a watcher may drop the last reference
    mount_.dispatch();
  }

  R entry(Key const& key) const override {
    R record = StraightRead<R>::blank();
    bool const straight = straight_(mount_.view(), record, key.value());
    if (!straight || validator_ || !this->notifieeList().empty()) [[unlikely]]
      finishRead(key, record, straight);
    return record;
  }
  std::optional<Place> first() const override { return walk(0); }
  std::optional<Place> next(Place const& place) const override { return walk(place.hint); }
  U64 size() const override { return mount_.view().size(); }

  void entryIs(R const&) override { throw Pallo::NoPermissionException("write to read-only Shoal table"); }
  void entryDel(Key const&) override {
    throw Pallo::NoPermissionException("remove from read-only Shoal table");
  }
  void cleanup() { throw Pallo::NoPermissionException("cleanup of read-only Shoal table"); }
  [[noreturn]] void writerCounters() const {
    throw Pallo::UnimplementedException("writerCounters() not implemented");
  }

 private:
  [[gnu::noinline]] void finishRead(Key const& key, R& record, bool straight) const {
    bool const found =
        straight || (LiesAsItsImage<R> && StraightRead<R>::overCopy(mount_.view(), record, key.value()));
    if (!found || (validator_ && validator_(record))) record = carefully(key);
    if (!this->notifieeList().empty()) mount_.lookedUp(key.value(), !(record == Traits::empty()));
  }
  // Whatever may be the case: an absent key, a record in motion, damage, a file that was replaced.
  R carefully(Key const& key) const {
    try {
      return validated(key);
    } catch (Pallo::CorruptionDetectedException const&) {
      if (!mount_.mend()) throw;
    }
    return validated(key);
  }
  R validated(Key const& key) const { return validator_ ? passed(key) : recordOf<R>(mount_.view(), key); }
  R passed(Key const& key) const {
    try {
      R record = recordOf<R>(mount_.view(), key);
      if (record == Traits::empty()) return record;
      if (auto const fault = validator_(record)) throw Pallo::CorruptionDetectedException(*fault);
      return record;
    } catch (Pallo::InvalidSizeException const& error) {
      throw Pallo::CorruptionDetectedException(error.what());
    }
  }
  std::optional<Place> walk(U64 hint) const {
    auto const place = mount_.view().walk(hint);
    if (!place) return std::nullopt;
    if (!this->notifieeList().empty()) mount_.lookedUp(place->key, true);
    return Place{Key(place->key), place->hint};
  }
  void changed(U64 key) override { this->notifyEntry(Key(key)); }
  void anythingChanged() override { this->notifyEntryColl(); }
  void damaged(std::string_view what) override { this->corruptionDetected(what); }

  typename StraightRead<R>::Function const straight_ = StraightRead<R>::forThisProcessor();
  mutable Mount mount_;
  Validator validator_;
};

}  // namespace Shoal
