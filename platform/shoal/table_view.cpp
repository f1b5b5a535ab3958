// SPDX-License-Identifier: Apache-2.0
#include "shoal/table_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "shoal/error.h"
#include "shoal/shared_words.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Shoal {

using namespace Format;

namespace {

// What a racing writer can undo, it undoes by going forward; a reader that still finds no rest after this
// many attempts is looking at damage.
constexpr int maxAttempts = 1000;
constexpr int maxIndexAttempts = 8;
constexpr U64 maxDepth = 4096;
constexpr U64 prefetchBuckets = 4;  // how far a walk looks ahead

U64 acquire(std::atomic<U64> const& word) { return word.load(std::memory_order_acquire); }

bool lineIntact(std::atomic<U64> const* line) {
  U64 folded = 0;
  for (unsigned i = 0; i < entriesPerLine; ++i) folded |= foldQuarters(acquire(line[i]));
  return folded == 0;
}

U64 packWalk(U64 bucket, U64 depth, unsigned at) { return bucket << 16 | depth << 3 | at; }

}  // namespace

TableView::TableView(std::shared_ptr<Mapping const> mapping)
    : mapping_(std::move(mapping)), base_(mapping_->base()) {
  U64 const inUse = checkHeader();
  seed_ = {header_.hash[0], header_.hash[1], header_.hash[2], header_.hash[3]};
  maxWords_ = (header_.imageBytes + 7) / 8;
  scratch_.assign(imageBytesInRows(rowsOfImage(header_.imageBytes)), {});
  indexChunks_.assign(directoryEntries, nullptr);
  limitIs(chunkOffset(inUse));
}

TableView::TableView(std::shared_ptr<Mapping const> mapping, Shape const& shape)
    : TableView(std::move(mapping)) {
  checkShape(shape);
}

std::string_view TableView::typeName() const {
  return {header_.typeName, strnlen(header_.typeName, sizeof header_.typeName)};
}

bool TableView::isWrittenOver() const {
  auto const asOpened = std::bit_cast<std::array<U64, sizeof(Header) / 8>>(header_);
  for (std::size_t i = 0; i < asOpened.size(); ++i)
    if (acquire(*word(i * 8)) != asOpened[i]) return true;
  return false;
}

// Returns the number of chunks in use.
U64 TableView::checkHeader() {
  using Reason = FileException::Reason;
  std::string const& path = mapping_->path();
  U64 const bytes = mapping_->fileBytes();
  if (bytes == 0) throw FileException(Reason::truncated, fmt::format("{} is empty, expected a table", path));
  if (bytes >= sizeof(U64)) std::memcpy(&header_.magic, base_, sizeof(U64));
  if (bytes < sizeof(U64) || header_.magic != magic)
    throw FileException(Reason::notATable,
                        fmt::format("{} is not a table file: its first bytes are another's", path));
  if (bytes < ringAt)
    throw FileException(Reason::truncated,
                        fmt::format("{} is cut short: {} bytes, less than a table's header", path, bytes));
  std::memcpy(&header_, base_, sizeof header_);
  if (header_.version != version)
    throw FileException(
        Reason::otherVersion,
        fmt::format("{} is a table file of format version {}, expected {}", path, header_.version, version));
  bool const sound =
      XXH3_64bits(&header_, offsetof(Header, checksum)) == header_.checksum &&
      std::has_single_bit(header_.ringEntries) && header_.imageBytes > 0 &&
      header_.imageBytes <= maxImageBytes && header_.slotBytes == slotBytes(header_.imageBytes) &&
      header_.ringEntries <= (1U << 24) && header_.chunkStart == chunkStart(header_.ringEntries);
  if (!sound)
    throw FileException(Reason::damaged,
                        fmt::format("{}: the header is damaged, its checksum does not agree", path));
  auto const inUse = unguard(acquire(*word(chunksAt)), chunksAt);
  if (!inUse || *inUse > windowBytes / chunkBytes)
    throw FileException(Reason::damaged,
                        fmt::format("{}: the header is damaged, its number of chunks", path));
  // The writer may have grown the file meanwhile: it lengthens it before it counts the chunk.
  if (U64 const now = mapping_->fileBytes(); chunkOffset(*inUse) > now)
    throw FileException(Reason::truncated,
                        fmt::format("{} is cut short: {} bytes of {}", path, now, chunkOffset(*inUse)));
  if (chunkOffset(*inUse) > mapping_->window())
    throw FileException(
        Reason::notAllowed,
        fmt::format("{}: {} bytes do not fit into this process's address space", path, bytes));
  return *inUse;
}

void TableView::checkShape(Shape const& shape) const {
  if (typeName() == shape.typeName && header_.recordVersion == shape.version &&
      header_.imageBytes == shape.imageBytes)
    return;
  bool const sameType = typeName() == shape.typeName;
  throw FileException(
      sameType ? FileException::Reason::otherVersion : FileException::Reason::otherRecord,
      fmt::format("{} holds {} records of version {}, expected {} of version {}", mapping_->path(),
                  typeName(), header_.recordVersion, shape.typeName, shape.version));
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
  if (acquire(*word(bucketsAt)) == bucketsWord_) [[likely]]
    return bucketsSeen_;
  U64 const seen = acquire(*word(bucketsAt));
  U64 const value = guarded(bucketsAt, "number of buckets");
  if (value == 0 || value > maxBuckets || value > chunks() * linesPerChunk)
    throw Pallo::CorruptionDetectedException(damage("the header's number of buckets is out of range"));
  if (unguard(seen, bucketsAt) == value) {
    bucketsWord_ = seen;
    bucketsSeen_ = value;
    levelSeen_ = std::bit_floor(value);
  }
  return value;
}
U64 TableView::chunks() const { return guarded(chunksAt, "number of chunks"); }
U64 TableView::size() const { return guarded(countAt, "number of records"); }
U64 TableView::head() const { return guarded(headAt, "number of changes"); }

std::optional<U64> TableView::changedKey(U64 sequence) const {
  U64 const at = ringAt + (sequence & (header_.ringEntries - 1)) * 16;
  U64 const before = acquire(*word(at));
  U64 const key = acquire(*word(at + 8));
  if (before != stamp(sequence, key) || acquire(*word(at)) != before) return std::nullopt;
  return key;
}

U64 TableView::announcedKey(U64 sequence) const {
  U64 const at = ringAt + (sequence & (header_.ringEntries - 1)) * 16;
  return word(at + 8)->load(std::memory_order_relaxed);
}

void TableView::limitIs(U64 limit) {
  limit_ = std::min(limit, mapping_->window());
  unitsEnd_ = limit_ < header_.slotBytes ? 0 : (limit_ - header_.slotBytes) / unitBytes + 1;
}

bool TableView::insideChunks(U64 offset, U64 bytes) {
  if (offset < header_.chunkStart) return false;
  if (offset + bytes <= limit_) [[likely]]
    return true;
  auto const inUse = unguard(acquire(*word(chunksAt)), chunksAt);
  if (inUse && *inUse <= windowBytes / chunkBytes) limitIs(std::max(limit_, chunkOffset(*inUse)));
  return offset + bytes <= limit_;
}

bool TableView::slotInside(U64 unit) { return insideChunks(unit * unitBytes, header_.slotBytes); }

std::atomic<U64>* TableView::line(U64 bucket) {
  U64 const chunk = bucket / linesPerChunk;
  if (!indexChunks_[chunk]) [[unlikely]] {
    U64 const place = indexDirectoryAt(header_.ringEntries) + chunk * 8;
    auto const number = unguard(acquire(*word(place)), place);
    if (!number || *number > windowBytes / chunkBytes || !insideChunks(chunkOffset(*number), chunkBytes))
      return nullptr;
    indexChunks_[chunk] = word(chunkOffset(*number));
  }
  return indexChunks_[chunk] + (bucket % linesPerChunk) * 8;
}

std::atomic<U64>* TableView::overflowLine(U64 unit) {
  return insideChunks(unit * unitBytes, unitBytes) ? word(unit * unitBytes) : nullptr;
}

// The state is read first and again last, so that a slot that was recycled meanwhile shows.
TableView::Copy TableView::copySlot(U64 unit) {
  std::atomic<U64> const* const slot = word(unit * unitBytes);
  U64 const state = acquire(slot[1]);
  if ((state & 1) != 0) return Copy::changing;
  if (words(state) > maxWords_) return Copy::damaged;
  scratchRows_ = rows(state);
  U64 const first = acquire(slot[3]);
  std::memcpy(scratch_.data(), &first, sizeof first);
  U64 const checksum = Words::copyRows(slot, scratch_.data() + sizeof first, scratchRows_);
  U64 const expected = acquire(slot[0]);
  scratchKey_ = acquire(slot[2]);
  if (acquire(slot[1]) != state) return Copy::changing;
  return checksum == expected ? Copy::whole : Copy::damaged;
}

void TableView::clearScratchBehind(U64 rows) {
  std::size_t const copied = imageBytesInRows(rows);
  std::memset(scratch_.data() + copied, 0, scratch_.size() - copied);
}

bool TableView::tailIsZero(U64 unit) const {
  std::atomic<U64> const* const slot = word(unit * unitBytes);
  for (U64 i = 3 + words(acquire(slot[1])); i < header_.slotBytes / 8; ++i)
    if (acquire(slot[i]) != 0) return false;
  return true;
}

// The key alone, when it is not being written.
bool TableView::peekKey(U64 unit, U64& key) const {
  std::atomic<U64> const* const slot = word(unit * unitBytes);
  U64 const before = acquire(slot[1]);
  key = acquire(slot[2]);
  return !(before & 1) && acquire(slot[1]) == before;
}

// An entry with the key's tag: its record, or another's of equal tag, or a damaged one that may be either.
TableView::Scan TableView::tryEntry(std::atomic<U64> const& word, U64 entry, U64 key, U64 wanted, bool copy) {
  U64 const unit = entryUnit(entry);
  if (!entryIntact(entry) || !slotInside(unit)) return Scan::damagedIndex;
  U64 slotKey = 0;
  Copy result = Copy::whole;
  if (copy) {
    result = copySlot(unit);
    slotKey = scratchKey();
  } else if (!peekKey(unit, slotKey)) {
    result = Copy::changing;
  }
  // A recycled slot may be complete and not published yet: the entry must still name it.
  if (result == Copy::changing || acquire(word) != entry) return Scan::changing;
  if (result == Copy::whole && slotKey == key) return Scan::found;
  if (result == Copy::damaged && words(acquire(*this->word(unit * unitBytes + 8))) > maxWords_)
    peekKey(unit, slotKey);
  bool const another = slotKey != key && tag(hash(slotKey)) == tag(wanted);
  if (another) return Scan::absent;
  return result == Copy::damaged || slotKey != key ? Scan::damagedRecord : Scan::absent;
}

TableView::Scan TableView::scan(U64 key, U64 hash, U64 bucket, bool copy) {
  std::atomic<U64>* at = line(bucket);
  if (!at) return Scan::damagedIndex;
  U64 const wanted = tag(hash);
  Scan worst = Scan::absent;
  for (U64 depth = 0;; ++depth) {
    for (unsigned left = Words::entriesOfTag(at, wanted); left != 0; left &= left - 1) {
      std::atomic<U64> const& word = at[std::countr_zero(left)];
      U64 const entry = acquire(word);
      if (entryTag(entry) != wanted || entry == 0) continue;
      Scan const result = tryEntry(word, entry, key, hash, copy);
      if (result == Scan::found || result == Scan::changing) return result;
      worst = std::max(worst, result);
    }
    // An entry that is damaged may be the key's.
    if (!lineIntact(at)) worst = Scan::damagedIndex;
    U64 const linkWord = acquire(at[7]);
    auto const unit = linkUnit(linkWord, bucket, depth);
    if (!unit || depth > maxDepth) return Scan::damagedIndex;
    if (*unit == 0) return worst;
    at = overflowLine(*unit);
    if (!at) return Scan::damagedIndex;
  }
}

// A key that is not in its bucket may have been moved by a split that began meanwhile: then the bucket is
// another.
bool TableView::lookup(U64 key, bool copy) {
  U64 const hashed = hash(key);
  int indexAttempts = 0;
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    U64 const bucket = bucketOf(hashed, buckets());
    Scan const result = scan(key, hashed, bucket, copy);
    if (result == Scan::found) return true;
    if (result == Scan::changing) continue;
    if (bucketOf(hashed, buckets()) != bucket) continue;
    if (result == Scan::absent) return false;
    if (++indexAttempts < maxIndexAttempts) continue;
    if (result == Scan::damagedRecord)
      throw Pallo::CorruptionDetectedException(
          damage(fmt::format("the record of key {} is damaged, its checksum does not agree", key)));
    throw Pallo::CorruptionDetectedException(
        damage(fmt::format("the index is damaged where key {} belongs", key)));
  }
  throw Pallo::CorruptionDetectedException(
      damage(fmt::format("the record of key {} never comes to rest", key)));
}

std::atomic<U64> const* TableView::entryWord(U64 key) {
  for (auto place = walk(0); place; place = walk(place->hint))
    if (place->key == key) return visited_.word;
  return nullptr;
}

// The lines that a record of a few words lies in. An address that leads nowhere is no harm here.
[[gnu::always_inline]] inline void TableView::prefetchSlot(U64 entry) const {
  std::byte const* const slot = base_ + entryUnit(entry) * unitBytes;
  __builtin_prefetch(slot);
  if (header_.slotBytes > unitBytes) {
    __builtin_prefetch(slot + unitBytes);
    __builtin_prefetch(slot + 2 * unitBytes);
  }
}

void TableView::prefetchLine(U64 key) const {
  if (std::atomic<U64> const* const line = firstLine(hash(key))) __builtin_prefetch(line);
}

void TableView::prefetchRecord(U64 key) const {
  U64 const hashed = hash(key);
  std::atomic<U64> const* const line = firstLine(hashed);
  unsigned const candidates = line ? Words::entriesOfTag(line, tag(hashed)) : 0;
  if (candidates != 0) prefetchSlot(line[std::countr_zero(candidates)].load(std::memory_order_relaxed));
}

std::byte const* TableView::read(U64 key) {
  if (!lookup(key, true)) return nullptr;
  clearScratchBehind(scratchRows_);
  return scratch_.data();
}

bool TableView::contains(U64 key) {
  try {
    return lookup(key, false);
  } catch (Pallo::CorruptionDetectedException const&) {
    return true;  // its look-up says what is wrong with it
  }
}

// The overflow line after `line`, the line's own bucket and depth given; null at the chain's end. A line that
// another bucket took over meanwhile leads nowhere: then the way begins anew at the bucket.
std::atomic<U64>* TableView::nextLine(std::atomic<U64>* line, U64 bucket, U64 depth) {
  auto const unit = linkUnit(acquire(line[7]), bucket, depth);
  if (unit && *unit == 0) return nullptr;
  std::atomic<U64>* const next = unit ? overflowLine(*unit) : nullptr;
  return next && depth < maxDepth ? next : lineAt(bucket, depth + 1);
}

// Null beyond the chain's end.
std::atomic<U64>* TableView::lineAt(U64 bucket, U64 depth) {
  for (int attempt = 0; attempt < maxIndexAttempts; ++attempt) {
    std::atomic<U64>* at = line(bucket);
    for (U64 d = 0; at && d < depth && d < maxDepth; ++d) {
      auto const unit = linkUnit(acquire(at[7]), bucket, d);
      if (unit && *unit == 0) return nullptr;
      at = unit ? overflowLine(*unit) : nullptr;
    }
    if (at && depth <= maxDepth) return at;
  }
  walkDamage_ = damage(fmt::format("the index is damaged: the lines of bucket {}", bucket));
  return nullptr;
}

// The key of the entry, unless the entry went away or its key is unreadable.
std::optional<TableView::Place> TableView::visit(std::atomic<U64> const& word, Walk const& place) {
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    U64 const entry = acquire(word);
    if (entry == 0) return std::nullopt;
    U64 key = 0;
    if (!entryIntact(entry) || !slotInside(entryUnit(entry))) {
      walkDamage_ = damage(fmt::format("the index is damaged: an entry of bucket {}", place.bucket));
      return std::nullopt;
    }
    bool const atRest = peekKey(entryUnit(entry), key);
    if (atRest && tag(hash(key)) == entryTag(entry)) {
      visited_ = {&word, entry, key, packWalk(place.bucket, place.depth, place.at + 1)};
      return Place{key, visited_.hint};
    }
    if (acquire(word) == entry && attempt >= maxIndexAttempts) break;
  }
  if (damageSink_)
    damageSink_(damage(fmt::format("a record of bucket {} is damaged, its key", place.bucket)));
  return std::nullopt;
}

std::optional<TableView::Place> TableView::walkLine(std::atomic<U64>* line, Walk& place) {
  for (; place.at < entriesPerLine; ++place.at)
    if (auto const found = visit(line[place.at], place)) return found;
  return std::nullopt;
}

// The slots of a line that the walk will come to, asked for before they are needed.
[[gnu::always_inline]] inline void TableView::prefetchSlots(std::atomic<U64> const* line) const {
  for (unsigned left = Words::entriesPresent(line); left != 0; left &= left - 1)
    prefetchSlot(line[std::countr_zero(left)].load(std::memory_order_relaxed));
}

std::optional<TableView::Place> TableView::walkBuckets(Walk place) {
  for (; place.bucket < buckets(); place = {place.bucket + 1, 0, 0}) {
    if (place.at == 0 && place.depth == 0 && place.bucket + prefetchBuckets < maxBuckets)
      if (std::atomic<U64> const* const ahead = line(place.bucket + prefetchBuckets)) prefetchSlots(ahead);
    std::atomic<U64>* at = lineAt(place.bucket, place.depth);
    if (!at && place.depth == 0) {
      place.bucket = roundUp(place.bucket + 1, linesPerChunk) - 1;  // none of the chunk's buckets is readable
      continue;
    }
    while (at) {
      if (auto const found = walkLine(at, place)) return found;
      at = nextLine(at, place.bucket, place.depth);
      ++place.depth;
      place.at = 0;
    }
  }
  return std::nullopt;
}

void TableView::endWalk() {
  visited_.word = nullptr;
  if (walkDamage_.empty()) return;
  throw Pallo::CorruptionDetectedException(std::exchange(walkDamage_, {}));
}

// The next entry in the buckets' first lines, which lie one after the other in a chunk and never move.
// Nothing at the chunk's end, at an overflow line, and wherever else walkBuckets() is to find out.
std::optional<TableView::Place> TableView::walkOn(U64 hint) {
  unsigned at = hint & 7;
  U64 bucket = hint >> 16;
  std::atomic<U64> const* line = visited_.word + 1 - at;
  unsigned left = Words::entriesPresent(line) >> at << at;
  while (left == 0) {
    if (acquire(line[7]) != link(0, bucket, 0)) return std::nullopt;
    ++bucket;
    bool const known = acquire(*word(bucketsAt)) == bucketsWord_ && bucket < bucketsSeen_;
    if (!known || bucket % linesPerChunk == 0) return std::nullopt;
    line += 8;
    bool const inChunk = (bucket + prefetchBuckets) % linesPerChunk >= prefetchBuckets;
    if (inChunk) prefetchSlots(line + prefetchBuckets * 8);
    left = Words::entriesPresent(line);
  }
  at = static_cast<unsigned>(std::countr_zero(left));
  U64 const entry = acquire(line[at]);
  U64 key = 0;
  bool const sound = entryIntact(entry) && entryUnit(entry) < unitsEnd_ && peekKey(entryUnit(entry), key) &&
                     tag(hash(key)) == entryTag(entry);
  if (!sound) return std::nullopt;
  visited_ = {line + at, entry, key, packWalk(bucket, 0, at + 1)};
  return Place{key, visited_.hint};
}

std::optional<TableView::Place> TableView::walk(U64 hint) {
  if (hint == 0) walkDamage_.clear();
  bool const inFirstLine = visited_.word && hint == visited_.hint && (hint >> 3 & 0x1FFF) == 0;
  if (inFirstLine)
    if (auto const found = walkOn(hint)) return found;
  auto found = walkBuckets({hint >> 16, hint >> 3 & 0x1FFF, static_cast<unsigned>(hint & 7)});
  if (!found) endWalk();
  return found;
}

}  // namespace Shoal
