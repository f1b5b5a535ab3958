// SPDX-License-Identifier: Apache-2.0
// Table<R>: the contract of every table, whatever holds its records: a file shared between processes
// (WriterTable, ReaderTable) or this process alone (LocalTable).
//
// Invariants: a read returns one consistent record, or the empty record for a key that is absent. A watcher
//   that handled its notifications has seen the final state of every key, removals included.
// Ownership: reference-counted; a watcher holds its table.
// Threading: one thread a table object. Shared records are the file's business, not the caller's.
// Errors: a damaged record or index raises Pallo::CorruptionDetectedException; the reader reports it back
//   with corruptionDetected() and goes on with the empty record. A write through a read-only mount raises
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

namespace Shoal {

// How a record type lies in a table; specialised beside each record type:
//
//   using Key = ...;                                     explicit from U64, value() gives it back
//   static constexpr std::string_view typeName = "...";  names the record type in a file's header
//   static constexpr U32 version = 1;                    of the record's layout
//   static constexpr std::size_t bytes = ...;            of the record's image
//   static Key key(R const&);
//   static R empty();                                    what an absent key reads as
//   static void encode(R const&, std::byte* image);      writes `bytes` bytes
//   static R decode(std::byte const* image);             reads `bytes` bytes; Pallo::InvalidSizeException
//
// An image's first 8 bytes are the key's value. A type that lies in memory as its image may add what spares
// a reader the way over an image of its own:
//
//   static R unset();                                    its bytes are written before they are read
//   static std::byte* inPlace(R&);                       its bytes
//   static constexpr std::size_t fixedBytes = ...;       the first ones, which count in every record
//   static bool isComplete(R const&, U64 words);         whether it is a record once so many 8-byte words
//                                                        are written; false: decode() is to look at it
template <class R>
struct RecordTraits;

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
  void notifyEntry(Key const& key) const { notifieeList().notify(&Notifiee::onEntry, key); }
  void notifyEntryColl() const { notifieeList().notify(&Notifiee::onEntryColl); }
};

}  // namespace Shoal
