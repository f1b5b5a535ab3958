// SPDX-License-Identifier: Apache-2.0
#include "lumelog/lumelog.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <set>
#include <system_error>
#include <utility>

#include "lumelog/file.h"

namespace Lumelog {
namespace {

constexpr U64 second = 1000000000;
constexpr U64 anchorsASecond = 100;

U64 clockNs(clockid_t id) {
  timespec t;
  clock_gettime(id, &t);
  return static_cast<U64>(t.tv_sec) * second + static_cast<U64>(t.tv_nsec);
}

// The counter runs at one rate on all processors, whatever their power state.
bool tscIsConstant() {
#if defined(__x86_64__)
  unsigned a, b, c, d;
  return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & (1U << 8));
#else
  return false;
#endif
}

// Good to some 1e-4; it only serves until the first anchors are further apart.
U64 measureTicksPerSecond(Ticks const& ticks) {
  if (ticks.clock() == Format::Clock::MonotonicNs) return second;
  U64 const startNs = clockNs(CLOCK_MONOTONIC), start = ticks.now();
  U64 ns;
  do ns = clockNs(CLOCK_MONOTONIC);
  while (ns - startNs < 200000);
  return (ticks.now() - start) * second / (ns - startNs);
}

std::string& directory() {
  static auto* const path = new std::string;
  return *path;
}

// Every log of the process, for the child of a fork.
std::vector<Log*>& logs() {
  static auto* const all = new std::vector<Log*>;
  return *all;
}

U32 nextSerial() {
  static U32 serial = 0;
  return ++serial;
}

}  // namespace

void detachAfterFork() {
  for (Log* log : logs()) log->detach();
}

Ticks::Ticks() : tsc_(tscIsConstant()) {}

Log::Log() : serial_(nextSerial()) {}

std::unique_ptr<Log> Log::inMemory(Tap tap) {
  std::unique_ptr<Log> log(new Log);
  log->tapIs(std::move(tap));
  return log;
}

Log::Log(std::string path, int fd, std::byte* map, Format::FixedHeader const& header)
    : serial_(nextSerial()),
      maxString_(header.maxString),
      map_(map),
      mapBytes_(header.fileBytes),
      ticksPerSecond_(header.ticksPerSecond),
      fd_(fd),
      path_(std::move(path)) {
  last_ = header.openTicks;
  nextAnchor_ = last_ + ticksPerSecond_ / anchorsASecond;
  for (std::size_t level = 0; level < levels; ++level) {
    rings_[level].first = map + header.ring[level].offset;
    rings_[level].subBuffers = header.ring[level].bytes / Format::subBufferBytes;
  }
  static bool const watching = pthread_atfork(nullptr, nullptr, &detachAfterFork) == 0;
  static_cast<void>(watching);
  logs().push_back(this);
}

Log::~Log() {
  std::erase(logs(), this);
  detach();
}

// The parent goes on writing to the file; here nothing is kept any more.
void Log::detach() {
  if (map_) ::munmap(map_, mapBytes_);
  if (fd_ >= 0) ::close(fd_);
  map_ = nullptr;
  fd_ = -1;
  nextAnchor_ = ~U64{0};
  rings_.fill({});
}

Format::LiveHeader& Log::live() { return reinterpret_cast<Format::FileHeader*>(map_)->live; }

void Log::tapIs(Tap tap) {
  tap_ = std::move(tap);
  tapped_ = static_cast<bool>(tap_);
}

void Log::callTap(Site const& site, std::span<U64 const> values) { tap_(texts_[site.id - 1], values); }

// A site that was registered here before another log took it over keeps its number.
bool Log::registerSite(Site& site, Detail::Shape const& shape) {
  U32& id = known_[&site];
  if (id == 0) {
    auto const next = static_cast<U32>(texts_.size() + 1);
    if (map_ && !writeSite(next, site, shape)) {
      known_.erase(&site);
      return false;
    }
    texts_.push_back(shape.text);
    id = next;
  }
  site.id = id;
  site.log = serial_;
  return true;
}

bool Log::writeSite(U32 id, Site const& site, Detail::Shape const& shape) {
  auto const& fixed = reinterpret_cast<Format::FileHeader*>(map_)->fixed;
  std::string_view const text = std::string_view(shape.text).substr(0, 4096);
  std::string_view const file = std::string_view(site.file).substr(0, 4096);
  std::string_view const types = std::string_view(shape.types).substr(0, 255);
  std::size_t const bytes =
      Format::align8(sizeof(Format::SiteHeader) + types.size() + text.size() + file.size());
  if (live().siteUsed + bytes > fixed.siteBytes) {
    ++live().dropped;
    return false;
  }
  std::byte* const at = map_ + fixed.siteOffset + live().siteUsed;
  std::memset(at, 0, bytes);
  Format::SiteHeader header{0,
                            static_cast<U32>(bytes),
                            id,
                            static_cast<U32>(site.line),
                            static_cast<U16>(text.size()),
                            static_cast<U16>(file.size()),
                            static_cast<U8>(types.size()),
                            site.level,
                            0};
  std::byte* to = at + sizeof header;
  for (std::string_view part : {types, text, file})
    to = std::copy_n(std::as_bytes(std::span(part)).data(), part.size(), to);
  std::memcpy(at, &header, sizeof header);
  header.check = Format::fnv({at, bytes});
  std::memcpy(at, &header, sizeof header);
  std::atomic_ref(live().siteUsed).store(live().siteUsed + bytes, std::memory_order_release);
  return true;
}

void Log::recordText(U8 level, char const* file, int line, U32 identifier, std::string_view text) {
  Site site{level, file, line};
  Detail::Shape shape;
  for (char c : text) shape.text.append(c == '%' ? 2 : 1, c);
  if (!registerSite(site, shape)) return;
  known_.erase(&site);  // it goes out of scope
  recordRarely(site, identifier, Format::align8(sizeof(Format::RecordHeader) + sizeof(U32)));
}

// False when there is no room for the record at all.
bool Log::nextSubBuffer(Ring& ring, std::size_t bytes) {
  if (!ring.first || ring.subBuffers == 0) return false;
  if (bytes > Format::subBufferRoom) {
    ++live().dropped;
    return false;
  }
  beginSubBuffer(ring);
  return true;
}

// Whoever reads meanwhile, or after a crash in between, sees no sequence and leaves the sub-buffer out.
void Log::beginSubBuffer(Ring& ring) {
  std::byte* const at = ring.first + ring.sequence % ring.subBuffers * Format::subBufferBytes;
  ring.subBuffer = reinterpret_cast<Format::SubBufferHeader*>(at);
  std::atomic_ref(ring.subBuffer->sequence).store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  takeAnchor();
  Format::Anchor const& now = live().anchor[live().anchors % 2];
  Format::SubBufferHeader const header{++ring.sequence, now.ticks, now.ns, 0, 0};
  ring.subBuffer->ticks = header.ticks;
  ring.subBuffer->ns = header.ns;
  std::atomic_ref(ring.subBuffer->used).store(0, std::memory_order_relaxed);
  ring.subBuffer->check = Format::subBufferCheck(header);
  std::atomic_ref(ring.subBuffer->sequence).store(header.sequence, std::memory_order_release);
  ring.cursor = at + sizeof(Format::SubBufferHeader);
  ring.end = at + Format::subBufferBytes;
}

// The older anchor is overwritten first and counts only when it is whole.
void Log::takeAnchor() {
  U64 const ticks = readClock();
  U64 const next = live().anchors + 1;
  live().anchor[next % 2] = {ticks, clockNs(CLOCK_MONOTONIC), clockNs(CLOCK_REALTIME)};
  std::atomic_ref(live().anchors).store(next, std::memory_order_release);
  nextAnchor_ = ticks + ticksPerSecond_ / anchorsASecond;
}

namespace {

Format::FixedHeader layOut(Options const& options, Ticks const& ticks) {
  Format::FixedHeader header{};
  std::memcpy(header.magic, Format::magic, sizeof header.magic);
  header.version = Format::version;
  header.byteOrder = Format::byteOrder;
  header.subBufferBytes = Format::subBufferBytes;
  header.pid = static_cast<U32>(::getpid());
  header.maxString = static_cast<U32>(std::min<std::size_t>(options.maxString, 1024));
  header.clock = ticks.clock();
  header.siteOffset = Format::headerBytes;
  header.siteBytes = Format::siteBytes;
  U64 offset = header.siteOffset + header.siteBytes;
  for (std::size_t level = 0; level < levels; ++level) {
    U64 const bytes = (U64{options.kib[level]} * 1024 + Format::subBufferBytes - 1) / Format::subBufferBytes *
                      Format::subBufferBytes;
    header.ring[level] = {offset, bytes};
    offset += bytes;
  }
  header.fileBytes = offset + Format::headerBytes;
  std::string_view const program = program_invocation_short_name;
  std::copy_n(program.begin(), std::min(program.size(), sizeof header.program), header.program);
  return header;
}

void startClocks(Format::FixedHeader& header, Ticks const& ticks) {
  header.ticksPerSecond = measureTicksPerSecond(ticks);
  header.openTicks = ticks.now();
  header.openNs = clockNs(CLOCK_MONOTONIC);
  header.openRealNs = clockNs(CLOCK_REALTIME);
  header.check = Format::headerCheck(header);
}

std::byte* mapFile(int fd, std::size_t bytes, std::string const& path) {
  void* const map = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
  return static_cast<std::byte*>(map);
}

void writeHeaders(std::byte* map, Format::FixedHeader const& header) {
  std::memcpy(map, &header, sizeof header);
  std::memcpy(map + header.fileBytes - Format::headerBytes, &header, sizeof header);
}

void sayOnce(std::string const& text) {
  static auto* const said = new std::set<std::string>;
  if (said->insert(text).second) fmt::print(stderr, "{}\n", text);
}

}  // namespace

Log* open(std::string const& name, Options const& options) {
  std::string const path = File::place(name, directory());
  try {
    Ticks const ticks;
    Format::FixedHeader header = layOut(options, ticks);
    File::Draft draft(path, header.fileBytes);
    std::byte* const map = mapFile(draft.fd(), header.fileBytes, path);
    startClocks(header, ticks);
    writeHeaders(map, header);
    int fd;
    std::string published;
    try {
      published = draft.publish(path, &fd);
    } catch (...) {
      ::munmap(map, header.fileBytes);
      throw;
    }
    if (published != path)
      fmt::print(stderr, "Lumelog: {} belongs to a live process, writing {} instead\n", path, published);
    return new Log(std::move(published), fd, map, header);
  } catch (std::system_error const& e) {
    sayOnce(fmt::format("Lumelog: cannot open the trace file {}: {}; running without it", path,
                        e.code().message()));
    return nullptr;
  }
}

void close(Log* log) { delete log; }

void directoryIs(std::string path) { directory() = std::move(path); }

}  // namespace Lumelog
