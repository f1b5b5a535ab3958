// SPDX-License-Identifier: Apache-2.0
// Look-up and walk.
//
//   key -> hash -> bucket -> line  [ entry | entry | entry | link ] -> line -> ...
//                                      |  of the key's tag
//                                      v
//                              [ checksum | state | key | ... ]      copied as a seqlock is read (slot.h)
//
// A look-up is one attempt after the other until one was not overtaken by the writer. Overtaken means: the
// slot was written while it was copied, or the entry names another slot afterwards, or a split moved the key.
// What is wrong and stays wrong for a few attempts is damage.
//
// It never waits for the writer, and it knows nothing of notification.
#include "shoal/table_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "pallo/exception.h"
#include "shoal/error.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Shoal {

using namespace Format;

namespace {

constexpr int maxAttempts = 1000;      // each of which the writer must have spoiled
constexpr int maxDamagedAttempts = 8;  // damage that goes away was the writer at work
constexpr U64 prefetchBuckets = 4;     // how far a walk looks ahead

using Word = TableView::Word;
using Reason = FileException::Reason;

U64 acquire(Word const& word) { return word.load(std::memory_order_acquire); }
U64 relaxed(Word const& word) { return word.load(std::memory_order_relaxed); }

unsigned entriesPresent(Word const* line) {
  return entriesWhere(line, [](U64 entry) { return entry != 0; });
}
bool isIntact(Word const* line) {
  return entriesWhere(line, [](U64 entry) { return !entryIntact(entry); }) == 0;
}

U64 packed(U64 bucket, U64 depth, unsigned at) { return bucket << 16 | depth << 3 | at; }

}  // namespace

std::string_view typeName(Header const& header) {
  return {header.typeName, strnlen(header.typeName, sizeof header.typeName)};
}

bool isSound(Header const& header) {
  return header.magic == magic && XXH3_64bits(&header, offsetof(Header, checksum)) == header.checksum &&
         std::has_single_bit(header.ringEntries) && header.ringEntries <= (1U << 24) &&
         header.imageBytes > 0 && header.imageBytes % 8 == 0 && header.tailAt <= maxHeadWords &&
         header.tailAt <= header.imageBytes / 8 && header.imageBytes / 8 - header.tailAt <= maxTailWords &&
         header.slotBytes == slotBytes(header.imageBytes) &&
         header.chunkStart == chunkStart(header.ringEntries);
}

Header checkedHeader(Mapping const& mapping) {
  std::string const& path = mapping.path();
  U64 const bytes = mapping.fileBytes();
  Header header{};
  if (bytes == 0) throw FileException(Reason::truncated, fmt::format("{} is empty, expected a table", path));
  if (bytes >= sizeof(U64)) std::memcpy(&header.magic, mapping.base(), sizeof(U64));
  if (bytes < sizeof(U64) || header.magic != magic)
    throw FileException(Reason::notATable,
                        fmt::format("{} is not a table file: its first bytes are another's", path));
  if (bytes < ringAt)
    throw FileException(Reason::truncated,
                        fmt::format("{} is cut short: {} bytes, less than a table's header", path, bytes));
  std::memcpy(&header, mapping.base(), sizeof header);
  if (header.version != version)
    throw FileException(
        Reason::otherVersion,
        fmt::format("{} is a table file of format version {}, expected {}", path, header.version, version));
  if (!isSound(header))
    throw FileException(Reason::damaged,
                        fmt::format("{}: the header is damaged, its checksum does not agree", path));
  return header;
}

void checkShape(std::string const& path, Header const& header, Shape const& shape) {
  bool const sameType = typeName(header) == shape.typeName;
  if (sameType && header.recordVersion == shape.version && header.imageBytes == shape.imageBytes &&
      header.tailAt == shape.tailAt)
    return;
  throw FileException(sameType ? Reason::otherVersion : Reason::otherRecord,
                      fmt::format("{} holds {} records of version {}, expected {} of version {}", path,
                                  typeName(header), header.recordVersion, shape.typeName, shape.version));
}

TableView::TableView(std::shared_ptr<Mapping const> mapping)
    : mapping_(std::move(mapping)),
      base_(mapping_->base()),
      header_(checkedHeader(*mapping_)),
      seed_{header_.hash[0], header_.hash[1], header_.hash[2], header_.hash[3]},
      room_{header_.tailAt, header_.imageBytes / 8 - header_.tailAt},
      slotBytes_(header_.slotBytes),
      chunkStart_(header_.chunkStart),
      indexChunks_(directoryEntries) {
  std::string const& path = mapping_->path();
  auto const inUse = unguard(acquire(*word(chunksAt)), chunksAt);
  if (!inUse || *inUse > maxChunks)
    throw FileException(Reason::damaged,
                        fmt::format("{}: the header is damaged, its number of chunks", path));
  limit_ = chunkOffset(*inUse);
  // A writer that grows the file lengthens it before it counts the chunk.
  if (U64 const now = mapping_->fileBytes(); limit_ > now)
    throw FileException(Reason::truncated, fmt::format("{} is cut short: {} bytes of {}", path, now, limit_));
  if (limit_ > mapping_->window())
    throw FileException(
        Reason::notAllowed,
        fmt::format("{}: {} bytes do not fit into this process's address space", path, limit_));
}

std::string TableView::damage(std::string_view what) const {
  U64 const bytes = mapping_->fileBytes();
  if (mapping_->cutShort() && bytes < limit_)
    return fmt::format("{}: the file was cut short to {} bytes of {} ({})", mapping_->path(), bytes, limit_,
                       what);
  return fmt::format("{}: {}", mapping_->path(), what);
}

U64 TableView::guarded(U64 offset, std::string_view what) const {
  auto const value = unguard(acquire(*word(offset)), offset);
  if (!value)
    throw Pallo::CorruptionDetectedException(damage(fmt::format("the header's {} is damaged", what)));
  return *value;
}

U64 TableView::buckets() const {
  U64 const seen = acquire(*word(bucketsAt));
  if (seen == bucketsWord_) [[likely]]
    return bucketsSeen_;
  U64 const value = unguard(seen, bucketsAt).value_or(0);
  if (value == 0 || value > maxBuckets || value > chunks() * linesPerChunk)
    throw Pallo::CorruptionDetectedException(damage("the header's number of buckets is damaged"));
  bucketsWord_ = seen;
  bucketsSeen_ = value;
  levelSeen_ = std::bit_floor(value);
  return value;
}

// The writer may have lengthened the file.
U64 TableView::lookLimit() {
  auto const inUse = unguard(acquire(*word(chunksAt)), chunksAt);
  if (inUse && *inUse <= maxChunks)
    limit_ = std::max(limit_, std::min(chunkOffset(*inUse), mapping_->window()));
  return limit_;
}

Word* TableView::line(U64 bucket) {
  U64 const chunk = bucket / linesPerChunk;
  if (!indexChunks_[chunk]) [[unlikely]] {
    U64 const place = indexDirectoryAt(header_.ringEntries) + chunk * 8;
    auto const number = unguard(acquire(*word(place)), place);
    if (!number || *number > maxChunks || !insideChunks(chunkOffset(*number), chunkBytes)) return nullptr;
    indexChunks_[chunk] = word(chunkOffset(*number));
  }
  return indexChunks_[chunk] + bucket % linesPerChunk * wordsPerLine;
}

Word* TableView::overflowLine(U64 unit) {
  return insideChunks(unit * unitBytes, unitBytes) ? word(unit * unitBytes) : nullptr;
}

U64 TableView::findAgain(U64 key, U64* image) {
  int damagedAttempts = 0;
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    Found const found = look(key, image);
    if (found.look <= Look::absent) return found.state;
    if (found.look != Look::overtaken && ++damagedAttempts == maxDamagedAttempts)
      throwDamage(key, found.look);
  }
  throw Pallo::CorruptionDetectedException(
      damage(fmt::format("the record of key {} never comes to rest", key)));
}

void TableView::throwDamage(U64 key, Look look) const {
  char const* const text = look == Look::damagedRecord
                               ? "the record of key {} is damaged, its checksum does not agree"
                               : "the index is damaged where key {} belongs";
  throw Pallo::CorruptionDetectedException(damage(fmt::format(fmt::runtime(text), key)));
}

// One attempt.
TableView::Found TableView::look(U64 key, U64* image) {
  U64 const hashed = hash(key);
  U64 const bucket = bucketOf(hashed, buckets());
  Word const* at = line(bucket);
  Look result = Look::absent;
  for (U64 depth = 0; at && depth < maxDepth; ++depth) {
    Found const found = lookInLine(at, key, hashed, image);
    if (found.look == Look::record || found.look == Look::overtaken) return found;
    result = std::max(result, found.look);
    auto const next = linkUnit(acquire(at[linkInLine]), bucket, depth);
    if (next && *next == 0) {
      std::atomic_thread_fence(std::memory_order_acquire);
      return {bucketOf(hashed, buckets()) == bucket ? result : Look::overtaken, 0};
    }
    at = next ? overflowLine(*next) : nullptr;
  }
  return {Look::damagedIndex, 0};
}

TableView::Found TableView::lookInLine(Word const* line, U64 key, U64 hash, U64* image) {
  Look result = Look::absent;
  for (unsigned left = entriesTagged(line, tag(hash)); left != 0; left &= left - 1) {
    Found const found = copyRecord(line[std::countr_zero(left)], key, image);
    if (found.look == Look::record || found.look == Look::overtaken) return found;
    result = std::max(result, found.look);
  }
  return {isIntact(line) ? result : Look::damagedIndex, 0};  // an entry that is damaged may be the key's
}

Change TableView::changeOf(U64 key) {
  std::array<U64, 128> usual;
  std::vector<U64> larger(imageWords() > usual.size() ? imageWords() : 0);
  U64 const state = find(key, larger.empty() ? usual.data() : larger.data());
  return state == 0 ? Change{} : Change{header_.tableId, generation(state) / 2};
}

bool TableView::contains(U64 key) {
  try {
    return changeOf(key) != Change{};
  } catch (Pallo::CorruptionDetectedException const&) {
    return true;
  }
}

std::optional<U64> TableView::changedKey(U64 sequence) const {
  Word const* const change = this->change(sequence);
  U64 const before = acquire(change[0]);
  U64 const key = acquire(change[1]);
  if (before != stamp(sequence, key) || acquire(change[0]) != before) return std::nullopt;
  return key;
}

// The cache lines that a record of a few words lies in. An address that leads nowhere is no harm here.
static void prefetchSlot(std::byte const* slot, U64 bytes) {
  __builtin_prefetch(slot);
  if (bytes > 64) __builtin_prefetch(slot + 64);
}

void TableView::prefetchLine(U64 sequence) const {
  __builtin_prefetch(firstLine(hash(relaxed(change(sequence)[1]))));
}

void TableView::prefetchRecord(U64 sequence) const {
  if (Word const* const found = firstTagged(hash(relaxed(change(sequence)[1]))))
    prefetchSlot(base_ + entryUnit(relaxed(*found)) * unitBytes, header_.slotBytes);
}

std::optional<FilePlace> TableView::walk(U64 hint) {
  if (hint == 0) walkDamage_.clear();
  auto const found = walkBuckets({hint >> 16, hint >> 3 & 0x1FFF, static_cast<unsigned>(hint & 7)});
  if (found) return found;
  visited_.word = nullptr;
  if (!walkDamage_.empty()) throw Pallo::CorruptionDetectedException(std::exchange(walkDamage_, {}));
  return std::nullopt;
}

std::optional<FilePlace> TableView::walkBuckets(Position p) {
  for (; p.bucket < buckets(); p = {p.bucket + 1, 0, 0}) {
    if (p.at == 0 && p.depth == 0 && p.bucket + prefetchBuckets < maxBuckets)
      prefetchSlots(line(p.bucket + prefetchBuckets));
    Word* at = lineAt(p.bucket, p.depth);
    if (!at && p.depth == 0)
      p.bucket = roundUp(p.bucket + 1, linesPerChunk) - 1;  // nor are its chunk's others
    for (; at; at = nextLine(at, p), ++p.depth, p.at = 0) {
      for (unsigned left = entriesPresent(at) >> p.at << p.at; left != 0; left &= left - 1) {
        p.at = static_cast<unsigned>(std::countr_zero(left));
        if (auto const found = visit(at[p.at], p)) return found;
      }
    }
  }
  return std::nullopt;
}

// The key of the entry, unless it was removed or its key is unreadable.
std::optional<FilePlace> TableView::visit(Word const& word, Position const& p) {
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    U64 const entry = acquire(word);
    if (entry == 0) return std::nullopt;
    if (!entryIntact(entry) || !slotInside(entryUnit(entry))) {
      walkDamage_ = damage(fmt::format("the index is damaged: an entry of bucket {}", p.bucket));
      return std::nullopt;
    }
    Word const* const slot = this->slot(entryUnit(entry));
    U64 const state = acquire(slot[1]);
    U64 const key = relaxed(slot[2]);
    std::atomic_thread_fence(std::memory_order_acquire);
    bool const stands = !isWriting(state) && acquire(word) == entry && relaxed(slot[1]) == state;
    if (stands && isFreed(state)) return std::nullopt;
    if (stands && tag(hash(key)) == entryTag(entry)) {
      visited_ = {&word, key};
      return FilePlace{key, packed(p.bucket, p.depth, p.at + 1)};
    }
    if (relaxed(word) == entry && attempt >= maxDamagedAttempts) break;
  }
  if (damageSink_) damageSink_(damage(fmt::format("a record of bucket {} is damaged, its key", p.bucket)));
  return std::nullopt;
}

// The bucket's next line, null at its end. A line that another bucket took over meanwhile leads nowhere: then
// the way begins anew at the bucket.
Word* TableView::nextLine(Word* line, Position const& p) {
  auto const unit = linkUnit(acquire(line[linkInLine]), p.bucket, p.depth);
  if (unit && *unit == 0) return nullptr;
  Word* const next = unit ? overflowLine(*unit) : nullptr;
  return next ? next : lineAt(p.bucket, p.depth + 1);
}

// Null beyond the bucket's end.
Word* TableView::lineAt(U64 bucket, U64 depth) {
  for (int attempt = 0; attempt < maxDamagedAttempts; ++attempt) {
    Word* at = line(bucket);
    for (U64 d = 0; at && d < depth; ++d) {
      auto const unit = linkUnit(acquire(at[linkInLine]), bucket, d);
      if (unit && *unit == 0) return nullptr;
      at = unit ? overflowLine(*unit) : nullptr;
    }
    if (at && depth < maxDepth) return at;
  }
  walkDamage_ = damage(fmt::format("the index is damaged: the lines of bucket {}", bucket));
  return nullptr;
}

void TableView::prefetchSlots(Word const* line) const {
  if (!line) return;
  for (unsigned left = entriesPresent(line); left != 0; left &= left - 1)
    prefetchSlot(base_ + entryUnit(relaxed(line[std::countr_zero(left)])) * unitBytes, header_.slotBytes);
}

}  // namespace Shoal
