// SPDX-License-Identifier: Apache-2.0
// The writing side of a table file, for records of any type: insert, replace, remove, growth, and repair of
// what a writer that was killed left behind.
//
// A record is written into a free slot and then published by one store to its index entry; the slot it
// replaces is marked as freed and joins the end of the queue of free slots. Growth splits one bucket at a
// time: the new bucket is written first, then the number of buckets, then the entries that moved are taken
// out of the old one. The announcement of a change is written before the change is published and counted
// after it, so that whoever comes next can tell the one that was under way.
//
// Invariants: killed at any store, every record in the file is whole, and present as of before or after the
//   operation. An operation that fails has changed nothing. A record is removed by the store that marks its
//   slot as freed, so that the slots alone say what is in the table: an index that is damaged is made anew
//   from them.
// Ownership: owns the file's mapping and, by the open file, the writer's lock.
// Threading: one thread.
// Cost: a write touches the key's index line, one slot, the state of another, and a few live words; a split a
//   bucket in four of five inserts; a new chunk of 256 KiB is allocated when the last is full. Nothing
//   depends on the table's size, except opening, which passes over the index, and healing it.
// Errors: FileException, WriterLockedException; NoSpaceException; Pallo::CorruptionDetectedException.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shoal/presence.h"
#include "shoal/salvage.h"
#include "shoal/table_view.h"

namespace Shoal {

namespace Testing {
// Runs before each store into the file, when set. For tests that end a writer there.
extern void (*storePoint)();
}  // namespace Testing

class TableWriter {
 public:
  using Word = TableView::Word;

  TableWriter(std::string const& path, Shape const& shape, WriterOptions const& options);
  TableWriter(TableWriter const&) = delete;
  TableWriter& operator=(TableWriter const&) = delete;

  TableView& view() { return *view_; }
  std::shared_ptr<Mapping const> mapping() const { return mapping_; }
  void put(U64 key, U64 const* image, Extent extent);
  bool remove(U64 key);
  std::vector<U64> removeAll();
  void reserve(U64 records);
  // As the view's, also where the table is made anew meanwhile.
  std::optional<FilePlace> walk(U64 hint);
  WriterCounters counters() const;

  // Makes the table at `path` anew from what is in its slots, whatever its record type. Returns what was
  // there.
  static Salvaged rebuild(std::string const& path);

 private:
  enum class Kind : U8 { slots, index, overflow };
  struct Spot;
  struct Survey;
  using Chain = std::vector<Word*>;  // the lines of one bucket

  explicit TableWriter(std::shared_ptr<Mapping> file);
  void open(std::shared_ptr<Mapping> file);
  void heal();
  bool isNamed(U64 key, U64 unit);
  void adopt(U64 key, Word const* found);
  static std::shared_ptr<Mapping> remake(Mapping const& old, Format::Header const& header,
                                         Salvaged const& found);

  void store(Word& word, U64 value);
  void storeGuarded(U64 offset, U64 value);
  void writeSlot(U64 unit, U64 const* image, Extent extent);
  void freeSlot(U64 entry);

  // By chunk and place; nothing when no slot begins there.
  std::optional<U64> slotNumber(U64 unit) const;
  U64 slotsPerChunk() const { return static_cast<U32>(Format::chunkBytes) / view_->header().slotBytes; }
  U64 keyOf(U64 entry) const;
  bool isSound(U64 entry) const;
  Word* nextLine(Word const* line, U64 bucket, U64 depth);
  [[noreturn]] void throwLinesDamage(U64 bucket) const;
  Chain gather(U64 bucket);
  Spot locate(U64 key, U64 hash);
  Spot locateOrHeal(U64 key);

  void refuseBeyondWindow(U64 chunks) const;
  U64 addChunk(Kind kind);
  void addSlots();
  void reserveSlot();
  U32 takeSlot();
  U32 slotUnit(U64 chunk, U64 place) const;
  U32 lineUnit(U64 chunk, U64 place) const;
  void reserveLines(std::size_t count);
  U32 takeLine();

  void beginChange(U64 key);
  void endChange();
  void refuseIfCutShort() const;
  void publish(Spot const& spot, U64 entry);
  void appendLine(Spot const& spot, U64 entry);

  std::vector<U64> removeFound();

  void splitWhileFull();
  void split();
  void ensureIndexChunk(U64 bucket);
  void writeBucket(U64 bucket, std::vector<U64> const& entries);
  void dropEmptyLines(U64 bucket, Chain const& chain);

  void takeOver();
  void readDirectories();
  U64 readDirectory(U64 offset, Kind kind);
  void undoLastSplit();
  Survey survey();
  void surveyBucket(Survey& survey, U64 bucket);
  std::optional<U64> adoptFree(Survey const& survey);
  void refuseLostRecord(Word const* slot) const;
  void finishAnnouncement(std::optional<U64> unpublished);

  std::string const path_;
  std::shared_ptr<Mapping> mapping_;
  std::unique_ptr<TableView> view_;
  std::optional<Doorbells> doorbells_;
  U64 buckets_ = 0;
  U64 chunks_ = 0;
  U64 count_ = 0;
  U64 head_ = 0;
  U64 overflowChunks_ = 0;
  std::vector<Kind> kinds_;  // of the chunks
  // A slot that was freed rests a while, first in, first out, so that whoever reads it may finish; then it is
  // the first to be taken, while the caches have it. In pieces, so that no write pays for moving them all.
  std::deque<U32> restingSlots_;
  std::deque<U32> idleSlots_;
  std::deque<U32> freeLines_;
  bool splitsOff_ = false;
  WriterCounters counters_;
};

}  // namespace Shoal
