// SPDX-License-Identifier: Apache-2.0
#include "lumelog/reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "lumelog/file.h"
#include "lumelog/format.h"
#include "lumelog/parse.h"
#include "pallo/exception.h"

namespace Lumelog {
namespace {

using Format::RecordHeader;
using Format::SiteHeader;
using Format::SubBufferHeader;

constexpr U64 second = 1000000000;

bool sound(Format::FixedHeader const& header) {
  return std::memcmp(header.magic, Format::magic, sizeof header.magic) == 0 &&
         header.check == Format::headerCheck(header) && header.version == Format::version &&
         header.byteOrder == Format::byteOrder && header.subBufferBytes == Format::subBufferBytes;
}

bool blank(SubBufferHeader const& header) { return header.sequence == 0; }

}  // namespace

class Reader::Impl {
 public:
  explicit Impl(std::string path);
  ~Impl() { ::close(fd_); }
  Impl(Impl const&) = delete;
  Impl& operator=(Impl const&) = delete;

  bool next(Record& record);
  bool peek(U64& realNs);
  bool live() const { return File::isLive(fd_); }
  std::string const& path() const { return path_; }
  Format::FixedHeader const& fixed() const { return fixed_; }
  Damage const& damage() const { return damage_; }
  std::vector<RingState> rings() const;
  std::vector<SiteInfo const*> sites() const;

 private:
  // A record that was found intact in a level's sub-buffer.
  struct Found {
    std::size_t at;
    U64 ticks;
  };
  struct Level {
    U64 offset = 0;                    // of the ring in the file
    U64 subBuffers = 0;                // of it
    U64 present = 0;                   // of them that the file still has
    std::vector<U64> plan;             // sequences still to be read, newest first
    U64 newest = 0;                    // highest sequence seen
    Format::SubBufferHeader header{};  // of the sub-buffer in hand; sequence 0: none
    std::vector<std::byte> subBuffer;
    std::size_t searched = 0;  // bytes of `subBuffer` that were looked at
    std::vector<Found> found;
    std::size_t next = 0;  // in `found`
    bool ready() const { return next < found.size(); }
    std::size_t end() const { return sizeof(Format::SubBufferHeader) + header.used; }
  };
  enum class Verdict { Intact, UnknownSite, Damaged };

  bool readAt(U64 offset, void* to, std::size_t bytes) const;
  void readFixedHeader();
  void layOutLevels();
  void readLiveHeader();
  void setClock();
  void readSites(U64 end);
  std::size_t readSite(std::vector<std::byte> const& area, std::size_t at);
  SiteInfo const* site(U32 id);

  bool readSubBufferHeader(Level const& level, U64 index, Format::SubBufferHeader& header) const;
  void scan(Level& level);
  bool followingSubBuffers(Level& level);
  bool cameRound(Level const& level) const;
  bool copySubBuffer(Level& level, U64 sequence);
  bool load(Level& level);
  bool grow(Level& level);
  bool fill(Level& level);
  bool refill();
  Level* oldest();

  void findRecords(Level& level);
  Verdict examine(Level& level, std::size_t at, std::size_t& bytes, U64& ticks);
  U64 realTime(Level const& level, U64 ticks) const;
  Level* ready();

  std::string path_;
  int fd_ = -1;
  U64 size_ = 0;  // of the file when it was opened
  Format::FixedHeader fixed_{};
  Format::LiveHeader live_{};
  double nsPerTick_ = 1;
  U64 realOffset_ = 0;  // CLOCK_REALTIME - CLOCK_MONOTONIC, modulo 2^64
  std::unordered_map<U32, SiteInfo> sites_;
  U64 siteScan_ = 0;          // bytes of the sites that were read
  bool searchedAll_ = false;  // for sites behind the committed ones
  std::array<Level, Format::levels> levels_;
  U64 horizon_ = 0;  // every record up to these ticks is in hand
  Damage damage_;
};

Reader::Impl::Impl(std::string path)
    : path_(std::move(path)), fd_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (fd_ < 0) throw Pallo::Exception(fmt::format("cannot open {}: {}", path_, std::strerror(errno)));
  try {
    struct stat status;
    if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode))
      throw Pallo::Exception(fmt::format("{} is not a regular file", path_));
    size_ = static_cast<U64>(status.st_size);
    readFixedHeader();
    readLiveHeader();
    setClock();
    readSites(live_.siteUsed);
    layOutLevels();
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

std::vector<RingState> Reader::Impl::rings() const {
  std::vector<RingState> states;
  for (Level const& level : levels_)
    states.push_back({level.subBuffers * Format::subBufferBytes, level.subBuffers, level.newest});
  return states;
}

std::vector<SiteInfo const*> Reader::Impl::sites() const {
  std::vector<SiteInfo const*> all;
  for (auto const& [id, site] : sites_) all.push_back(&site);
  return all;
}

bool Reader::Impl::readAt(U64 offset, void* to, std::size_t bytes) const {
  return ::pread(fd_, to, bytes, static_cast<off_t>(offset)) == static_cast<ssize_t>(bytes);
}

void Reader::Impl::readFixedHeader() {
  if (size_ < Format::headerBytes)
    throw Pallo::Exception(fmt::format("{} is not a trace file: it has {} bytes, a header {}", path_, size_,
                                       Format::headerBytes));
  if (readAt(0, &fixed_, sizeof fixed_) && sound(fixed_)) {
    damage_.missingBytes = fixed_.fileBytes > size_ ? fixed_.fileBytes - size_ : 0;
    return;
  }
  bool const otherVersion = std::memcmp(fixed_.magic, Format::magic, sizeof fixed_.magic) == 0 &&
                            fixed_.check == Format::headerCheck(fixed_);
  if (otherVersion)
    throw Pallo::Exception(
        fmt::format("{} is a trace file of version {}, expected {}", path_, fixed_.version, Format::version));
  damage_.header = true;
  if (!readAt((size_ - Format::headerBytes) & ~U64{7}, &fixed_, sizeof fixed_) || !sound(fixed_))
    throw Pallo::Exception(fmt::format("{} is not a trace file, or both of its headers are damaged", path_));
}

void Reader::Impl::layOutLevels() {
  for (std::size_t i = 0; i < Format::levels; ++i) {
    Format::Ring const& ring = fixed_.ring[i];
    levels_[i].offset = ring.offset;
    levels_[i].subBuffers = ring.bytes / Format::subBufferBytes;
    U64 const behind = ring.offset < size_ ? (size_ - ring.offset) / Format::subBufferBytes : 0;
    levels_[i].present = std::min(levels_[i].subBuffers, behind);
    scan(levels_[i]);
  }
}

void Reader::Impl::readLiveHeader() {
  if (!readAt(offsetof(Format::FileHeader, live), &live_, sizeof live_)) live_ = {};
  if (!damage_.header) damage_.dropped = live_.dropped;
}

// The rate from opening to the newest anchor, when that is far enough away and agrees with what was measured
// at opening.
void Reader::Impl::setClock() {
  U64 const nominal = fixed_.ticksPerSecond ? fixed_.ticksPerSecond : second;
  nsPerTick_ = static_cast<double>(second) / static_cast<double>(nominal);
  realOffset_ = fixed_.openRealNs - fixed_.openNs;
  Format::Anchor const& newest = live_.anchor[live_.anchors % 2];
  U64 const ticks = newest.ticks - fixed_.openTicks, ns = newest.ns - fixed_.openNs;
  if (live_.anchors == 0 || newest.ticks <= fixed_.openTicks || newest.ns <= fixed_.openNs ||
      ns < second / 1000)
    return;
  double const measured = static_cast<double>(ns) / static_cast<double>(ticks);
  if (measured < nsPerTick_ * 0.99 || measured > nsPerTick_ * 1.01) return;
  nsPerTick_ = measured;
  realOffset_ = newest.realNs - newest.ns;
}

U64 Reader::Impl::realTime(Level const& level, U64 ticks) const {
  double const passed = static_cast<double>(ticks - level.header.ticks) * nsPerTick_;
  return level.header.ns + realOffset_ + (passed < 1e18 ? static_cast<U64>(passed) : 0);
}

// Reads on to `end`, which the file may say wrongly.
void Reader::Impl::readSites(U64 end) {
  U64 const room = std::min(fixed_.siteBytes, size_ > fixed_.siteOffset ? size_ - fixed_.siteOffset : 0);
  if (end > room || end % 8) end = room;
  if (siteScan_ >= end) return;
  std::vector<std::byte> area(end - siteScan_);
  if (!readAt(fixed_.siteOffset + siteScan_, area.data(), area.size())) return;
  for (std::size_t at = 0; at < area.size();) {
    std::size_t const bytes = readSite(area, at);
    if (bytes == 0 && !searchedAll_) damage_.siteBytes += 8;
    at += bytes ? bytes : 8;
  }
  siteScan_ = end;
}

// The entry's size; 0 when there is no intact one.
std::size_t Reader::Impl::readSite(std::vector<std::byte> const& area, std::size_t at) {
  SiteHeader header;
  if (area.size() - at < sizeof header) return 0;
  std::memcpy(&header, area.data() + at, sizeof header);
  std::size_t const content = sizeof header + header.typeBytes + header.textBytes + header.fileBytes;
  if (header.bytes > area.size() - at || header.bytes != Format::align8(content)) return 0;
  std::vector<std::byte> entry(area.begin() + static_cast<std::ptrdiff_t>(at),
                               area.begin() + static_cast<std::ptrdiff_t>(at + header.bytes));
  std::memset(entry.data(), 0, sizeof header.check);
  if (header.check != Format::fnv(entry)) return 0;
  auto const* text = reinterpret_cast<char const*>(entry.data() + sizeof header);
  if (auto site = Parse::site(header, text)) sites_.emplace(header.id, *std::move(site));
  return header.bytes;
}

// A live process may have added sites since; and what says where the sites end may be damaged itself.
SiteInfo const* Reader::Impl::site(U32 id) {
  auto found = sites_.find(id);
  if (found == sites_.end()) {
    readLiveHeader();
    readSites(live_.siteUsed);
    found = sites_.find(id);
  }
  if (found == sites_.end() && !searchedAll_) {
    searchedAll_ = true;
    readSites(fixed_.siteBytes);
    siteScan_ = live_.siteUsed;
    found = sites_.find(id);
  }
  return found == sites_.end() ? nullptr : &found->second;
}

bool Reader::Impl::readSubBufferHeader(Level const& level, U64 index, SubBufferHeader& header) const {
  return index < level.present &&
         readAt(level.offset + index * Format::subBufferBytes, &header, sizeof header) &&
         header.check == Format::subBufferCheck(header) && header.sequence != 0 &&
         (header.sequence - 1) % level.subBuffers == index;
}

// Plans every sub-buffer that was written after the newest one known.
void Reader::Impl::scan(Level& level) {
  U64 const known = level.newest;
  std::vector<bool> good(level.present), empty(level.present);
  for (U64 i = 0; i < level.present; ++i) {
    SubBufferHeader header{};
    good[i] = readSubBufferHeader(level, i, header);
    empty[i] = blank(header);
    if (!good[i] || header.sequence <= known) continue;
    level.plan.push_back(header.sequence);
    level.newest = std::max(level.newest, header.sequence);
  }
  std::sort(level.plan.rbegin(), level.plan.rend());
  if (known) {
    if (!level.plan.empty()) damage_.overrun += level.plan.back() - known - 1;
    return;
  }
  for (U64 i = 0; i < level.present; ++i) {
    bool const expected = level.newest >= level.subBuffers || i < level.newest;
    bool const inPreparation = empty[i] && i == level.newest % level.subBuffers;
    if (!good[i] && !inPreparation && (expected || !empty[i])) ++damage_.subBuffers;
  }
}

// Looks whether the writer has begun another sub-buffer since. Where the next one is in preparation, it may
// be the one after that, or one of a later round: then others were written in between.
bool Reader::Impl::followingSubBuffers(Level& level) {
  if (!level.plan.empty()) return true;
  SubBufferHeader header;
  if (level.subBuffers == 0) return false;
  bool const begun = readSubBufferHeader(level, level.newest % level.subBuffers, header);
  if (begun ? header.sequence <= level.newest : !cameRound(level)) return false;
  if (begun && header.sequence == level.newest + 1)
    level.plan.push_back(++level.newest);
  else
    scan(level);
  return !level.plan.empty();
}

// The newest sub-buffer known is another one by now.
bool Reader::Impl::cameRound(Level const& level) const {
  SubBufferHeader last;
  return level.newest != 0 && (!readSubBufferHeader(level, (level.newest - 1) % level.subBuffers, last) ||
                               last.sequence != level.newest);
}

// False when the writer reused the sub-buffer meanwhile.
bool Reader::Impl::copySubBuffer(Level& level, U64 sequence) {
  U64 const index = (sequence - 1) % level.subBuffers;
  SubBufferHeader before, after;
  level.subBuffer.resize(Format::subBufferBytes);
  if (!readSubBufferHeader(level, index, before) || before.sequence != sequence ||
      !readAt(level.offset + index * Format::subBufferBytes, level.subBuffer.data(),
              level.subBuffer.size()) ||
      !readSubBufferHeader(level, index, after) || after.sequence != sequence)
    return false;
  level.header = before;
  // A damaged length: what is older than the sub-buffer shows itself by its time stamp.
  if (before.used > Format::subBufferRoom || before.used % 8) level.header.used = Format::subBufferRoom;
  return true;
}

// Takes the next planned sub-buffer in hand.
bool Reader::Impl::load(Level& level) {
  level.found.clear();
  level.next = 0;
  level.header = {};
  level.searched = sizeof(SubBufferHeader);
  U64 const sequence = level.plan.back();
  level.plan.pop_back();
  if (!copySubBuffer(level, sequence)) {
    level.header = {};
    ++damage_.overrun;
    return false;
  }
  findRecords(level);
  return true;
}

// Looks whether the sub-buffer in hand has more records by now.
bool Reader::Impl::grow(Level& level) {
  SubBufferHeader now;
  U64 const sequence = level.header.sequence;
  if (sequence == 0 || level.end() == Format::subBufferBytes) return false;
  if (!readSubBufferHeader(level, (sequence - 1) % level.subBuffers, now) || now.sequence != sequence)
    return false;
  if (now.used <= level.header.used || !copySubBuffer(level, sequence)) return false;
  findRecords(level);
  return true;
}

// A sub-buffer may still have grown after the look for its successor, which is why that comes first.
bool Reader::Impl::fill(Level& level) {
  while (!level.ready()) {
    bool const more = followingSubBuffers(level);
    if (grow(level)) continue;
    if (!more) return false;
    load(level);
  }
  return true;
}

// Whatever was written before a record is there once that record is seen. So after the first pass, which
// finds the newest record in hand, the second finds everything older.
bool Reader::Impl::refill() {
  for (Level& level : levels_) fill(level);
  U64 newest = 0;
  for (Level& level : levels_)
    if (level.ready()) newest = std::max(newest, level.found.back().ticks);
  for (Level& level : levels_) fill(level);
  horizon_ = newest;
  return newest != 0;
}

Reader::Impl::Level* Reader::Impl::oldest() {
  Level* best = nullptr;
  for (Level& level : levels_)
    if (level.ready() && (!best || level.found[level.next].ticks < best->found[best->next].ticks))
      best = &level;
  return best;
}

Reader::Impl::Level* Reader::Impl::ready() {
  Level* level = oldest();
  if (level && level->found[level->next].ticks <= horizon_) return level;
  return refill() ? oldest() : nullptr;
}

bool Reader::Impl::peek(U64& realNs) {
  Level const* const level = ready();
  if (level) realNs = realTime(*level, level->found[level->next].ticks);
  return level != nullptr;
}

bool Reader::Impl::next(Record& record) {
  Level* const level = ready();
  if (!level) return false;
  Found const found = level->found[level->next++];
  RecordHeader header;
  std::memcpy(&header, level->subBuffer.data() + found.at, sizeof header);
  record.ticks = found.ticks;
  record.realNs = realTime(*level, found.ticks);
  record.bytes = header.bytes;
  record.site = &sites_.at(header.site);
  record.values.clear();
  Parse::values(record.site->types, std::span(level->subBuffer).subspan(found.at, header.bytes),
                &record.values);
  if (!level->ready()) horizon_ = 0;  // it may have more: look before anything newer is delivered
  return true;
}

void Reader::Impl::findRecords(Level& level) {
  while (level.searched < level.end()) {
    std::size_t bytes = 8;
    U64 ticks = 0;
    switch (examine(level, level.searched, bytes, ticks)) {
      case Verdict::Intact:
        level.found.push_back({level.searched, ticks});
        break;
      case Verdict::UnknownSite:
        ++damage_.unknownSites;
        break;
      case Verdict::Damaged:
        damage_.recordBytes += bytes;
        break;
    }
    level.searched += bytes;
  }
}

// `bytes` becomes the record's size when its header can be believed.
Reader::Impl::Verdict Reader::Impl::examine(Level& level, std::size_t at, std::size_t& bytes, U64& ticks) {
  RecordHeader header;
  std::size_t const left = level.end() - at;
  if (left < sizeof header + sizeof(U32)) return Verdict::Damaged;
  std::memcpy(&header, level.subBuffer.data() + at, sizeof header);
  U64 const after = level.found.empty() ? level.header.ticks : level.found.back().ticks;
  if (header.bytes > left || header.bytes % 8 || header.bytes < sizeof header + sizeof(U32) ||
      header.check != Format::recordCheck(header.ticks, header.site, header.bytes) || header.ticks <= after)
    return Verdict::Damaged;
  SiteInfo const* const info = site(header.site);
  if (info && (&level != &levels_[info->level] ||
               !Parse::values(info->types, std::span(level.subBuffer).subspan(at, header.bytes), nullptr)))
    return Verdict::Damaged;
  bytes = header.bytes;
  ticks = header.ticks;
  return info ? Verdict::Intact : Verdict::UnknownSite;
}

Reader::Reader(std::string path) : impl_(std::make_unique<Impl>(std::move(path))) {}
Reader::~Reader() = default;
bool Reader::next(Record& record) { return impl_->next(record); }
bool Reader::peek(U64& realNs) { return impl_->peek(realNs); }
std::string const& Reader::path() const { return impl_->path(); }
std::string Reader::program() const {
  auto const& name = impl_->fixed().program;
  return {name, ::strnlen(name, sizeof name)};
}
U32 Reader::pid() const { return impl_->fixed().pid; }
U64 Reader::openedNs() const { return impl_->fixed().openRealNs; }
bool Reader::live() const { return impl_->live(); }
Damage const& Reader::damage() const { return impl_->damage(); }
std::vector<RingState> Reader::rings() const { return impl_->rings(); }
std::vector<SiteInfo const*> Reader::sites() const { return impl_->sites(); }

}  // namespace Lumelog
