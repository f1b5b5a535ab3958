// SPDX-License-Identifier: Apache-2.0
// Table<R>: the contract of every table, whatever holds its records: a file shared between processes
// (WriterTable, ReaderTable) or this process alone (LocalTable).
//
// Invariants: a read returns one consistent record, or the empty record for a key that is absent. A watcher
//   that handled its notifications has seen the final state of every key, removals included; one that was
//   switched off meanwhile is not told of the removals of that time.
// Ownership: reference-counted; a watcher holds its table.
// Threading: one thread a table object, whatever other processes do to the file.
// Errors: a damaged record or index throws Pallo::CorruptionDetectedException; the caller reports it back
//   with corruptionDetected() and goes on with the empty record. A write through a read-only mount throws
//   Pallo::NoPermissionException.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ostra/notifier.h"
#include "ostra/ptr.h"
#include "pallo/types.h"
#include "shoal/table_file.h"

namespace Shoal {

// How a record type lies in a table; specialised beside each record type. A record lies in memory as in the
// file: its image is its own first bytes, and the first eight of those are the key's value.
//
//   using Key = ...;                                     explicit from U64, value() gives it back
//   static constexpr std::string_view typeName = "...";  names the record type in a file's header
//   static constexpr U32 version = 1;                    of the record's layout
//   static constexpr std::size_t bytes = ...;            of the image, a multiple of 8
//   static constexpr std::size_t tailAt = ...;           the word of the image that begins its tail (Shape)
//   static Key key(R const&);
//   static R empty();                                    what an absent key reads as
//   static R unset();                                    a record whose image is about to be written
//   static std::byte* image(R&);                         where
//   static void accept(R&, Extent);                      makes a record of what was written there; throws
//                                                        Pallo::InvalidSizeException or
//                                                        Pallo::CorruptionDetectedException for what is none
//   static Extent encode(R const&, std::byte* image); writes the image, and returns how much of it is in use
//
// Equal records have equal images, as far as they are in use.
template <class R>
struct RecordTraits;

template <class R>
constexpr Shape shapeOf() {
  return {RecordTraits<R>::typeName, RecordTraits<R>::version, RecordTraits<R>::bytes,
          RecordTraits<R>::tailAt};
}

// What a table knows of damage found in it: how often, and what was said last.
class VANTREL_API TableBase : public Ostra::PtrInterface {
 public:
  explicit TableBase(std::string name) : name_(std::move(name)) {}
  std::string const& name() const { return name_; }

  // A reader's report of damage it met.
  void corruptionDetected(std::string_view message) const;
  U64 corruptions() const { return corruptions_; }
  std::string const& lastCorruption() const { return lastCorruption_; }

  Ostra::Notifier& notifieeList() const { return notifiees_; }

 private:
  std::string const name_;
  mutable U64 corruptions_ = 0;
  mutable std::string lastCorruption_;
  mutable Ostra::Notifier notifiees_;
};

template <class R>
class Table : public TableBase {
 public:
  using Record = R;
  using Key = typename RecordTraits<R>::Key;

  // Watching begins with one whole-collection notification. A notifiee that was pointed at a table, or
  // switched off, owes itself one and gets it when it is switched on; synchronizedIs(true) says that the
  // caller has walked the table.
  class Notifiee : public Ostra::NotifieeBase {
   public:
    virtual void onEntry(Key const&) {}  // the record of this key was written or removed
    virtual void onEntryColl() {}        // anything may have changed: walk the table

    Ostra::Ptr<Table const> const& notifier() const { return table_; }
    void notifierIs(Ostra::Ptr<Table const> table) {
      listIs(table ? &table->notifieeList() : nullptr);
      std::swap(table_, table);
      synchronized_ = false;
    }
    void hasNotificationActiveIs(bool active) override {
      NotifieeBase::hasNotificationActiveIs(active);
      if (!active) synchronized_ = false;
      if (!active || synchronized_ || !table_ || markedForDeletion()) return;
      synchronized_ = true;
      try {
        onEntryColl();
      } catch (...) {
        synchronized_ = false;  // the walk is still owed
        throw;
      }
    }
    void synchronizedIs(bool synchronized) { synchronized_ = synchronized; }

   private:
    Ostra::Ptr<Table const> table_;
    bool synchronized_ = false;
  };

  // A place in a walk: a present key, and what lets the table find the next one quickly. A walk that runs
  // while the table changes visits every key that is present throughout, at least once.
  struct Place {
    Key key;
    U64 hint;
  };

  using TableBase::TableBase;

  // A copy of the record, or the empty record.
  virtual R entry(Key const& key) const = 0;
  // The same for who only looks: past a reader's validator, which may act on what it is given.
  virtual R peek(Key const& key) const { return entry(key); }
  // Which write the record is of.
  virtual Change changeOf(Key const& key) const = 0;
  // The first place of a walk, and the one after `place`; nothing at the end. The order is the table's own.
  virtual std::optional<Place> first() const = 0;
  virtual std::optional<Place> next(Place const& place) const = 0;
  // The number of keys present.
  virtual U64 size() const = 0;

  // Inserts the record, or replaces the one with the same key.
  virtual void entryIs(R const& record) = 0;
  // Removes the record of the key; an absent key is no error.
  virtual void entryDel(Key const& key) = 0;

 protected:
  static std::optional<Place> placeOf(std::optional<FilePlace> const& place) {
    if (!place) return std::nullopt;
    return Place{Key(place->key), place->hint};
  }
  void notifyEntry(Key const& key) const { notifieeList().notify(&Notifiee::onEntry, key); }
  void notifyEntryColl() const { notifieeList().notify(&Notifiee::onEntryColl); }
};

}  // namespace Shoal
