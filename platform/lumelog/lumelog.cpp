// SPDX-License-Identifier: Apache-2.0
#include "lumelog/lumelog.h"

#include <cpuid.h>
#include <fmt/format.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lumelog/file.h"
#include "lumelog/ring_file.h"
#include "lumelog/tap.h"

namespace Lumelog {
namespace {

using namespace Format;

constexpr U64 second = 1000000000;
constexpr U64 anchorsASecond = 100;

U64 clockNs(clockid_t id) {
  timespec t;
  clock_gettime(id, &t);
  return static_cast<U64>(t.tv_sec) * second + static_cast<U64>(t.tv_nsec);
}

Anchor anchorAt(U64 ticks) { return {ticks, clockNs(CLOCK_MONOTONIC), clockNs(CLOCK_REALTIME)}; }

// The counter runs at one rate on all processors, whatever their power state.
bool tscIsConstant() {
  unsigned a, b, c, d;
  return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & (1U << 8));
}

// Good to some 1e-4; it only serves until the first anchors are further apart.
U64 measureTicksPerSecond(Ticks const& ticks) {
  if (ticks.clock() == Clock::MonotonicNs) return second;
  U64 const startNs = clockNs(CLOCK_MONOTONIC), start = ticks.now();
  U64 ns;
  do ns = clockNs(CLOCK_MONOTONIC);
  while (ns - startNs < 200000);
  return (ticks.now() - start) * second / (ns - startNs);
}

FixedHeader layOut(Options const& options, Ticks const& ticks) {
  FixedHeader header{};
  std::memcpy(header.magic, magic, sizeof header.magic);
  header.version = version;
  header.byteOrder = byteOrder;
  header.subBufferBytes = subBufferBytes;
  header.pid = static_cast<U32>(::getpid());
  header.maxString = static_cast<U32>(std::min<std::size_t>(options.maxString, 1024));
  header.clock = ticks.clock();
  header.siteOffset = headerBytes;
  header.siteBytes = siteBytes;
  U64 offset = header.siteOffset + header.siteBytes;
  std::size_t level = 0;
  for (U32 const kib : options.kib) {
    U64 const subBuffers = (U64{kib} * 1024 + subBufferBytes - 1) / subBufferBytes;
    header.ring[level++] = {offset, subBuffers * subBufferBytes};
    offset += subBuffers * subBufferBytes;
  }
  header.fileBytes = offset + headerBytes;
  std::string_view const program = program_invocation_short_name;
  std::copy_n(program.begin(), std::min(program.size(), sizeof header.program), header.program);
  header.ticksPerSecond = measureTicksPerSecond(ticks);
  return header;
}

// The bytes that say what a message looks like.
std::vector<std::byte> entryOf(U32 id, Site const& site, std::string_view types, std::string_view text) {
  std::string_view const file = std::string_view(site.file).substr(0, 4096);
  types = types.substr(0, 255);
  text = text.substr(0, 4096);
  std::vector<std::byte> entry(align8(sizeof(SiteHeader) + types.size() + text.size() + file.size()));
  SiteHeader header{};
  header.bytes = static_cast<U32>(entry.size());
  header.id = id;
  header.line = static_cast<U32>(site.line);
  header.textBytes = static_cast<U16>(text.size());
  header.fileBytes = static_cast<U16>(file.size());
  header.typeBytes = static_cast<U8>(types.size());
  header.level = site.level;
  std::byte* to = entry.data() + sizeof header;
  for (std::string_view part : {types, text, file})
    to = std::copy_n(std::as_bytes(std::span(part)).data(), part.size(), to);
  std::memcpy(entry.data(), &header, sizeof header);
  header.check = fnv(entry);
  std::memcpy(entry.data(), &header, sizeof header);
  return entry;
}

// What a process has once; it outlives all others.
struct Process {
  std::string directory;       // of names that are relative
  std::vector<Log*> logs;      // with a file, for the child of a fork
  std::set<std::string> said;  // on stderr
  U32 serial = 0;              // of the newest log
};

Process& process() {
  static auto* const one = new Process;
  return *one;
}

void sayOnce(std::string const& text) {
  if (process().said.insert(text).second) fmt::print(stderr, "Lumelog: {}\n", text);
}

}  // namespace

struct VANTREL_LOCAL Log::Cold {
  std::string name;  // as it was opened
  std::string path;
  Pallo::Descriptor directory;
  std::unique_ptr<RingFile> file;  // null without one, and in a forked child
  U64 ticksToAnchor = 0;           // from one anchor to the next
  U32 retrySeconds = 0;
  U64 retryNs = 0;                             // when a file that is not whole is tried again
  std::vector<std::string> texts;              // by site number - 1
  std::unordered_map<Site const*, U32> known;  // their numbers
  Tap tap;
};

void detachAfterFork() {
  for (Log* log : process().logs) log->detach();
}

Ticks::Ticks() : tsc_(tscIsConstant()) {}
Log::Log() : serial_(++process().serial), cold_(new Cold) {}

Log::~Log() {
  std::erase(process().logs, this);
  delete cold_;
}

std::string const& Log::path() const { return cold_->path; }
std::size_t Log::sites() const { return cold_->texts.size(); }
bool Log::recording() const { return cold_->file && cold_->file->whole(); }

// The parent goes on writing to the file; here nothing is kept any more.
void Log::detach() {
  rings_.fill({});
  nextAnchor_ = ~U64{0};
  cold_->file.reset();
}

void Log::tapIs(Tap tap) {
  cold_->tap = std::move(tap);
  tapped_ = static_cast<bool>(cold_->tap);
}

void Log::keepIs(U32 keep) const {
  if (cold_->directory) File::removeOld(cold_->directory.get(), cold_->name, keep);
}

void Log::callTap(Site const& site, std::span<U64 const> values) {
  cold_->tap(cold_->texts[site.id - 1], values);
}

// A site that was registered here before another log took it over keeps its number.
bool Log::registerSite(Site& site, std::span<Detail::Part const> message) {
  U32& id = cold_->known[&site];
  if (id == 0) {
    std::string types = "i", text;
    for (Detail::Part const& part : message) {
      if (part.type) (types += part.type, text += '%') += part.type;
      for (char c : part.text) text.append(c == '%' ? 2 : 1, c);
    }
    auto const next = static_cast<U32>(cold_->texts.size() + 1);
    if (cold_->file && !cold_->file->append(entryOf(next, site, types, text))) {
      cold_->known.erase(&site);
      return false;
    }
    cold_->texts.push_back(std::move(text));
    id = next;
  }
  site.id = id;
  site.log = serial_;
  return true;
}

void Log::recordText(U8 level, char const* file, int line, U32 identifier, std::string_view text) {
  Site site{level, file, line};
  if (!registerSite(site, std::array{Detail::Part{text}})) return;
  cold_->known.erase(&site);  // it goes out of scope
  recordRarely(site, identifier, align8(sizeof(RecordHeader) + sizeof(U32)));
}

// False when there is no room for the record at all.
bool Log::nextSubBuffer(Ring& ring, std::size_t bytes) {
  auto const level = static_cast<std::size_t>(&ring - rings_.data());
  if (!cold_->file || !cold_->file->keeps(level)) return false;
  bool const whole = cold_->file->whole() || (clockNs(CLOCK_MONOTONIC) >= cold_->retryNs && repair());
  if (!whole || bytes > subBufferRoom) {
    cold_->file->countDropped();
    return false;
  }
  anchor();
  ring.subBuffer = cold_->file->begin(level);
  ring.cursor = reinterpret_cast<std::byte*>(ring.subBuffer + 1);
  ring.end = ring.cursor + subBufferRoom;
  return true;
}

// The file is touched after the next anchor was set: a truncation that is found then is not forgotten.
void Log::anchor() {
  U64 const now = readClock();
  if (nextAnchor_ != 0) nextAnchor_ = now + cold_->ticksToAnchor;
  cold_->file->anchor(anchorAt(now));
}

// Follows a record that came late enough for an anchor, or that touched what is not in the file any more.
// Then the file is made whole again. True when the record is to be written again.
bool Log::attend(Ring const& ring) {
  RingFile& file = *cold_->file;
  if (nextAnchor_ != 0 && !file.truncated()) {
    anchor();
    if (nextAnchor_ != 0) return false;
  }
  bool const lost = !file.reaches(ring.end);
  if (repair()) return lost;
  if (lost) file.countDropped();
  return false;
}

bool Log::repair() {
  rings_.fill({});
  nextAnchor_ = ~U64{0};
  try {
    cold_->file->makeWhole(anchorAt(readClock()));
    return true;
  } catch (std::exception const& e) {
    cold_->retryNs = clockNs(CLOCK_MONOTONIC) + cold_->retrySeconds * second;
    sayOnce(
        fmt::format("cannot go on with the trace file {}: {}; running without it", cold_->path, e.what()));
    return false;
  }
}

Log* open(std::string const& name, Options const& options) {
  std::string const path = File::place(name, process().directory);
  try {
    auto log = std::make_unique<Log>();
    Log::Cold& cold = *log->cold_;
    FixedHeader const header = layOut(options, log->ticks_);
    cold.name = name;
    cold.directory = File::openDirectory(path);
    log->keepIs(options.keep);
    File::Draft draft(cold.directory.get(), path);
    log->maxString_ = header.maxString;
    cold.ticksToAnchor = header.ticksPerSecond / anchorsASecond;
    cold.retrySeconds = options.retrySeconds;
    cold.file = std::make_unique<RingFile>(draft.take(), header, &log->nextAnchor_);
    cold.file->makeWhole(anchorAt(log->readClock()));
    cold.path = draft.publish();
    if (cold.path != path)
      fmt::print(stderr, "Lumelog: {} belongs to a live process or to somebody else, writing {} instead\n",
                 path, cold.path);
    [[maybe_unused]] static int const watching = pthread_atfork(nullptr, nullptr, &detachAfterFork);
    process().logs.push_back(log.get());
    return log.release();
  } catch (std::exception const& e) {
    sayOnce(fmt::format("cannot open the trace file {}: {}; running without it", path, e.what()));
    return nullptr;
  }
}

void close(Log* log) { delete log; }
void directoryIs(std::string path) { process().directory = std::move(path); }

}  // namespace Lumelog
