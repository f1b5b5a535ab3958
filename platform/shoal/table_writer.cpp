// SPDX-License-Identifier: Apache-2.0
// What a write stores, in this order (| is where a reader sees the change):
//
//   insert    slot; ring entry; index entry | ; count; head
//   replace   slot; ring entry; index entry | ; old slot's state: freed; head
//   remove    ring entry; slot's state: freed | ; index entry; count; head
//
// A writer that is killed leaves at most one change between the ring entry and the head, and the next writer
// announces it. It never waits for a reader, and never writes what a reader could be left with half of.
#include "shoal/table_writer.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "pallo/exception.h"
#include "shoal/error.h"
#include "shoal/new_file.h"
#include "shoal/salvage.h"

namespace Shoal {

using namespace Format;

namespace Testing {
void (*storePoint)() = nullptr;
}

namespace {

// So many slots rest before one of them is written again, and the file rather grows by a chunk.
constexpr std::size_t restingSlots = 128;

void atStorePoint() {
  if (Testing::storePoint) [[unlikely]]
    Testing::storePoint();
}

U64 relaxed(TableView::Word const& word) { return word.load(std::memory_order_relaxed); }

// Of the two, one that is sound.
Header soundHeader(Mapping const& mapping) {
  Header header{};
  for (U64 const at : {U64{0}, headerCopyAt}) {
    std::memcpy(&header, mapping.base() + at, sizeof header);
    if (isSound(header) && header.version == Format::version) return header;
  }
  return checkedHeader(mapping);  // says what is wrong with it
}

// What is not a table is neither locked, written nor replaced; one of another version is only replaced.
void refuseOthers(Mapping const& file, bool toReplace) {
  if (!toReplace) {
    soundHeader(file);
    return;
  }
  for (U64 const at : {U64{0}, headerCopyAt}) {
    U64 first = 0;
    if (pread(file.fd(), &first, sizeof first, static_cast<off_t>(at)) == sizeof first && first == magic)
      return;
  }
  if (file.fileBytes() != 0)
    throw FileException(FileException::Reason::notATable,
                        fmt::format("{} is not a table file, and is not replaced by one", file.path()));
}

// The table's file with the writer's lock. One that was replaced while it was being locked is not the table
// any more.
std::shared_ptr<Mapping> lockedFile(std::string const& path, bool toReplace) {
  for (;;) {
    auto file = std::make_shared<Mapping>(path, Access::write);
    refuseOthers(*file, toReplace);
    lockForWriting(path, file->fd());
    if (!file->isCurrent()) continue;
    if (file->fileBytes() != 0) nameHolder(path, file->fd());
    return file;
  }
}

// The same; null when there is no file.
std::shared_ptr<Mapping> lockedIfThere(std::string const& path, bool toReplace) {
  try {
    return lockedFile(path, toReplace);
  } catch (FileException const& error) {
    if (error.reason() == FileException::Reason::missing) return nullptr;
    throw;
  }
}

// How many changes a table has seen: by its count or, where that is damaged, by its newest record.
U64 changesOf(Mapping const& table) {
  auto const* const head = reinterpret_cast<TableView::Word const*>(table.base() + headAt);
  if (auto const changes = unguard(head->load(), headAt)) return *changes;
  try {
    return salvage(table, soundHeader(table)).newest;
  } catch (FileException const&) {
    return 0;
  }
}

}  // namespace

// Where a key is, or where it would go.
struct TableWriter::Spot {
  U64 bucket = 0;
  Word* word = nullptr;  // its entry, null when absent
  U64 entry = 0;
  Word* hole = nullptr;  // the first free entry of the chain
  Word* lastLine = nullptr;
  U64 lastDepth = 0;
};

// What a pass over the index found.
struct TableWriter::Survey {
  std::vector<bool> slots;  // in use, by chunk and place
  std::vector<bool> lines;  // overflow lines in use, by chunk and place
  U64 count = 0;
};

TableWriter::TableWriter(std::string const& path, Shape const& shape, WriterOptions const& options)
    : path_(path) {
  std::shared_ptr<Mapping> file;
  while (!file) {
    file = lockedIfThere(path, options.replace);
    if (file && !options.replace) break;
    NewFile fresh(path, newHeader(shape, options.ringEntries), file ? changesOf(*file) : 0);
    if (file) fresh.keepAccessOf(file->fd());
    Sidecar::make(path, fresh.fd());
    file = fresh.publish(file != nullptr);
  }
  checkShape(path, checkedHeader(*file), shape);
  open(std::move(file));
  doorbells_.emplace(Sidecar::make(path, mapping_->fd()));
}

TableWriter::TableWriter(std::shared_ptr<Mapping> file) : path_(file->path()) { open(std::move(file)); }

// An index that is damaged is made anew.
void TableWriter::open(std::shared_ptr<Mapping> file) {
  mapping_ = std::move(file);
  view_ = std::make_unique<TableView>(mapping_);
  for (auto* const free : {&restingSlots_, &idleSlots_, &freeLines_}) free->clear();
  try {
    takeOver();
  } catch (Pallo::CorruptionDetectedException const&) {
    heal();
  }
}

// Writes what the slots of a file hold into a new one, and puts that in its place. Owner and mode stay.
std::shared_ptr<Mapping> TableWriter::remake(Mapping const& old, Header const& header,
                                             Salvaged const& found) {
  std::string const& path = old.path();
  NewFile fresh(path, renewed(header), std::max(found.newest, changesOf(old)));
  struct stat status {};
  fstat(old.fd(), &status);
  if (fchown(fresh.fd(), status.st_uid, status.st_gid) != 0 || fchmod(fresh.fd(), status.st_mode & 0777) != 0)
    throw FileException(FileException::Reason::notAllowed,
                        fmt::format("{}: the index is damaged, and only user {} can make the table anew",
                                    path, status.st_uid));
  TableWriter into(std::make_shared<Mapping>(path, Pallo::Descriptor(dup(fresh.fd())), Access::write));
  for (auto const* const slots : {&found.records, &found.damaged})
    for (Salvaged::Slot const& slot : *slots)
      into.adopt(slot.key, reinterpret_cast<Word const*>(old.base() + slot.unit * unitBytes));
  return fresh.publish(true);
}

// A damaged record stays what it is as long as the index proves its key, so that its readers go on hearing of
// damage.
void TableWriter::heal() {
  refuseIfCutShort();
  if (!mapping_->isCurrent())
    throw Pallo::CorruptionDetectedException(
        view_->damage("the index is damaged, and the table is no longer at its path"));
  Salvaged found = salvage(*mapping_, view_->header());
  refuseIfCutShort();
  std::erase_if(found.damaged, [this](auto const& record) { return !isNamed(record.key, record.unit); });
  open(remake(*mapping_, view_->header(), found));
  ++counters_.rebuilds;
}

bool TableWriter::isNamed(U64 key, U64 unit) {
  if (buckets_ == 0) return false;
  U64 const wanted = entry(unit, view_->hash(key));
  try {
    Chain const chain = gather(bucketOf(view_->hash(key), buckets_));
    return std::ranges::any_of(chain, [wanted](Word const* line) {
      return entriesWhere(line, [wanted](U64 found) { return found == wanted; }) != 0;
    });
  } catch (Pallo::CorruptionDetectedException const&) {
    return false;
  }
}

// A slot of another file as it is, so that its record stays of the change that wrote it; a damaged one unless
// there is an intact one.
void TableWriter::adopt(U64 key, Word const* found) {
  Spot const spot = locate(key, view_->hash(key));
  if (spot.word) return;
  reserveSlot();
  if (!spot.hole) reserveLines(1);
  U64 const unit = takeSlot();
  for (U64 i = 0; i < view_->header().slotBytes / 8; ++i) store(view_->slot(unit)[i], relaxed(found[i]));
  beginChange(key);
  publish(spot, entry(unit, view_->hash(key)));
  endChange();
  splitWhileFull();
}

Salvaged TableWriter::rebuild(std::string const& path) {
  auto const old = lockedFile(path, false);
  Header const header = soundHeader(*old);
  Salvaged found = salvage(*old, header);
  found.damaged.clear();
  remake(*old, header, found);
  return found;
}

WriterCounters TableWriter::counters() const {
  WriterCounters counters = counters_;
  counters.wakeUps = doorbells_ ? doorbells_->rung() : 0;
  return counters;
}

void TableWriter::store(Word& word, U64 value) {
  atStorePoint();
  word.store(value, std::memory_order_release);
}

void TableWriter::storeGuarded(U64 offset, U64 value) { store(*view_->word(offset), guard(value, offset)); }

// The generation is odd from before the first store until after the last.
void TableWriter::writeSlot(U64 unit, U64 const* image, Extent extent) {
  Word* const slot = view_->slot(unit);
  U64 const complete = state(2 * (head_ + 1), extent);
  store(slot[1], state(generation(complete) | 1, {}));
  U64 const checksum = Slot::checksum(complete, view_->room().head, [&](U64 inSlot, U64 inImage) {
    store(slot[2 + inSlot], image[inImage]);
    return image[inImage];
  });
  store(slot[0], checksum);
  store(slot[1], complete);
}

void TableWriter::freeSlot(U64 entry) {
  if (!slotNumber(entryUnit(entry))) return;
  Word& slotState = view_->slot(entryUnit(entry))[1];
  store(slotState, state(generation(relaxed(slotState)), freed));
  restingSlots_.push_back(static_cast<U32>(entryUnit(entry)));
  if (restingSlots_.size() <= restingSlots) return;
  idleSlots_.push_back(restingSlots_.front());
  restingSlots_.pop_front();
}

// What lies before the chunks wraps to far behind them.
std::optional<U64> TableWriter::slotNumber(U64 unit) const {
  U64 const offset = unit * unitBytes - view_->header().chunkStart;
  U64 const chunk = offset / chunkBytes;
  if (chunk >= kinds_.size() || kinds_[chunk] != Kind::slots) return std::nullopt;
  U32 const slotBytes = view_->header().slotBytes;
  U32 const inside = static_cast<U32>(offset % chunkBytes);
  U32 const place = inside / slotBytes;  // divides faster than 64 bits
  if (place * slotBytes != inside || inside + slotBytes > chunkBytes) return std::nullopt;
  return chunk * slotsPerChunk() + place;
}

U64 TableWriter::keyOf(U64 entry) const { return relaxed(view_->slot(entryUnit(entry))[2]); }

// An entry that names a slot whose key has the entry's tag.
bool TableWriter::isSound(U64 entry) const {
  return entryIntact(entry) && slotNumber(entryUnit(entry)) &&
         tag(view_->hash(keyOf(entry))) == entryTag(entry);
}

// The line after `line`, which is the bucket's at `depth`; null at the end.
TableWriter::Word* TableWriter::nextLine(Word const* line, U64 bucket, U64 depth) {
  auto const unit = linkUnit(relaxed(line[linkInLine]), bucket, depth);
  if (unit && *unit == 0) return nullptr;
  if (Word* const next = unit && depth + 1 < maxDepth ? view_->overflowLine(*unit) : nullptr) return next;
  throwLinesDamage(bucket);
}

void TableWriter::throwLinesDamage(U64 bucket) const {
  throw Pallo::CorruptionDetectedException(
      view_->damage(fmt::format("the index is damaged: the lines of bucket {}", bucket)));
}

TableWriter::Chain TableWriter::gather(U64 bucket) {
  Chain chain;
  Word* at = view_->line(bucket);
  if (!at) throwLinesDamage(bucket);
  for (U64 depth = 0; at; at = nextLine(at, bucket, depth++)) chain.push_back(at);
  return chain;
}

// Where an entry that is damaged may be the key's, nothing is known of it.
TableWriter::Spot TableWriter::locate(U64 key, U64 hash) {
  Spot spot;
  bool anyDamaged = false;
  spot.bucket = bucketOf(hash, buckets_);
  Word* line = view_->line(spot.bucket);
  if (!line) throwLinesDamage(spot.bucket);
  for (U64 depth = 0; line; line = nextLine(line, spot.bucket, depth++)) {
    spot.lastLine = line;
    spot.lastDepth = depth;
    for (unsigned i = 0; i < entriesPerLine && !spot.word; ++i) {
      U64 const entry = relaxed(line[i]);
      if (entry == 0 && !spot.hole) spot.hole = &line[i];
      if (entry == 0 || (entryIntact(entry) && entryTag(entry) != tag(hash))) continue;
      anyDamaged |= !isSound(entry);
      if (!isSound(entry) || keyOf(entry) != key) continue;
      spot.word = &line[i];
      spot.entry = entry;
    }
  }
  if (!spot.word && anyDamaged) throwLinesDamage(spot.bucket);
  return spot;
}

TableWriter::Spot TableWriter::locateOrHeal(U64 key) {
  try {
    return locate(key, view_->hash(key));
  } catch (Pallo::CorruptionDetectedException const&) {
    heal();
  }
  return locate(key, view_->hash(key));
}

void TableWriter::refuseBeyondWindow(U64 chunks) const {
  if (view_->chunkOffset(chunks_) + chunks * chunkBytes > mapping_->window())
    throw NoSpaceException(fmt::format("{}: the table cannot grow beyond {} bytes, and is as it was", path_,
                                       mapping_->window()));
}

U64 TableWriter::addChunk(Kind kind) {
  U64 const offset = view_->chunkOffset(chunks_);
  refuseBeyondWindow(1);
  atStorePoint();
  allocate(mapping_->fd(), path_, offset, chunkBytes);
  storeGuarded(chunksAt, chunks_ + 1);
  kinds_.push_back(kind);
  ++counters_.chunks;
  return chunks_++;
}

void TableWriter::addSlots() {
  U64 const chunk = addChunk(Kind::slots);
  for (U64 i = slotsPerChunk(); i-- > 0;) idleSlots_.push_back(slotUnit(chunk, i));
}

void TableWriter::reserveSlot() {
  if (!idleSlots_.empty()) [[likely]]
    return;
  try {
    addSlots();
  } catch (NoSpaceException const&) {
    if (restingSlots_.empty()) throw;
  }
}

// Without a split each bucket begins one line at most that it does not fill. All of the space is taken at
// once: what is found of too little would be missed by the next record.
void TableWriter::reserve(U64 records) {
  if (records <= count_) return;
  refuseIfCutShort();
  U64 const slots = records - count_;
  U64 const lines = std::min(slots, buckets_) + slots / entriesPerLine;
  auto const chunksFor = [](U64 wanted, U64 there, U64 perChunk) {
    return wanted > there ? (wanted - there + perChunk - 1) / perChunk : 0;
  };
  U64 const chunks = chunksFor(slots, idleSlots_.size() + restingSlots_.size(), slotsPerChunk()) +
                     chunksFor(lines, freeLines_.size(), linesPerChunk);
  if (chunks == 0) return;
  refuseBeyondWindow(chunks);
  allocate(mapping_->fd(), path_, view_->chunkOffset(chunks_), chunks * chunkBytes);
  reserveLines(lines);
  while (idleSlots_.size() + restingSlots_.size() < slots) addSlots();
}

U32 TableWriter::takeSlot() {
  bool const rested = idleSlots_.empty();
  U32 const unit = rested ? restingSlots_.front() : idleSlots_.back();
  rested ? restingSlots_.pop_front() : idleSlots_.pop_back();
  return unit;
}

U32 TableWriter::slotUnit(U64 chunk, U64 place) const {
  return static_cast<U32>((view_->chunkOffset(chunk) + place * view_->header().slotBytes) / unitBytes);
}

U32 TableWriter::lineUnit(U64 chunk, U64 place) const {
  return static_cast<U32>(view_->chunkOffset(chunk) / unitBytes + place);
}

void TableWriter::reserveLines(std::size_t count) {
  while (freeLines_.size() < count) {
    if (overflowChunks_ == directoryEntries)
      throw NoSpaceException(fmt::format("{}: the index cannot grow, and is as it was", path_));
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

// A change is written into the ring before it is published, and counted after it.
void TableWriter::beginChange(U64 key) {
  Word* const change = view_->change(head_);
  store(change[1], key);
  store(change[0], stamp(head_, key));
}

// Sequentially consistent: the one word that a watcher reads before it sleeps.
void TableWriter::endChange() {
  atStorePoint();
  view_->word(headAt)->store(guard(++head_, headAt), std::memory_order_seq_cst);
  if (doorbells_) doorbells_->ring();
  refuseIfCutShort();
}

void TableWriter::refuseIfCutShort() const {
  if (mapping_->cutShort()) [[unlikely]]
    throw Pallo::CorruptionDetectedException(view_->damage("a write fell beyond its end"));
}

void TableWriter::put(U64 key, U64 const* image, Extent extent) {
  refuseIfCutShort();
  Spot const spot = locateOrHeal(key);
  reserveSlot();
  if (!spot.word && !spot.hole) reserveLines(1);
  U64 const unit = takeSlot();
  writeSlot(unit, image, extent);
  beginChange(key);
  publish(spot, entry(unit, view_->hash(key)));
  endChange();
  splitWhileFull();
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
  Word* const line = view_->word(unit * unitBytes);
  store(line[0], entry);
  for (unsigned i = 1; i < entriesPerLine; ++i) store(line[i], 0);
  store(line[linkInLine], link(0, spot.bucket, spot.lastDepth + 1));
  store(spot.lastLine[linkInLine], link(unit, spot.bucket, spot.lastDepth));
}

bool TableWriter::remove(U64 key) {
  refuseIfCutShort();
  Spot const spot = locateOrHeal(key);
  if (!spot.word) return false;
  beginChange(key);
  freeSlot(spot.entry);
  store(*spot.word, 0);
  storeGuarded(countAt, --count_);
  ++counters_.removes;
  endChange();
  return true;
}

// What no walk finds is damaged, and goes with the index; what that had hidden is found then.
std::vector<U64> TableWriter::removeAll() {
  std::vector<U64> removed = removeFound();
  if (count_ == 0) return removed;
  heal();
  std::vector<U64> const hidden = removeFound();
  removed.insert(removed.end(), hidden.begin(), hidden.end());
  return removed;
}

std::vector<U64> TableWriter::removeFound() {
  std::vector<U64> keys;
  try {
    for (auto place = view_->walk(0); place; place = view_->walk(place->hint)) keys.push_back(place->key);
  } catch (Pallo::CorruptionDetectedException const&) {  // after the last key
  }
  for (U64 const key : keys) remove(key);
  return keys;
}

// Longer chains are better than a refused write: a split that finds no room is put off, and so are all where
// damage could not be healed.
void TableWriter::splitWhileFull() {
  try {
    while (!splitsOff_ && 4 * count_ > recordsPerFourBuckets * buckets_ && buckets_ < maxBuckets) split();
  } catch (NoSpaceException const&) {
  } catch (Pallo::CorruptionDetectedException const&) {
    try {
      heal();
    } catch (Pallo::Exception const&) {
      splitsOff_ = true;
    }
  }
}

void TableWriter::ensureIndexChunk(U64 bucket) {
  if (view_->line(bucket)) return;
  U64 const place = indexDirectoryAt(view_->header().ringEntries) + bucket / linesPerChunk * 8;
  storeGuarded(place, addChunk(Kind::index));
}

void TableWriter::split() {
  U64 const fresh = buckets_;
  U64 const old = fresh - std::bit_floor(fresh);
  ensureIndexChunk(fresh);
  Chain const chain = gather(old);
  std::vector<U64> moved;
  std::vector<Word*> cleared;
  for (Word* line : chain) {
    for (unsigned i = 0; i < entriesPerLine; ++i) {
      U64 const entry = relaxed(line[i]);
      if (entry == 0) continue;
      if (!isSound(entry)) throwLinesDamage(old);
      if (bucketOf(view_->hash(keyOf(entry)), fresh + 1) == old) continue;
      moved.push_back(entry);
      cleared.push_back(&line[i]);
    }
  }
  reserveLines(moved.empty() ? 0 : (moved.size() - 1) / entriesPerLine);
  writeBucket(fresh, moved);
  storeGuarded(bucketsAt, ++buckets_);
  for (Word* word : cleared) store(*word, 0);
  dropEmptyLines(old, chain);
  ++counters_.splits;
}

void TableWriter::writeBucket(U64 bucket, std::vector<U64> const& entries) {
  Word* line = view_->line(bucket);
  std::size_t at = 0;
  for (U64 depth = 0; line; ++depth) {
    for (unsigned i = 0; i < entriesPerLine; ++i, ++at) store(line[i], at < entries.size() ? entries[at] : 0);
    U64 const next = at < entries.size() ? takeLine() : 0;
    store(line[linkInLine], link(next, bucket, depth));
    line = next ? view_->word(next * unitBytes) : nullptr;
  }
}

void TableWriter::dropEmptyLines(U64 bucket, Chain const& chain) {
  for (U64 depth = chain.size() - 1; depth > 0; --depth) {
    Word* const line = chain[depth];
    for (unsigned i = 0; i < entriesPerLine; ++i)
      if (relaxed(line[i]) != 0) return;
    Word& before = chain[depth - 1][linkInLine];
    U64 const unit = *linkUnit(relaxed(before), bucket, depth - 1);
    store(before, link(0, bucket, depth - 1));
    freeLines_.push_back(static_cast<U32>(unit));
  }
}

void TableWriter::takeOver() {
  buckets_ = view_->buckets();
  chunks_ = view_->chunks();
  head_ = view_->head();
  view_->size();  // throws when it is damaged
  kinds_.assign(chunks_, Kind::slots);
  readDirectories();
  undoLastSplit();
  Survey const found = survey();
  count_ = found.count;
  finishAnnouncement(adoptFree(found));
  if (count_ == view_->size()) return;
  storeGuarded(countAt, count_);
  ++counters_.repaired;
}

// Chunks that are in no directory hold slots.
void TableWriter::readDirectories() {
  U64 const ring = view_->header().ringEntries;
  readDirectory(indexDirectoryAt(ring), Kind::index);
  overflowChunks_ = readDirectory(overflowDirectoryAt(ring), Kind::overflow);
  for (U64 bucket = 0; bucket < buckets_; bucket += linesPerChunk)
    if (!view_->line(bucket)) throwLinesDamage(bucket);
}

U64 TableWriter::readDirectory(U64 offset, Kind kind) {
  U64 entries = 0;
  for (; entries < directoryEntries; ++entries) {
    U64 const place = offset + entries * 8;
    U64 const word = view_->word(place)->load();
    if (word == 0) break;
    auto const chunk = unguard(word, place);
    if (!chunk || *chunk >= chunks_ || kinds_[*chunk] != Kind::slots)
      throw Pallo::CorruptionDetectedException(view_->damage("the directory of the index is damaged"));
    kinds_[*chunk] = kind;
  }
  return entries;
}

// A writer killed in a split leaves entries that moved in the old bucket too.
void TableWriter::undoLastSplit() {
  if (buckets_ == firstBuckets) return;
  U64 const fresh = buckets_ - 1;
  U64 const old = fresh - std::bit_floor(fresh);
  for (Word* line : gather(old)) {
    for (unsigned i = 0; i < entriesPerLine; ++i) {
      U64 const entry = relaxed(line[i]);
      if (entry == 0 || !isSound(entry) || bucketOf(view_->hash(keyOf(entry)), buckets_) != fresh) continue;
      store(line[i], 0);
      ++counters_.repaired;
    }
  }
}

TableWriter::Survey TableWriter::survey() {
  Survey survey;
  survey.slots.assign(chunks_ * slotsPerChunk(), false);
  survey.lines.assign(chunks_ * linesPerChunk, false);
  for (U64 bucket = 0; bucket < buckets_; ++bucket) surveyBucket(survey, bucket);
  return survey;
}

// Throws when an entry or a link is damaged, or a line has two owners.
void TableWriter::surveyBucket(Survey& survey, U64 bucket) {
  U64 depth = 0;
  for (Word* line = view_->line(bucket); line; line = nextLine(line, bucket, depth++)) {
    if (depth > 0) {
      U64 const index = static_cast<U64>(line - view_->word(view_->header().chunkStart)) / wordsPerLine;
      if (kinds_[index / linesPerChunk] != Kind::overflow || survey.lines[index]) throwLinesDamage(bucket);
      survey.lines[index] = true;
    }
    for (unsigned i = 0; i < entriesPerLine; ++i) {
      U64 const entry = relaxed(line[i]);
      if (entry == 0) continue;
      auto const slot = slotNumber(entryUnit(entry));
      if (!entryIntact(entry) || !slot) throwLinesDamage(bucket);
      survey.slots[*slot] = true;
      ++survey.count;
    }
  }
}

// A slot in no line is free, if its record was removed, replaced, or not published by a writer that was
// killed. Returns the key of the latter: no other change may get its number.
std::optional<U64> TableWriter::adoptFree(Survey const& survey) {
  std::optional<U64> unpublished;
  for (U64 chunk = 0; chunk < chunks_; ++chunk) {
    for (U64 i = 0; kinds_[chunk] == Kind::slots && i < slotsPerChunk(); ++i) {
      if (survey.slots[chunk * slotsPerChunk() + i]) continue;
      U32 const unit = slotUnit(chunk, i);
      Word* const slot = view_->slot(unit);
      U64 const found = relaxed(slot[1]);
      if (generation(found) == 2 * head_ + 2 || generation(found) == 2 * head_ + 3)
        unpublished = relaxed(slot[2]);
      else if (!isFreed(found))
        refuseLostRecord(slot);
      if (found != 0 && !isFreed(found)) store(slot[1], state(generation(found), freed));
      idleSlots_.push_back(unit);
    }
    for (U64 i = 0; kinds_[chunk] == Kind::overflow && i < linesPerChunk; ++i)
      if (!survey.lines[chunk * linesPerChunk + i]) freeLines_.push_back(lineUnit(chunk, i));
  }
  return unpublished;
}

// An intact record that no entry names lost its entry to damage, unless it is the one that was being
// replaced.
void TableWriter::refuseLostRecord(Word const* slot) const {
  std::vector<U64> image(view_->imageWords());
  U64 state;
  if (Slot::copy(slot, view_->room(), image.data(), state) != Slot::Copy::whole) return;
  if (view_->changedKey(head_) != image[0])
    throw Pallo::CorruptionDetectedException(
        view_->damage(fmt::format("the index is damaged: the entry of key {} is missing", image[0])));
}

// The change that was under way may have been published; announcing one that was not does no harm. A removal
// that was published still has its entry.
void TableWriter::finishAnnouncement(std::optional<U64> unpublished) {
  if (unpublished && !view_->changedKey(head_)) beginChange(*unpublished);
  auto const key = view_->changedKey(head_);
  if (!key) return;
  Spot const spot = locate(*key, view_->hash(*key));
  if (spot.word && isFreed(relaxed(view_->slot(entryUnit(spot.entry))[1]))) {
    store(*spot.word, 0);
    idleSlots_.push_back(static_cast<U32>(entryUnit(spot.entry)));
    --count_;
  }
  storeGuarded(headAt, ++head_);
  ++counters_.repaired;
}

// A table that was made anew has other places: a walk begins again. The uppermost bits of a place tell which
// it is of.
std::optional<FilePlace> TableWriter::walk(U64 hint) {
  U64 const anew = (counters_.rebuilds & 0xFFFF) << 48;
  auto place = view_->walk(hint >> 48 << 48 == anew ? hint & ~(U64{0xFFFF} << 48) : 0);
  if (place) place->hint |= anew;
  return place;
}

FileWriter::FileWriter(std::string const& path, Shape const& shape, WriterOptions const& options)
    : writer_(std::make_unique<TableWriter>(path, shape, options)) {}
FileWriter::~FileWriter() = default;
void FileWriter::put(U64 key, std::byte const* image, Extent extent) {
  writer_->put(key, reinterpret_cast<U64 const*>(image), extent);
}
bool FileWriter::remove(U64 key) { return writer_->remove(key); }
void FileWriter::reserve(U64 records) { writer_->reserve(records); }
std::vector<U64> FileWriter::removeAll() { return writer_->removeAll(); }
Extent FileWriter::read(U64 key, std::byte* image) const {
  return writer_->view().read(key, reinterpret_cast<U64*>(image));
}
Change FileWriter::changeOf(U64 key) const { return writer_->view().changeOf(key); }
std::optional<FilePlace> FileWriter::walk(U64 hint) const { return writer_->walk(hint); }
U64 FileWriter::size() const { return writer_->view().size(); }
U64 FileWriter::changes() const { return writer_->view().head(); }
WriterCounters FileWriter::counters() const { return writer_->counters(); }

}  // namespace Shoal
