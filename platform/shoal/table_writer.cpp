// SPDX-License-Identifier: Apache-2.0
#include "shoal/table_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>

#include "shoal/error.h"
#include "shoal/shared_words.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Shoal {

using namespace Format;

namespace Testing {
void (*storePoint)() = nullptr;
}

namespace {

// So many slots rest before one of them is written again, and the file rather grows by a chunk.
constexpr std::size_t restingSlots = 128;
constexpr U64 maxDepth = 4096;

void atStorePoint() {
  if (Testing::storePoint) [[unlikely]]
    Testing::storePoint();
}

[[noreturn]] void throwNoSpace(std::string const& path, int error) {
  throw NoSpaceException(
      fmt::format("{}: the table cannot grow, and is as it was: {}", path, std::strerror(error)));
}

// Space is taken before it is written: a full file system answers here, not with a signal at some store.
void allocate(int fd, std::string const& path, U64 offset, U64 bytes) {
  struct stat before {};
  fstat(fd, &before);
  int error;
  do error = posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(bytes));
  while (error == EINTR);
  if (error == 0) return;
  if (ftruncate(fd, before.st_size) != 0) error = errno;
  throwNoSpace(path, error);
}

Header newHeader(Shape const& shape, WriterOptions const& options) {
  Header header{};
  header.magic = magic;
  header.version = Format::version;
  header.recordVersion = shape.version;
  shape.typeName.copy(header.typeName, sizeof header.typeName - 1);
  header.imageBytes = static_cast<U32>(shape.imageBytes);
  header.slotBytes = static_cast<U32>(slotBytes(shape.imageBytes));
  header.ringEntries = std::clamp<U32>(std::bit_ceil(options.ringEntries), 16, 1U << 20);
  header.chunkStart = static_cast<U32>(chunkStart(header.ringEntries));
  if (getrandom(header.hash, sizeof header.hash, 0) != sizeof header.hash ||
      getrandom(&header.fileId, sizeof header.fileId, 0) != sizeof header.fileId)
    throw Pallo::Exception("no random numbers to be had for a new table");
  header.madeAt = static_cast<U64>(time(nullptr));
  header.checksum = XXH3_64bits(&header, offsetof(Header, checksum));
  return header;
}

// An empty table: the header, and one chunk of index of which the first buckets are in use.
void writeEmptyTable(std::byte* base, Header const& header) {
  std::memcpy(base, &header, sizeof header);
  auto const put = [&](U64 offset, U64 value) { std::memcpy(base + offset, &value, sizeof value); };
  for (U64 bucket = 0; bucket < firstBuckets; ++bucket)
    put(header.chunkStart + bucket * unitBytes + 7 * 8, link(0, bucket, 0));
  U64 const directory = indexDirectoryAt(header.ringEntries);
  put(directory, guard(0, directory));
  put(bucketsAt, guard(firstBuckets, bucketsAt));
  put(chunksAt, guard(1, chunksAt));
  put(countAt, guard(0, countAt));
  put(headAt, guard(0, headAt));
}

// What is not a table is never replaced by one.
void refuseToReplace(std::string const& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  int const fd = openTableFile(path, Mapping::Access::read);
  U64 first = 0;
  ssize_t const bytes = read(fd, &first, sizeof first);
  ::close(fd);
  if (bytes != 0 && first != magic)
    throw FileException(FileException::Reason::notATable,
                        fmt::format("{} is not a table file, and is not replaced by one", path));
}

bool isThere(std::string const& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

}  // namespace

// Where a key is, or where it would go.
struct TableWriter::Spot {
  U64 bucket = 0;
  std::atomic<U64>* word = nullptr;  // its entry, null when absent
  U64 entry = 0;
  std::atomic<U64>* hole = nullptr;  // the first free entry of the chain
  std::atomic<U64>* lastLine = nullptr;
  U64 lastDepth = 0;
};

// The lines of one bucket.
struct TableWriter::Chain {
  std::vector<std::atomic<U64>*> lines;
};

// What a pass over the index found.
struct TableWriter::Survey {
  std::vector<bool> slots;  // in use, by chunk and place
  std::vector<bool> lines;  // overflow lines in use, by chunk and place
  U64 count = 0;
  bool damaged = false;
};

TableWriter::TableWriter(std::string const& path, Shape const& shape, WriterOptions const& options) {
  directory_ = std::make_unique<SideDirectory>(path, options.worldAccess);
  lock_ = std::make_unique<WriterLock>(*directory_, path);
  if (options.replace) refuseToReplace(path);
  if (options.replace || !isThere(path)) make(path, shape, options);
  open(path, shape, options);
  wakers_ = std::make_unique<Wakers>(*directory_);
}

TableWriter::~TableWriter() = default;

// Made beside its place and moved there when it is complete: a file of the table's name is always a table.
void TableWriter::make(std::string const& path, Shape const& shape, WriterOptions const& options) {
  std::string const fresh = path + ".new";
  ::unlink(fresh.c_str());  // a writer's that was killed here; this one has the lock
  int const fd = ::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0660);
  if (fd < 0)
    throw FileException(FileException::Reason::notAllowed,
                        fmt::format("{}: cannot be made: {}", path, std::strerror(errno)));
  try {
    Header const header = newHeader(shape, options);
    Mapping const file(fresh, fd, Mapping::Access::write);
    allocate(file.fd(), path, 0, header.chunkStart + chunkBytes);
    writeEmptyTable(file.base(), header);
    struct stat status {};
    fstat(file.fd(), &status);
    if (options.worldAccess) fchmod(file.fd(), (status.st_mode & 0777) | 0444);
    if (rename(fresh.c_str(), path.c_str()) != 0)
      throw FileException(FileException::Reason::notAllowed,
                          fmt::format("{}: cannot be made: {}", path, std::strerror(errno)));
  } catch (...) {
    ::unlink(fresh.c_str());
    throw;
  }
}

void TableWriter::open(std::string const& path, Shape const& shape, WriterOptions const& options) {
  mapping_ = std::make_shared<Mapping>(path, Mapping::Access::write);
  view_ = std::make_unique<TableView>(mapping_, shape);
  slotWords_ = slotBytes(shape.imageBytes) / 8;
  scratch_.assign(slotWords_, 0);
  takeOver();
  if (options.hugePages) hugePagesTo_ = 0;
  makeHugePages();
}

WriterCounters TableWriter::counters() const {
  WriterCounters counters = counters_;
  counters.wakeUps = wakers_->wakeUps();
  return counters;
}

// ---- Stores

void TableWriter::store(std::atomic<U64>& word, U64 value) {
  atStorePoint();
  word.store(value, std::memory_order_release);
}

void TableWriter::storeGuarded(U64 offset, U64 value) { store(*view_->word(offset), guard(value, offset)); }

// Takes the record into the scratch area, where every word behind it is zero. Returns the words in use.
U64 TableWriter::takeImage(std::byte const* image) {
  U64 const bytes = view_->header().imageBytes;
  U64 used = bytes / 8;
  auto const word = [image](U64 i) {
    U64 value;
    std::memcpy(&value, image + 8 * i, sizeof value);
    return value;
  };
  U64 rest = 0;
  std::memcpy(&rest, image + 8 * used, bytes % 8);
  if (rest != 0) {
    ++used;
  } else {
    while (used >= 4 && (word(used - 1) | word(used - 2) | word(used - 3) | word(used - 4)) == 0) used -= 4;
    while (used > 0 && word(used - 1) == 0) --used;
  }
  std::memcpy(&scratch_[3], image, std::min(8 * used, bytes));
  if (used < imageWords_) std::fill(&scratch_[3 + used], &scratch_[3] + imageWords_, 0);
  imageWords_ = used;
  return used;
}

// The generation is odd from before the first store until after the last. What the slot held before says how
// far it is to be cleared; one whose writer was killed, and a damaged one, do not say, and are cleared to
// their end. The record's last row is cleared in any case: no read sees damage behind a record.
void TableWriter::writeSlot(U64 unit, U64 key, std::byte const* image) {
  std::atomic<U64>* const slot = view_->word(unit * unitBytes);
  U64 const used = takeImage(image);
  U64 const before = slot[1].load(std::memory_order_relaxed);
  bool const trusted = before == 0 || view_->copySlot(unit) == TableView::Copy::whole;
  U64 const wasInUse = trusted ? 3 + words(before) : slotWords_;
  U64 const writing = generation(before) | 1;
  scratch_[1] = state(writing + 1, used);
  scratch_[2] = key;
  scratch_[0] = Checksum::of(scratch_.data(), rows(scratch_[1]));
  U64 const dirty = std::max(wasInUse, rows(scratch_[1]) * rowWords);
  store(slot[1], state(writing, 0));
  store(slot[0], scratch_[0]);
  for (U64 i = 2; i < 3 + used; ++i) store(slot[i], scratch_[i]);
  for (U64 i = 3 + used; i < dirty; ++i) store(slot[i], 0);
  store(slot[1], scratch_[1]);
}

// ---- Finding

bool TableWriter::isSlot(U64 unit) const {
  U64 const offset = unit * unitBytes;
  if (offset < view_->header().chunkStart) return false;
  U64 const chunk = (offset - view_->header().chunkStart) / chunkBytes;
  U64 const inside = (offset - view_->header().chunkStart) % chunkBytes;
  return chunk < kinds_.size() && kinds_[chunk] == Kind::slots && inside % view_->header().slotBytes == 0 &&
         inside / view_->header().slotBytes < slotsPerChunk();
}

U64 TableWriter::slotsPerChunk() const { return chunkBytes / view_->header().slotBytes; }

U64 TableWriter::keyOf(U64 entry) const {
  return view_->word(entryUnit(entry) * unitBytes + slotKeyAt)->load(std::memory_order_relaxed);
}

// An entry that names a slot whose key has the entry's tag.
bool TableWriter::isSound(U64 entry) const {
  return entryIntact(entry) && isSlot(entryUnit(entry)) && tag(view_->hash(keyOf(entry))) == entryTag(entry);
}

// The key's entry; or one of the key's tag whose slot has lost its key to damage: writing the key heals that.
bool TableWriter::isOf(U64 entry, U64 key, U64 hash) const {
  if (entry == 0 || entryTag(entry) != tag(hash) || !entryIntact(entry) || !isSlot(entryUnit(entry)))
    return false;
  return keyOf(entry) == key || !isSound(entry);
}

// The line after `line`, which is the bucket's at `depth`; null at the end.
std::atomic<U64>* TableWriter::nextLine(std::atomic<U64> const* line, U64 bucket, U64 depth) {
  auto const unit = linkUnit(line[7].load(std::memory_order_relaxed), bucket, depth);
  if (unit && *unit == 0) return nullptr;
  if (std::atomic<U64>* const next = unit && depth < maxDepth ? view_->overflowLine(*unit) : nullptr)
    return next;
  throwLinesDamage(bucket);
}

void TableWriter::throwLinesDamage(U64 bucket) const {
  throw Pallo::CorruptionDetectedException(
      view_->damage(fmt::format("the index is damaged: the lines of bucket {}", bucket)));
}

TableWriter::Chain TableWriter::gather(U64 bucket) {
  Chain chain;
  std::atomic<U64>* at = view_->line(bucket);
  if (!at) throwLinesDamage(bucket);
  for (U64 depth = 0; at; at = nextLine(at, bucket, depth++)) chain.lines.push_back(at);
  return chain;
}

TableWriter::Spot TableWriter::locate(U64 key, U64 hash) {
  Spot spot;
  spot.bucket = bucketOf(hash, buckets_);
  std::atomic<U64>* line = view_->line(spot.bucket);
  if (!line) throwLinesDamage(spot.bucket);
  for (U64 depth = 0; line; line = nextLine(line, spot.bucket, depth++)) {
    spot.lastLine = line;
    spot.lastDepth = depth;
    if (!spot.word) locateInLine(spot, line, key, hash);
  }
  return spot;
}

void TableWriter::locateInLine(Spot& spot, std::atomic<U64>* line, U64 key, U64 hash) const {
  for (unsigned found = Words::entriesOfTag(line, tag(hash)); found != 0; found &= found - 1) {
    std::atomic<U64>& word = line[std::countr_zero(found)];
    U64 const entry = word.load(std::memory_order_relaxed);
    if (!isOf(entry, key, hash)) continue;
    spot.word = &word;
    spot.entry = entry;
    return;
  }
  if (spot.hole) return;
  for (unsigned i = 0; i < entriesPerLine && !spot.hole; ++i)
    if (line[i].load(std::memory_order_relaxed) == 0) spot.hole = &line[i];
}

// ---- Space

U64 TableWriter::addChunk(Kind kind) {
  U64 const offset = view_->chunkOffset(chunks_);
  if (offset + chunkBytes > mapping_->window()) throwNoSpace(mapping_->path(), EFBIG);
  atStorePoint();
  allocate(mapping_->fd(), mapping_->path(), offset, chunkBytes);
  storeGuarded(chunksAt, chunks_ + 1);
  kinds_.push_back(kind);
  ++counters_.chunks;
  return chunks_++;
}

// Of the file's stretches before the newest chunk. One that the kernel refused is not asked for again.
void TableWriter::makeHugePages() {
  constexpr U64 bytes = Mapping::hugePageBytes;
  U64 const full = view_->chunkOffset(chunks_ - 1);
  for (; hugePagesTo_ < full && full - hugePagesTo_ >= bytes; hugePagesTo_ += bytes)
    counters_.hugePages += mapping_->hugePageIs(hugePagesTo_);
}

void TableWriter::reserveSlot() {
  if (!idleSlots_.empty()) [[likely]]
    return;
  try {
    U64 const chunk = addChunk(Kind::slots);
    for (U64 i = slotsPerChunk(); i-- > 0;) idleSlots_.push_back(slotUnit(chunk, i));
  } catch (NoSpaceException const&) {
    if (restingSlots_.empty()) throw;
  }
}

U32 TableWriter::nextSlot() const { return idleSlots_.empty() ? restingSlots_.front() : idleSlots_.back(); }

void TableWriter::takeSlot() {
  if (idleSlots_.empty())
    restingSlots_.pop_front();
  else
    idleSlots_.pop_back();
}

U32 TableWriter::slotUnit(U64 chunk, U64 place) const {
  return static_cast<U32>((view_->chunkOffset(chunk) + place * view_->header().slotBytes) / unitBytes);
}

U32 TableWriter::lineUnit(U64 chunk, U64 place) const {
  return static_cast<U32>(view_->chunkOffset(chunk) / unitBytes + place);
}

void TableWriter::reserveLines(std::size_t count) {
  while (freeLines_.size() < count) {
    if (overflowChunks_ == directoryEntries) throwNoSpace(mapping_->path(), EFBIG);
    U64 const chunk = addChunk(Kind::overflow);
    storeGuarded(overflowDirectoryAt(view_->header().ringEntries) + overflowChunks_ * 8, chunk);
    ++overflowChunks_;
    for (U64 i = linesPerChunk; i-- > 0;) freeLines_.push_back(lineUnit(chunk, i));
  }
}

U32 TableWriter::takeLine() {
  U32 const unit = freeLines_.back();
  freeLines_.pop_back();
  return unit;
}

void TableWriter::freeSlot(U64 entry) {
  if (!isSlot(entryUnit(entry))) return;
  restingSlots_.push_back(static_cast<U32>(entryUnit(entry)));
  if (restingSlots_.size() <= restingSlots) return;
  idleSlots_.push_back(restingSlots_.front());
  restingSlots_.pop_front();
}

// ---- Announcing

// A change is written into the ring before it is published, and counted after it.
void TableWriter::beginChange(U64 key) {
  U64 const at = ringAt + (head_ & (view_->header().ringEntries - 1)) * 16;
  store(*view_->word(at + 8), key);
  store(*view_->word(at), stamp(head_, key));
}

// Sequentially consistent: the one word that a watcher reads before it sleeps.
void TableWriter::endChange() {
  atStorePoint();
  view_->word(headAt)->store(guard(++head_, headAt), std::memory_order_seq_cst);
  wakers_->wake();
  refuseIfCutShort();
}

void TableWriter::refuseIfCutShort() const {
  if (mapping_->cutShort()) [[unlikely]]
    throw Pallo::CorruptionDetectedException(view_->damage("a write fell beyond its end"));
}

// ---- The operations

void TableWriter::put(U64 key, std::byte const* image) {
  refuseIfCutShort();
  U64 const hash = view_->hash(key);
  reserveSlot();
  Spot const spot = locate(key, hash);
  if (!spot.word && !spot.hole) reserveLines(1);
  U64 const unit = nextSlot();
  writeSlot(unit, key, image);
  takeSlot();
  beginChange(key);
  publish(spot, entry(unit, hash));
  endChange();
  splitWhileFull();
  makeHugePages();
}

void TableWriter::publish(Spot const& spot, U64 entry) {
  if (spot.word) {
    store(*spot.word, entry);
    freeSlot(spot.entry);
    ++counters_.replaces;
    return;
  }
  if (spot.hole)
    store(*spot.hole, entry);
  else
    appendLine(spot, entry);
  storeGuarded(countAt, ++count_);
  ++counters_.inserts;
}

// The line is complete before the link that publishes it.
void TableWriter::appendLine(Spot const& spot, U64 entry) {
  U64 const unit = takeLine();
  std::atomic<U64>* const line = view_->word(unit * unitBytes);
  store(line[0], entry);
  for (unsigned i = 1; i < entriesPerLine; ++i) store(line[i], 0);
  store(line[7], link(0, spot.bucket, spot.lastDepth + 1));
  store(spot.lastLine[7], link(unit, spot.bucket, spot.lastDepth));
}

bool TableWriter::remove(U64 key) {
  refuseIfCutShort();
  Spot const spot = locate(key, view_->hash(key));
  if (!spot.word) return false;
  beginChange(key);
  store(*spot.word, 0);
  storeGuarded(countAt, --count_);
  freeSlot(spot.entry);
  ++counters_.removes;
  endChange();
  return true;
}

// Damage is raised when all that can be removed is.
void TableWriter::removeAll() {
  std::vector<U64> keys;
  std::exception_ptr damage;
  auto const orDamage = [&damage](auto work) {
    try {
      work();
    } catch (Pallo::CorruptionDetectedException const&) {
      damage = std::current_exception();
    }
  };
  orDamage([&] {
    for (auto place = view_->walk(0); place; place = view_->walk(place->hint)) keys.push_back(place->key);
  });
  for (U64 const key : keys) orDamage([&] { remove(key); });
  if (damage) std::rethrow_exception(damage);
}

// ---- Growth

// Longer chains are better than a refused write: a split that finds no room, or a damaged bucket, is put off.
void TableWriter::splitWhileFull() {
  try {
    while (2 * count_ > recordsPerTwoBuckets * buckets_ && buckets_ < maxBuckets) split();
  } catch (NoSpaceException const&) {
  } catch (Pallo::CorruptionDetectedException const&) {
  }
}

void TableWriter::ensureIndexChunk(U64 bucket) {
  if (view_->line(bucket)) return;
  U64 const place = indexDirectoryAt(view_->header().ringEntries) + bucket / linesPerChunk * 8;
  storeGuarded(place, addChunk(Kind::index));
}

// An entry whose key cannot be told stays in both buckets, so that the look-up of its key meets the damage.
void TableWriter::split() {
  U64 const fresh = buckets_;
  U64 const old = fresh - std::bit_floor(fresh);
  ensureIndexChunk(fresh);
  Chain const chain = gather(old);
  std::vector<U64> moved;
  std::vector<std::atomic<U64>*> cleared;
  for (std::atomic<U64>* line : chain.lines) {
    for (unsigned i = 0; i < entriesPerLine; ++i) {
      U64 const entry = line[i].load(std::memory_order_relaxed);
      if (entry == 0) continue;
      bool const sound = isSound(entry);
      if (sound && bucketOf(view_->hash(keyOf(entry)), fresh + 1) == old) continue;
      moved.push_back(entry);
      if (sound) cleared.push_back(&line[i]);
    }
  }
  reserveLines(moved.empty() ? 0 : (moved.size() - 1) / entriesPerLine);
  writeBucket(fresh, moved);
  storeGuarded(bucketsAt, ++buckets_);
  for (std::atomic<U64>* word : cleared) store(*word, 0);
  dropEmptyLines(old, chain);
  ++counters_.splits;
}

void TableWriter::writeBucket(U64 bucket, std::vector<U64> const& entries) {
  std::atomic<U64>* line = view_->line(bucket);
  std::size_t at = 0;
  for (U64 depth = 0; line; ++depth) {
    for (unsigned i = 0; i < entriesPerLine; ++i, ++at) store(line[i], at < entries.size() ? entries[at] : 0);
    U64 const next = at < entries.size() ? takeLine() : 0;
    store(line[7], link(next, bucket, depth));
    line = next ? view_->word(next * unitBytes) : nullptr;
  }
}

void TableWriter::dropEmptyLines(U64 bucket, Chain const& chain) {
  for (U64 depth = chain.lines.size() - 1; depth > 0; --depth) {
    std::atomic<U64>* const line = chain.lines[depth];
    for (unsigned i = 0; i < entriesPerLine; ++i)
      if (line[i].load(std::memory_order_relaxed) != 0) return;
    std::atomic<U64>& before = chain.lines[depth - 1][7];
    U64 const unit = *linkUnit(before.load(std::memory_order_relaxed), bucket, depth - 1);
    store(before, link(0, bucket, depth - 1));
    freeLines_.push_back(static_cast<U32>(unit));
  }
}

// ---- Taking over

void TableWriter::takeOver() {
  buckets_ = view_->buckets();
  chunks_ = view_->chunks();
  head_ = view_->head();
  kinds_.assign(chunks_, Kind::slots);
  surveyDirectories();
  undoLastSplit();
  Survey survey;
  surveyIndex(survey);
  count_ = survey.count;
  auto const counted = unguard(view_->word(countAt)->load(), countAt);
  if (counted != count_) {
    storeGuarded(countAt, count_);
    ++counters_.repaired;
  }
  adoptFree(survey);
  finishAnnouncement();
}

// Chunks that are in no directory hold slots.
void TableWriter::surveyDirectories() {
  U64 const ring = view_->header().ringEntries;
  surveyDirectory(indexDirectoryAt(ring), Kind::index);
  overflowChunks_ = surveyDirectory(overflowDirectoryAt(ring), Kind::overflow);
  for (U64 bucket = 0; bucket < buckets_; bucket += linesPerChunk)
    if (!view_->line(bucket)) throwDirectoryDamage();
}

void TableWriter::throwDirectoryDamage() const {
  throw Pallo::CorruptionDetectedException(view_->damage("the directory of the index is damaged"));
}

U64 TableWriter::surveyDirectory(U64 offset, Kind kind) {
  U64 entries = 0;
  for (; entries < directoryEntries; ++entries) {
    U64 const place = offset + entries * 8;
    U64 const word = view_->word(place)->load();
    if (word == 0) break;
    auto const chunk = unguard(word, place);
    if (!chunk || *chunk >= chunks_ || kinds_[*chunk] != Kind::slots) throwDirectoryDamage();
    kinds_[*chunk] = kind;
  }
  return entries;
}

// A writer killed in a split leaves entries that moved in the old bucket too.
void TableWriter::undoLastSplit() {
  if (buckets_ == firstBuckets) return;
  U64 const fresh = buckets_ - 1;
  U64 const old = fresh - std::bit_floor(fresh);
  Chain chain;
  try {
    chain = gather(old);
  } catch (Pallo::CorruptionDetectedException const&) {
    return;
  }
  for (std::atomic<U64>* line : chain.lines) {
    for (unsigned i = 0; i < entriesPerLine; ++i) {
      U64 const entry = line[i].load(std::memory_order_relaxed);
      if (entry == 0 || !isSound(entry) || bucketOf(view_->hash(keyOf(entry)), buckets_) != fresh) continue;
      store(line[i], 0);
      ++counters_.repaired;
    }
  }
}

void TableWriter::surveyIndex(Survey& survey) {
  survey.slots.assign(chunks_ * slotsPerChunk(), false);
  survey.lines.assign(chunks_ * linesPerChunk, false);
  for (U64 bucket = 0; bucket < buckets_; ++bucket) surveyBucket(survey, bucket);
}

void TableWriter::surveyBucket(Survey& survey, U64 bucket) {
  std::atomic<U64>* line = view_->line(bucket);
  for (U64 depth = 0; line; ++depth) {
    surveyLine(survey, line);
    auto const unit = linkUnit(line[7].load(std::memory_order_relaxed), bucket, depth);
    if (unit && *unit == 0) return;
    U64 const index = unit ? *unit - view_->header().chunkStart / unitBytes : 0;
    bool const sound = unit && index < survey.lines.size() &&
                       kinds_[index / linesPerChunk] == Kind::overflow && !survey.lines[index];
    if (!sound) break;
    survey.lines[index] = true;
    line = view_->overflowLine(*unit);
  }
  survey.damaged = true;
}

void TableWriter::surveyLine(Survey& survey, std::atomic<U64> const* line) const {
  for (unsigned i = 0; i < entriesPerLine; ++i) {
    U64 const entry = line[i].load(std::memory_order_relaxed);
    if (entry == 0) continue;
    ++survey.count;
    if (!entryIntact(entry) || !isSlot(entryUnit(entry))) {
      survey.damaged = true;
      continue;
    }
    U64 const inside = entryUnit(entry) * unitBytes - view_->header().chunkStart;
    survey.slots[inside / chunkBytes * slotsPerChunk() + inside % chunkBytes / view_->header().slotBytes] =
        true;
  }
}

// Beside a damaged index nothing is reused: what seems free may be what the damage hides.
void TableWriter::adoptFree(Survey const& survey) {
  if (survey.damaged) return;
  for (U64 chunk = 0; chunk < chunks_; ++chunk) {
    for (U64 i = 0; kinds_[chunk] == Kind::slots && i < slotsPerChunk(); ++i)
      if (!survey.slots[chunk * slotsPerChunk() + i]) idleSlots_.push_back(slotUnit(chunk, i));
    for (U64 i = 0; kinds_[chunk] == Kind::overflow && i < linesPerChunk; ++i)
      if (!survey.lines[chunk * linesPerChunk + i]) freeLines_.push_back(lineUnit(chunk, i));
  }
}

// The change that was under way may have been published; telling of one that was not does no harm.
void TableWriter::finishAnnouncement() {
  if (!view_->changedKey(head_)) return;
  storeGuarded(headAt, ++head_);
  ++counters_.repaired;
}

}  // namespace Shoal
