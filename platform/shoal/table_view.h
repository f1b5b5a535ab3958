// SPDX-License-Identifier: Apache-2.0
// The reading side of a table file: look-up, walk and size over a mapping, for records of any type.
//
// Invariants: a record is returned whole, as one write left it, or not at all. A damaged record is never
//   returned; a walk goes on past it. No offset, count or length from the file is used before it agreed with
//   its guard and lies inside what is mapped and in use.
// Ownership: shares the mapping.
// Threading: one thread a view; any number of views of one file, beside its writer.
// Cost: a look-up touches one index line (rarely two) and the record's lines. It starts again only when the
//   writer recycled what it was reading, and gives up after a fixed number of attempts.
// Errors: FileException at construction; Pallo::CorruptionDetectedException afterwards.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shoal/format.h"
#include "shoal/mapping.h"

namespace Shoal {

// What a record type is in a file's header.
struct Shape {
  std::string_view typeName;
  U32 version;
  std::size_t imageBytes;
};

template <class R>
class StraightRead;

class VANTREL_API TableView {
 public:
  struct Place {
    U64 key;
    U64 hint;  // the position after it
  };

  // Any table, or only one of this shape.
  explicit TableView(std::shared_ptr<Mapping const> mapping);
  TableView(std::shared_ptr<Mapping const> mapping, Shape const& shape);
  TableView(TableView const&) = delete;
  TableView& operator=(TableView const&) = delete;

  Format::Header const& header() const { return header_; }
  Mapping const& mapping() const { return *mapping_; }
  std::string_view typeName() const;
  // What is mapped begins otherwise than when it was opened: something else was written over it.
  bool isWrittenOver() const;

  // The record's image, valid until the next call; null when the key is absent.
  std::byte const* read(U64 key);
  bool contains(U64 key);
  // The first present key at or after a position; position 0 begins a walk. Damage of the index that a walk
  // met is raised where the walk ends, so that it costs no intact record its visit.
  std::optional<Place> walk(U64 hint);
  U64 size() const;

  // Told of a record whose key is unreadable when a walk passes it by.
  void damageSinkIs(std::function<void(std::string_view)> sink) { damageSink_ = std::move(sink); }

  // The index entry of the key that the walk met last.
  U64 visitedEntry() const { return visited_.entry; }

  // The ring of changed keys.
  U64 head() const;                                   // changes announced so far
  std::optional<U64> changedKey(U64 sequence) const;  // empty: overwritten, or not written yet
  U64 announcedKey(U64 sequence) const;               // whatever lies there: a hint

  // Asks for what a look-up of the key will need: its index line, and when that is there, the record it
  // names. Nothing is checked, and nothing harmful comes of a wrong key.
  void prefetchLine(U64 key) const;
  void prefetchRecord(U64 key) const;

  // The guarded words, for those who check and repair.
  U64 buckets() const;
  U64 chunks() const;
  U64 hash(U64 key) const { return Format::hash(seed_, key); }
  U64 extent() const { return limit_; }  // bytes of the file in use, as last seen
  U64 chunkOffset(U64 chunk) const { return header_.chunkStart + chunk * Format::chunkBytes; }
  // Null when the directory or the place is damaged.
  std::atomic<U64>* line(U64 bucket);
  std::atomic<U64>* overflowLine(U64 unit);
  std::atomic<U64>* word(U64 offset) const {
    static_assert(sizeof(std::atomic<U64>) == 8 && std::atomic<U64>::is_always_lock_free);
    return reinterpret_cast<std::atomic<U64>*>(base_ + offset);
  }
  bool slotInside(U64 unit);
  // The index word that names the key's slot; null when the key is absent.
  std::atomic<U64> const* entryWord(U64 key);
  enum class Copy { whole, changing, damaged };
  // Copies a slot's key and image into the scratch area.
  Copy copySlot(U64 unit);
  U64 scratchKey() const { return scratchKey_; }
  // The image's words beyond the record are zero in the file, as they are in every copy.
  bool tailIsZero(U64 unit) const;
  std::string damage(std::string_view what) const;

 private:
  template <class R>
  friend class StraightRead;
  enum class Scan { found, absent, changing, damagedRecord, damagedIndex };
  struct Walk {
    U64 bucket;
    U64 depth;
    unsigned at;
  };
  U64 checkHeader();
  void checkShape(Shape const& shape) const;
  U64 guarded(U64 offset, std::string_view what) const;
  void limitIs(U64 limit);
  bool insideChunks(U64 offset, U64 bytes);
  Scan scan(U64 key, U64 hash, U64 bucket, bool copy);
  Scan tryEntry(std::atomic<U64> const& word, U64 entry, U64 key, U64 hash, bool copy);
  // The first line of a hash's bucket, as far as it is known without a look at what may have changed.
  [[gnu::always_inline]] std::atomic<U64> const* firstLine(U64 hashed) const {
    U64 const bucket = Format::bucketOf(hashed, bucketsSeen_, levelSeen_);
    std::atomic<U64> const* const chunk = indexChunks_[bucket / Format::linesPerChunk];
    return chunk ? chunk + bucket % Format::linesPerChunk * 8 : nullptr;
  }
  void prefetchSlot(U64 entry) const;
  void clearScratchBehind(U64 rows);
  bool peekKey(U64 unit, U64& key) const;
  bool lookup(U64 key, bool copy);
  std::optional<Place> walkLine(std::atomic<U64>* line, Walk& place);
  std::optional<Place> visit(std::atomic<U64> const& word, Walk const& place);
  std::atomic<U64>* lineAt(U64 bucket, U64 depth);
  std::atomic<U64>* nextLine(std::atomic<U64>* line, U64 bucket, U64 depth);
  std::optional<Place> walkBuckets(Walk place);
  std::optional<Place> walkOn(U64 hint);
  void prefetchSlots(std::atomic<U64> const* line) const;
  void endWalk();

  std::shared_ptr<Mapping const> mapping_;
  std::byte* base_;
  Format::Header header_{};
  std::array<U64, 4> seed_;
  U64 maxWords_ = 0;
  U64 limit_ = 0;     // end of the chunks in use, as last seen
  U64 unitsEnd_ = 0;  // the last slot begins before it; what lies before the chunks is no slot, but mapped
  // The guarded word that was last found intact, what it holds, and the greatest power of two in that.
  mutable U64 bucketsWord_ = Format::guard(1, Format::bucketsAt);
  mutable U64 bucketsSeen_ = 1;
  mutable U64 levelSeen_ = 1;
  std::vector<std::atomic<U64>*> indexChunks_;
  std::vector<std::byte> scratch_;  // an image, in whole rows
  U64 scratchRows_ = 0;
  U64 scratchKey_ = 0;
  struct {
    std::atomic<U64> const* word = nullptr;
    U64 entry = 0;
    U64 key = 0;
    U64 hint = 0;
  } visited_;  // where the walk stands: the look-up that follows finds its key at once
  std::string walkDamage_;
  std::function<void(std::string_view)> damageSink_;
};

}  // namespace Shoal
