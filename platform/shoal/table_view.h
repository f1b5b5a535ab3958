// SPDX-License-Identifier: Apache-2.0
// The reading side of a table file: look-up, walk and size over a mapping, for records of any type.
//
// Invariants: a record is returned whole, as one write left it, or not at all. A damaged record is never
//   returned; a walk goes on past it. No offset, count or length from the file is used before it agreed with
//   its guard and lies inside what is mapped and in use.
// Ownership: shares the mapping.
// Threading: one thread a view; any number of views of one file, beside its writer.
// Cost: a look-up touches one index line (rarely two) and the record's lines. It starts again only when the
//   writer overtook it, and gives up after a fixed number of attempts.
// Errors: FileException at construction; Pallo::CorruptionDetectedException afterwards.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "shoal/format.h"
#include "shoal/mapping.h"
#include "shoal/slot.h"
#include "shoal/table_file.h"

namespace Shoal {

// A header as a writer made it.
bool isSound(Format::Header const& header);
// A file's header. Both throw FileException.
Format::Header checkedHeader(Mapping const& mapping);
void checkShape(std::string const& path, Format::Header const& header, Shape const& shape);
std::string_view typeName(Format::Header const& header);

class TableView {
 public:
  using Word = std::atomic<U64>;

  explicit TableView(std::shared_ptr<Mapping const> mapping);
  TableView(TableView const&) = delete;
  TableView& operator=(TableView const&) = delete;

  Format::Header const& header() const { return header_; }
  Mapping const& mapping() const { return *mapping_; }
  // What is mapped begins otherwise than when it was opened: something else was written over it.
  bool isWrittenOver() const { return std::memcmp(base_, &header_, sizeof header_) != 0; }

  // Reads a record's image into `image`, which has room for a whole one; returns what of it is in use,
  // nothing when the key is absent.
  Extent read(U64 key, U64* image) { return Format::extent(find(key, image)); }
  // The same; returns the state of the record's slot, 0 when the key is absent.
  U64 find(U64 key, U64* image);
  bool contains(U64 key);  // true for a key that cannot be read: its look-up says what is wrong
  // Which write the key's record is of.
  Change changeOf(U64 key);
  // The first present key at or after a position; position 0 begins a walk. Damage of the index that a walk
  // met is thrown where the walk ends, so that it costs no intact record its visit.
  std::optional<FilePlace> walk(U64 hint);
  U64 size() const { return guarded(Format::countAt, "number of records"); }

  // Told of a record whose key is unreadable when a walk passes it by.
  void damageSinkIs(std::function<void(std::string_view)> sink) { damageSink_ = std::move(sink); }

  // The ring of changed keys.
  U64 head() const { return guarded(Format::headAt, "number of changes"); }
  std::optional<U64> changedKey(U64 sequence) const;  // nothing: overwritten, or not written yet

  // Prefetches what the look-up of change `sequence`'s key will need: first its index line, and when that is
  // there, the record it names. Nothing is checked, and nothing harmful comes of a wrong key.
  void prefetchLine(U64 sequence) const;
  void prefetchRecord(U64 sequence) const;

  // The guarded words and the places they lead to, for those who check and write.
  U64 buckets() const;
  U64 chunks() const { return guarded(Format::chunksAt, "number of chunks"); }
  U64 hash(U64 key) const { return Format::hash(seed_, key); }
  U64 extent() const { return limit_; }  // bytes of the file in use, as last seen
  U64 chunkOffset(U64 chunk) const { return header_.chunkStart + chunk * Format::chunkBytes; }
  Word* word(U64 offset) const { return reinterpret_cast<Word*>(base_ + offset); }
  Word* slot(U64 unit) const { return word(unit * Format::unitBytes); }
  // The ring's entry of a change: its stamp, and the key behind it.
  Word* change(U64 sequence) const {
    return word(Format::ringAt + (sequence & (header_.ringEntries - 1)) * 16);
  }
  // Null when the directory or the place is damaged.
  Word* line(U64 bucket);
  Word* overflowLine(U64 unit);
  bool slotInside(U64 unit);
  Slot::Room room() const { return room_; }
  U64 imageWords() const { return room_.head + room_.tail; }
  // The entry of the key that the walk met last.
  Word const* visited() const { return visited_.word; }
  std::string damage(std::string_view what) const;

 private:
  enum class Look { record, absent, overtaken, damagedRecord, damagedIndex };
  struct Found {
    Look look;
    U64 state;  // of the record's slot
  };
  struct Position {
    U64 bucket;
    U64 depth;
    unsigned at;
  };
  U64 guarded(U64 offset, std::string_view what) const;
  bool insideChunks(U64 offset, U64 bytes);
  U64 lookLimit();
  U64 findAgain(U64 key, U64* image);
  Found look(U64 key, U64* image);
  Found lookInLine(Word const* line, U64 key, U64 hash, U64* image);
  Found copyRecord(Word const& word, U64 key, U64* image);
  [[noreturn]] void throwDamage(U64 key, Look look) const;
  Word const* firstLine(U64 hashed) const;
  Word const* firstTagged(U64 hashed) const;
  void prefetchSlots(Word const* line) const;

  std::optional<FilePlace> visit(Word const& word, Position const& position);
  Word* nextLine(Word* line, Position const& position);
  Word* lineAt(U64 bucket, U64 depth);
  std::optional<FilePlace> walkBuckets(Position position);

  std::shared_ptr<Mapping const> const mapping_;
  std::byte* const base_;
  Format::Header const header_;
  std::array<U64, 4> const seed_;
  Slot::Room const room_;
  U64 const slotBytes_;
  U64 const chunkStart_;
  U64 limit_ = 0;  // end of the chunks in use, as last seen
  // The guarded word that was last found intact, what it holds, and the greatest power of two in that.
  mutable U64 bucketsWord_ = Format::guard(1, Format::bucketsAt);
  mutable U64 bucketsSeen_ = 1;
  mutable U64 levelSeen_ = 1;
  std::vector<Word*> indexChunks_;
  struct {
    Word const* word = nullptr;
    U64 key = 0;
  } visited_;  // where the walk stands: the look-up that follows finds its key at once
  std::string walkDamage_;
  std::function<void(std::string_view)> damageSink_;
};

// One bit for each entry of the line that `wanted` accepts, without a branch at each, which would be
// mispredicted every other time.
template <class Wanted>
[[gnu::always_inline]] inline unsigned entriesWhere(TableView::Word const* line, Wanted wanted) {
  return [=]<unsigned... i>(std::integer_sequence<unsigned, i...>) {
    return ((unsigned{wanted(line[i].load(std::memory_order_relaxed))} << i) | ...);
  }(std::make_integer_sequence<unsigned, Format::entriesPerLine>());
}
[[gnu::always_inline]] inline unsigned entriesTagged(TableView::Word const* line, U64 wanted) {
  return entriesWhere(line, [wanted](U64 entry) { return Format::entryTag(entry) == wanted; });
}
[[gnu::always_inline]] inline bool TableView::insideChunks(U64 offset, U64 bytes) {
  if (offset < chunkStart_) return false;
  return offset + bytes <= limit_ || offset + bytes <= lookLimit();
}

[[gnu::always_inline]] inline bool TableView::slotInside(U64 unit) {
  return insideChunks(unit * Format::unitBytes, slotBytes_);
}

// As far as the bucket is known without a look at what may have changed.
[[gnu::always_inline]] inline TableView::Word const* TableView::firstLine(U64 hashed) const {
  U64 const bucket = Format::bucketOf(hashed, bucketsSeen_, levelSeen_);
  Word const* const chunk = indexChunks_[bucket / Format::linesPerChunk];
  return chunk ? chunk + bucket % Format::linesPerChunk * Format::wordsPerLine : nullptr;
}

// The first entry with the tag in a bucket's first line, as far as it is known without a look at what may
// have changed.
[[gnu::always_inline]] inline TableView::Word const* TableView::firstTagged(U64 hashed) const {
  Word const* const line = firstLine(hashed);
  if (!line) return nullptr;
  unsigned const found = entriesTagged(line, Format::tag(hashed));
  return found != 0 ? line + std::countr_zero(found) : nullptr;
}

// A slot that was freed may hold another record by now, complete and not published yet. A freed slot that the
// entry still names is that of a key that was removed.
[[gnu::always_inline]] inline TableView::Found TableView::copyRecord(Word const& word, U64 key, U64* image) {
  U64 const entry = word.load(std::memory_order_acquire);
  U64 const unit = Format::entryUnit(entry);
  if (!Format::entryIntact(entry) || !slotInside(unit))
    return {entry == 0 ? Look::absent : Look::damagedIndex, 0};
  Word const* const slot = this->slot(unit);
  U64 state;
  Slot::Copy const copy =
      Slot::copy(slot, room_, image, state, [&] { return word.load(std::memory_order_acquire) == entry; });
  if (copy == Slot::Copy::whole && image[0] == key) [[likely]]
    return {Look::record, state};
  if (copy == Slot::Copy::overtaken) return {Look::overtaken, 0};
  if (copy == Slot::Copy::freed) return {Look::absent, 0};
  U64 const slotKey = slot[2].load(std::memory_order_relaxed);
  bool const ofAnotherKey = slotKey != key && Format::tag(hash(slotKey)) == Format::entryTag(entry);
  return {ofAnotherKey ? Look::absent : Look::damagedRecord, 0};
}

// Most often the first entry with the key's tag is the key's, and nobody is at work on its record.
[[gnu::always_inline]] inline U64 TableView::find(U64 key, U64* image) {
  U64 const hashed = hash(key);
  Word const* const word = visited_.key == key ? visited_.word : firstTagged(hashed);
  if (word) [[likely]] {
    Found const found = copyRecord(*word, key, image);
    if (found.look == Look::record) [[likely]]
      return found.state;
  }
  return findAgain(key, image);
}

}  // namespace Shoal
