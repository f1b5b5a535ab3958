// SPDX-License-Identifier: Apache-2.0
// A merge of the levels' ring buffers by time stamp, one sub-buffer of each in hand:
//
//   level 0   | 3  17 |         the horizon is 17: whatever was written before a record is there once that
//   level 9   | 12  14  15 |    record is seen, so that what is in hand up to 17 is complete
#include "lumelog/reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <unordered_map>
#include <utility>

#include "lumelog/file.h"
#include "lumelog/format.h"
#include "pallo/descriptor.h"
#include "pallo/exception.h"

namespace Lumelog {
namespace {

using namespace Format;

constexpr U64 second = 1000000000;

// Text up to the next value; `rest` becomes what follows the value, `type` its code, 0 at the end.
std::string takeLabel(std::string_view& rest, char& type) {
  std::string label;
  type = 0;
  while (!rest.empty() && type == 0) {
    bool const escape = rest.size() > 1 && rest[0] == '%';
    if (escape && rest[1] != '%')
      type = rest[1];
    else
      label += rest[0];
    rest.remove_prefix(escape ? 2 : 1);
  }
  return label;
}

// The entry whose characters start at `text`. None when its types and its text do not belong together.
std::optional<SiteInfo> parseSite(SiteHeader const& header, char const* text) {
  SiteInfo info{header.id, header.level, {}, header.line, std::string(text, header.typeBytes), {}, {}};
  text += header.typeBytes;
  info.text.assign(text, header.textBytes);
  info.file.assign(text + header.textBytes, header.fileBytes);
  if (info.level >= Format::levels || !info.types.starts_with('i')) return std::nullopt;
  std::string_view rest = info.text;
  for (std::size_t i = 1;; ++i) {
    char type;
    info.labels.push_back(takeLabel(rest, type));
    bool const last = i == info.types.size();
    if (last != (type == 0) || (!last && type != info.types[i])) return std::nullopt;
    if (last) return info;
  }
}

// The values of a whole record. False when they do not fill it exactly.
bool parseValues(std::string_view types, std::span<std::byte const> record, std::vector<Value>* values) {
  std::size_t at = sizeof(RecordHeader);
  for (char type : types) {
    Value value{type, 0, {}};
    U16 length = 0;
    std::size_t const bytes = type == 'q' ? 8 : type == 'i' ? 4 : 2;
    if (record.size() - at < bytes) return false;
    std::memcpy(type == 's' ? static_cast<void*>(&length) : &value.number, record.data() + at, bytes);
    at += bytes;
    if (record.size() - at < length) return false;
    value.text = {reinterpret_cast<char const*>(record.data() + at), length};
    at += length;
    if (values) values->push_back(value);
  }
  return align8(at) == record.size();
}

// One level's ring buffer.
struct Level {
  // A record that was found intact in the sub-buffer in hand.
  struct Found {
    std::size_t at;
    U64 ticks;
  };
  U64 offset = 0;            // of the ring buffer in the file
  U64 subBuffers = 0;        // of it
  U64 present = 0;           // of them that the file still has
  std::vector<U64> plan;     // sequences still to be read, newest first
  U64 newest = 0;            // highest sequence seen
  SubBufferHeader header{};  // of the sub-buffer in hand; sequence 0: none
  std::vector<std::byte> subBuffer;
  std::size_t searched = 0;  // bytes of `subBuffer` that were looked at
  std::vector<Found> found;
  std::size_t next = 0;  // in `found`
  bool ready() const { return next < found.size(); }
  std::size_t end() const { return sizeof(SubBufferHeader) + header.used; }
};

}  // namespace

struct VANTREL_LOCAL Reader::Impl {
  explicit Impl(std::string p) : path(std::move(p)), fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    struct stat status;
    if (!fd) throw Pallo::Exception(fmt::format("cannot open {}: {}", path, std::strerror(errno)));
    if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
      throw Pallo::Exception(fmt::format("{} is not a regular file", path));
    measure();
    readFixedHeader();
    begin();
  }

  // Behind the fixed header; again when the writer started a truncated file over.
  void begin() {
    readLiveHeader();
    truncations = live.truncations;
    setClock();
    siteScan = 0;
    readSites(live.siteUsed);
    levels = {};
    for (std::size_t i = 0; i < levels.size(); ++i) {
      levels[i].offset = fixed.ring[i].offset;
      levels[i].subBuffers = fixed.ring[i].bytes / subBufferBytes;
    }
    measure();
    for (Level& level : levels) scan(level);
  }

  // What of the file is there: less than was made after a truncation, and all of it when it was made whole.
  void measure() {
    struct stat status;
    size = ::fstat(fd.get(), &status) == 0 ? static_cast<U64>(status.st_size) : 0;
    damage.missingBytes = fixed.fileBytes > size ? fixed.fileBytes - size : 0;
    for (Level& level : levels) {
      U64 const behind = level.offset < size ? (size - level.offset) / subBufferBytes : 0;
      level.present = std::min(level.subBuffers, behind);
    }
  }

  bool readAt(U64 offset, void* to, std::size_t bytes) const {
    return ::pread(fd.get(), to, bytes, static_cast<off_t>(offset)) == static_cast<ssize_t>(bytes);
  }

  void readFixedHeader() {
    if (size < headerBytes)
      throw Pallo::Exception(
          fmt::format("{} is not a trace file: it has {} bytes, a header {}", path, size, headerBytes));
    if (readAt(0, &fixed, sizeof fixed) && sound(fixed)) return;
    bool const otherVersion =
        std::memcmp(fixed.magic, magic, sizeof fixed.magic) == 0 && fixed.check == headerCheck(fixed);
    if (otherVersion)
      throw Pallo::Exception(
          fmt::format("{} is a trace file of version {}, expected {}", path, fixed.version, version));
    damage.header = true;
    if (!readAt((size - headerBytes) & ~U64{7}, &fixed, sizeof fixed) || !sound(fixed))
      throw Pallo::Exception(fmt::format("{} is not a trace file, or both of its headers are damaged", path));
  }

  void readLiveHeader() {
    if (!readAt(offsetof(FileHeader, live), &live, sizeof live)) live = {};
    if (!damage.header) damage.dropped = live.dropped;
  }

  // The rate from opening to the newest anchor, when that is far enough away and agrees with what was
  // measured at opening.
  void setClock() {
    U64 const nominal = fixed.ticksPerSecond ? fixed.ticksPerSecond : second;
    nsPerTick = static_cast<double>(second) / static_cast<double>(nominal);
    realOffset = fixed.openRealNs - fixed.openNs;
    Anchor const& newest = live.anchor[live.anchors % 2];
    U64 const ticks = newest.ticks - fixed.openTicks, ns = newest.ns - fixed.openNs;
    if (live.anchors == 0 || newest.ns <= fixed.openNs || ns < second / 1000) return;
    double const measured = static_cast<double>(ns) / static_cast<double>(ticks);
    if (measured < nsPerTick * 0.99 || measured > nsPerTick * 1.01) return;
    nsPerTick = measured;
    realOffset = newest.realNs - newest.ns;
  }

  U64 realTime(Level const& level, U64 ticks) const {
    double const passed = static_cast<double>(ticks - level.header.ticks) * nsPerTick;
    return level.header.ns + realOffset + (passed < 1e18 ? static_cast<U64>(passed) : 0);
  }

  // Reads on to `end`, which the file may say wrongly.
  void readSites(U64 end) {
    U64 const room = std::min(fixed.siteBytes, size > fixed.siteOffset ? size - fixed.siteOffset : 0);
    if (end > room || end % 8) end = room;
    if (siteScan >= end) return;
    std::vector<std::byte> area(end - siteScan);
    if (!readAt(fixed.siteOffset + siteScan, area.data(), area.size())) return;
    for (std::size_t at = 0; at < area.size();) {
      std::size_t const bytes = readSite(area, at);
      if (bytes == 0 && !searchedAll) damage.siteBytes += 8;
      at += bytes ? bytes : 8;
    }
    siteScan = end;
  }

  // The entry's size; 0 when there is no intact one.
  std::size_t readSite(std::vector<std::byte> const& area, std::size_t at) {
    SiteHeader header;
    if (area.size() - at < sizeof header) return 0;
    std::memcpy(&header, area.data() + at, sizeof header);
    std::size_t const content = sizeof header + header.typeBytes + header.textBytes + header.fileBytes;
    if (header.bytes > area.size() - at || header.bytes != align8(content)) return 0;
    std::vector<std::byte> entry(area.begin() + static_cast<std::ptrdiff_t>(at),
                                 area.begin() + static_cast<std::ptrdiff_t>(at + header.bytes));
    std::memset(entry.data(), 0, sizeof header.check);
    if (header.check != fnv(entry)) return 0;
    auto const* text = reinterpret_cast<char const*>(entry.data() + sizeof header);
    if (auto site = parseSite(header, text)) sites.emplace(header.id, *std::move(site));
    return header.bytes;
  }

  // A live process may have added sites since; and what says where the sites end may be damaged itself.
  SiteInfo const* site(U32 id) {
    auto found = sites.find(id);
    if (found == sites.end()) {
      readLiveHeader();
      readSites(live.siteUsed);
      found = sites.find(id);
    }
    if (found == sites.end() && !searchedAll) {
      searchedAll = true;
      readSites(fixed.siteBytes);
      siteScan = live.siteUsed;
      found = sites.find(id);
    }
    return found == sites.end() ? nullptr : &found->second;
  }

  bool readSubBufferHeader(Level const& level, U64 index, SubBufferHeader& header) const {
    return index < level.present && readAt(level.offset + index * subBufferBytes, &header, sizeof header) &&
           header.check == subBufferCheck(header) && header.sequence != 0 &&
           (header.sequence - 1) % level.subBuffers == index;
  }

  bool holds(Level const& level, U64 sequence, SubBufferHeader& header) const {
    return readSubBufferHeader(level, (sequence - 1) % level.subBuffers, header) &&
           header.sequence == sequence;
  }

  // Plans every sub-buffer that was written after the newest one known.
  void scan(Level& level) {
    U64 const known = level.newest;
    std::vector<bool> good, empty;
    for (U64 i = 0; i < level.present; ++i) {
      SubBufferHeader header{};
      good.push_back(readSubBufferHeader(level, i, header));
      empty.push_back(header.sequence == 0);
      if (good[i] && header.sequence > known) level.plan.push_back(header.sequence);
    }
    std::sort(level.plan.rbegin(), level.plan.rend());
    if (!level.plan.empty()) level.newest = level.plan.front();
    if (known && !level.plan.empty()) damage.overrun += level.plan.back() - known - 1;
    for (U64 i = 0; known == 0 && i < level.present; ++i) {
      bool const expected = level.newest >= level.subBuffers || i < level.newest;
      bool const inPreparation = empty[i] && i == level.newest % level.subBuffers;
      if (!good[i] && !inPreparation && (expected || !empty[i])) ++damage.subBuffers;
    }
  }

  // Looks whether the writer has begun another sub-buffer since. Where the next one is in preparation, it may
  // be the one after that, or one of a later round: then others were written in between.
  bool followingSubBuffers(Level& level) {
    if (!level.plan.empty()) return true;
    SubBufferHeader header;
    if (level.subBuffers == 0) return false;
    bool const begun = readSubBufferHeader(level, level.newest % level.subBuffers, header);
    bool const cameRound = !begun && level.newest != 0 && !holds(level, level.newest, header);
    if (begun ? header.sequence <= level.newest : !cameRound) return false;
    if (begun && header.sequence == level.newest + 1)
      level.plan.push_back(++level.newest);
    else
      scan(level);
    return !level.plan.empty();
  }

  // Takes a sub-buffer in hand, or what was added to that in hand. False when the writer overran it.
  bool take(Level& level, U64 sequence) {
    SubBufferHeader after;
    std::byte last;  // of the sub-buffer: not there when it is cut meanwhile, and is read as zeros
    level.subBuffer.resize(subBufferBytes);
    U64 const at = level.offset + (sequence - 1) % level.subBuffers * subBufferBytes;
    if (!holds(level, sequence, level.header) ||
        !readAt(at, level.subBuffer.data(), level.subBuffer.size()) ||
        !readAt(at + subBufferBytes - 1, &last, 1) || !holds(level, sequence, after)) {
      level.header = {};
      return false;
    }
    // A damaged length: what is older than the sub-buffer shows itself by its time stamp.
    U32& used = level.header.used;
    if (used > subBufferRoom || used % 8) used = subBufferRoom;
    while (level.searched < level.end()) level.searched += examine(level);
    return true;
  }

  // Takes the next planned one.
  void load(Level& level) {
    level.found.clear();
    level.next = 0;
    level.searched = sizeof(SubBufferHeader);
    U64 const sequence = level.plan.back();
    level.plan.pop_back();
    if (!take(level, sequence)) ++damage.overrun;
  }

  // Looks whether the sub-buffer in hand has more records by now.
  bool grow(Level& level) {
    SubBufferHeader now;
    SubBufferHeader const in = level.header;
    return in.sequence != 0 && level.end() != subBufferBytes && holds(level, in.sequence, now) &&
           now.ticks == in.ticks && now.used > in.used && take(level, in.sequence);
  }

  // A sub-buffer may still have grown after the look for its successor, which is why that comes first.
  void fill(Level& level) {
    while (!level.ready()) {
      bool const more = followingSubBuffers(level);
      if (grow(level)) continue;
      if (!more) return;
      load(level);
    }
  }

  // The writer started the file over, which is read when what is in hand was delivered; call sites keep their
  // numbers. Or it made the file whole, and may have gone on anywhere.
  bool startedOver() {
    FileHeader now;
    if (damage.missingBytes) measure();
    bool const there = readAt(0, &now, sizeof now);
    bool const over = there && now.fixed.openTicks != fixed.openTicks && sound(now.fixed);
    if (over && oldest()) return true;
    if (over) {
      ++damage.restarts;
      fixed = now.fixed;
      begin();
    } else if (there && std::exchange(truncations, now.live.truncations) != now.live.truncations) {
      for (Level& level : levels) scan(level);
    }
    return false;
  }

  // Whatever was written before a record is there once that record is seen. So after the first pass, which
  // finds the newest record in hand, the second finds everything older.
  bool refill() {
    bool const stale = startedOver();
    for (Level& level : levels)
      if (!stale) fill(level);
    U64 newest = 0;
    for (Level& level : levels)
      if (level.ready()) newest = std::max(newest, level.found.back().ticks);
    for (Level& level : levels)
      if (!stale) fill(level);
    horizon = newest;
    return newest != 0;
  }

  Level* oldest() {
    Level* best = nullptr;
    for (Level& level : levels)
      if (level.ready() && (!best || level.found[level.next].ticks < best->found[best->next].ticks))
        best = &level;
    return best;
  }

  Level* ready() {
    Level* level = oldest();
    if (level && level->found[level->next].ticks <= horizon) return level;
    return refill() ? oldest() : nullptr;
  }

  bool next(Record& record) {
    Level* const level = ready();
    if (!level) return false;
    Level::Found const found = level->found[level->next++];
    RecordHeader header;
    std::memcpy(&header, level->subBuffer.data() + found.at, sizeof header);
    record.ticks = delivered = found.ticks;
    record.realNs = realTime(*level, found.ticks);
    record.bytes = header.bytes;
    record.site = &sites.at(header.site);
    record.values.clear();
    parseValues(record.site->types, std::span(level->subBuffer).subspan(found.at, header.bytes),
                &record.values);
    if (!level->ready()) horizon = 0;  // it may have more: look before anything newer is delivered
    return true;
  }

  // Takes the record at `searched` when it is intact. Returns how many bytes were dealt with.
  std::size_t examine(Level& level) {
    RecordHeader header{};
    std::size_t const at = level.searched, left = level.end() - at, least = sizeof header + sizeof(U32);
    if (left >= least) std::memcpy(&header, level.subBuffer.data() + at, sizeof header);
    U64 const after = level.found.empty() ? level.header.ticks : level.found.back().ticks;
    bool const whole = header.bytes >= least && header.bytes <= left && header.bytes % 8 == 0 &&
                       header.check == recordCheck(header.ticks, header.site, header.bytes) &&
                       header.ticks > after;
    SiteInfo const* const info = whole ? site(header.site) : nullptr;
    auto const bytes = std::span(level.subBuffer).subspan(at, whole ? header.bytes : 0);
    if (!whole || (info && (&level != &levels[info->level] || !parseValues(info->types, bytes, nullptr)))) {
      damage.recordBytes += 8;
      return 8;
    }
    if (!info) ++damage.unknownSites;
    if (info && header.ticks > delivered) level.found.push_back({at, header.ticks});
    return header.bytes;
  }

  std::string path;
  Pallo::Descriptor fd;
  U64 size = 0;  // of the file
  FixedHeader fixed{};
  LiveHeader live{};
  U64 truncations = 0;  // that are known of
  double nsPerTick = 1;
  U64 realOffset = 0;  // CLOCK_REALTIME - CLOCK_MONOTONIC, modulo 2^64
  std::unordered_map<U32, SiteInfo> sites;
  U64 siteScan = 0;          // bytes of the sites that were read
  bool searchedAll = false;  // for sites behind the committed ones
  std::array<Level, Format::levels> levels;
  U64 horizon = 0;    // every record up to these ticks is in hand
  U64 delivered = 0;  // ticks of the newest record that was
  Damage damage;
};

Reader::Reader(std::string path) : impl_(std::make_unique<Impl>(std::move(path))) {}
Reader::~Reader() = default;
bool Reader::next(Record& record) { return impl_->next(record); }
std::string const& Reader::path() const { return impl_->path; }
std::string Reader::program() const {
  return {impl_->fixed.program, ::strnlen(impl_->fixed.program, sizeof impl_->fixed.program)};
}
U32 Reader::pid() const { return impl_->fixed.pid; }
U64 Reader::openedNs() const { return impl_->fixed.openRealNs; }
bool Reader::live() const { return File::isLive(impl_->fd.get()); }
Damage const& Reader::damage() const { return impl_->damage; }

std::vector<RingState> Reader::rings() const {
  std::vector<RingState> states;
  for (Level const& level : impl_->levels)
    states.push_back({level.subBuffers * subBufferBytes, level.subBuffers, level.newest});
  return states;
}

std::vector<SiteInfo const*> Reader::sites() const {
  std::vector<SiteInfo const*> all;
  for (auto const& [id, site] : impl_->sites) all.push_back(&site);
  return all;
}

}  // namespace Lumelog
