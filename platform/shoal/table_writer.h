// SPDX-License-Identifier: Apache-2.0
// The writing side of a table file, for records of any type: insert, replace, remove, growth, and repair of
// what a writer that was killed left behind.
//
// A record is written into a free slot and then published by one store to its index entry; the slot it
// replaces joins the end of the queue of free slots. Growth splits one bucket at a time: the new bucket is
// written first, then the number of buckets, then the entries that moved are taken out of the old one. The
// announcement of a change is written before the change is published and counted after it, so that whoever
// comes next can tell the one that was under way.
//
// Invariants: killed at any store, every record in the file is whole, and present as of before or after the
//   operation. An operation that fails has changed nothing.
// Ownership: owns the file's mapping and the writer's lock.
// Threading: one thread.
// Cost: a write touches the key's index line, one slot and a few live words; a split a bucket every third
//   insert; a new chunk of 256 KiB is allocated when the last is full. Nothing depends on the table's size,
//   except opening: a pass over the index.
// Errors: FileException, WriterLockedException; NoSpaceException; Pallo::CorruptionDetectedException.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "shoal/side_directory.h"
#include "shoal/table_view.h"
#include "shoal/wakers.h"

namespace Shoal {

struct WriterOptions {
  bool replace = false;      // begin with an empty table in a new file, whatever table is there
  bool worldAccess = false;  // a new file may be read by everyone, not by its owner and group alone
  bool hugePages = false;    // each 2 MB that is full becomes one page: reads of a large table take less, and
                             // the write that fills them, or the opening, some milliseconds more
  U32 ringEntries =
      16384;  // changes a reader may lag behind before it is told to walk; of a new file; a power of 2
};

// What a writer did since it opened the table.
struct WriterCounters {
  U64 inserts = 0;
  U64 replaces = 0;
  U64 removes = 0;
  U64 splits = 0;  // of index buckets
  U64 chunks = 0;  // added to the file
  U64 hugePages = 0;
  U64 wakeUps = 0;   // sent
  U64 repaired = 0;  // entries, lines and announcements put right at opening
};

namespace Testing {
// Runs before each store into the file, when set. For tests that end a writer there.
extern void (*storePoint)();
}  // namespace Testing

class VANTREL_API TableWriter {
 public:
  TableWriter(std::string const& path, Shape const& shape, WriterOptions const& options);
  ~TableWriter();
  TableWriter(TableWriter const&) = delete;
  TableWriter& operator=(TableWriter const&) = delete;

  TableView& view() { return *view_; }
  std::shared_ptr<Mapping const> mapping() const { return mapping_; }
  void put(U64 key, std::byte const* image);
  // False when the key was absent.
  bool remove(U64 key);
  void removeAll();
  WriterCounters counters() const;

 private:
  enum class Kind : U8 { slots, index, overflow };
  struct Spot;
  struct Chain;
  struct Survey;

  void make(std::string const& path, Shape const& shape, WriterOptions const& options);
  void open(std::string const& path, Shape const& shape, WriterOptions const& options);
  void makeHugePages();

  void store(std::atomic<U64>& word, U64 value);
  void storeGuarded(U64 offset, U64 value);
  U64 takeImage(std::byte const* image);
  void writeSlot(U64 unit, U64 key, std::byte const* image);

  bool isSlot(U64 unit) const;
  U64 slotsPerChunk() const;
  U64 keyOf(U64 entry) const;
  bool isSound(U64 entry) const;
  bool isOf(U64 entry, U64 key, U64 hash) const;
  std::atomic<U64>* nextLine(std::atomic<U64> const* line, U64 bucket, U64 depth);
  [[noreturn]] void throwLinesDamage(U64 bucket) const;
  Chain gather(U64 bucket);
  Spot locate(U64 key, U64 hash);
  void locateInLine(Spot& spot, std::atomic<U64>* line, U64 key, U64 hash) const;

  U64 addChunk(Kind kind);
  void reserveSlot();
  U32 nextSlot() const;
  void takeSlot();
  void reserveLines(std::size_t count);
  U32 slotUnit(U64 chunk, U64 place) const;
  U32 lineUnit(U64 chunk, U64 place) const;
  U32 takeLine();
  void freeSlot(U64 entry);

  void beginChange(U64 key);
  void endChange();
  void refuseIfCutShort() const;
  void publish(Spot const& spot, U64 entry);
  void appendLine(Spot const& spot, U64 entry);

  void splitWhileFull();
  void split();
  void ensureIndexChunk(U64 bucket);
  void writeBucket(U64 bucket, std::vector<U64> const& entries);
  void dropEmptyLines(U64 bucket, Chain const& chain);

  void takeOver();
  void surveyDirectories();
  U64 surveyDirectory(U64 offset, Kind kind);
  [[noreturn]] void throwDirectoryDamage() const;
  void undoLastSplit();
  void surveyIndex(Survey& survey);
  void surveyBucket(Survey& survey, U64 bucket);
  void surveyLine(Survey& survey, std::atomic<U64> const* line) const;
  void adoptFree(Survey const& survey);
  void finishAnnouncement();

  std::unique_ptr<SideDirectory> directory_;
  std::unique_ptr<WriterLock> lock_;
  std::shared_ptr<Mapping> mapping_;
  std::unique_ptr<TableView> view_;
  std::unique_ptr<Wakers> wakers_;
  U64 buckets_ = 0;
  U64 chunks_ = 0;
  U64 count_ = 0;
  U64 head_ = 0;
  U64 overflowChunks_ = 0;
  std::vector<Kind> kinds_;  // of the chunks
  // A slot that was freed rests a while, first in, first out, so that whoever reads it may finish; then it is
  // the first to be taken, while the caches have it.
  std::deque<U32> restingSlots_;
  // In pieces, so that no write pays for moving them all.
  std::deque<U32> idleSlots_;
  std::deque<U32> freeLines_;
  U64 hugePagesTo_ = ~U64{0};  // where in the file the next huge page is to begin, if there are to be any
  U64 slotWords_ = 0;
  std::vector<U64> scratch_;  // checksum, state, key, image
  U64 imageWords_ = 0;        // of the image, in use there
  WriterCounters counters_;
};

}  // namespace Shoal
