// SPDX-License-Identifier: Apache-2.0
// Lumelog: a flight recorder. One file, mapped into memory, holds a ring buffer a level; a record is one
// event: its time stamp, its call site and its values in binary.
//
//   LUMELOG_RECORD(log, 9, 1u, "handling key:", key, " hdl:", hdl);
//
// The first value is the writer's identifier; then literals and values take turns. An array of characters is
// text of the message; a value is a number of up to 32 bits ("i"), of 64 bits or with such a value() ("q"),
// or a string ("s").
//
// Invariants: a record that was written is readable whatever ends the process, at any instruction; what was
//   being written is not there. Time stamps rise strictly. A file belongs to one live process; a forked child
//   records nothing. A file that is truncated meanwhile is made whole again by the next record.
// Ownership: the opener's, by close(); a log that stays open to the end of the process loses nothing.
// Threading: Single: one thread, plain stores.
// Cost: reading the processor's time stamp, which is most of it (see Moments), and a few stores, no system
//   call; every hundred records or so a new sub-buffer; and after each quiet hundredth of a second the
//   system's clock and the file's size. A null log is one predictable branch.
// Errors: what cannot be opened is said on stderr, and the caller runs without; a record never fails.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "lumelog/format.h"
#include "lumelog/values.h"
#include "pallo/types.h"

namespace Lumelog {

class Tap;  // tap.h

constexpr std::size_t levels = Format::levels;

enum class Threading { Single = 0 };

struct Options {
  std::array<U32, levels> kib{};  // of each level's ring buffer, rounded up to sub-buffers; 0: none
  std::size_t maxString = 80;     // longer strings are cut, bytes
  Threading threading = Threading::Single;
  U32 keep = 8;           // trace files of dead processes that opening leaves, the newest
  U32 retrySeconds = 60;  // until a truncated file whose space could not be had is tried again
};

// One call site of the source: registered with the log when it first records there.
struct Site {
  U8 level;
  char const* file;
  int line;
  U32 id = 0;   // its number in the log
  U32 log = 0;  // the log that gave it, 0 for none
};

// The processor's time stamp counter where it runs at a constant rate, else CLOCK_MONOTONIC in nanoseconds:
// the counter is three times cheaper to read, and never a system call.
class Ticks {
 public:
  Ticks();
  U64 now() const {
    if (tsc_) [[likely]]
      return __builtin_ia32_rdtsc();
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<U64>(t.tv_sec) * 1000000000U + static_cast<U64>(t.tv_nsec);
  }
  Format::Clock clock() const { return tsc_ ? Format::Clock::Tsc : Format::Clock::MonotonicNs; }

 private:
  bool tsc_;
};

class VANTREL_API Log {
  enum class Reading : U8 { each, next, held, passed };  // which records read the clock

 public:
  // A log without a file: its records reach the tap only.
  Log();
  ~Log();
  Log(Log const&) = delete;
  Log& operator=(Log const&) = delete;

  // The site is of this level.
  template <std::size_t level, class... Parts>
  void record(Site& site, U32 identifier, Parts const&... parts);
  // The same with a text that is only known at run time: for the rare message that must not be cut.
  void recordText(U8 level, char const* file, int line, U32 identifier, std::string_view text);
  // An empty one takes it off.
  void tapIs(Tap tap);

  // While it lives, records share one reading of the clock, each a tick after the one before, until
  // momentPassed(): for steps so short that reading the clock would be the larger part of them.
  class Moments {
   public:
    explicit Moments(Log* log) : log_(log) {
      if (log_) outer_ = std::exchange(log_->reading_, Reading::next);
    }
    ~Moments() {
      if (log_) log_->reading_ = outer_;
    }
    Moments(Moments const&) = delete;
    Moments& operator=(Moments const&) = delete;

   private:
    Log* log_;
    Reading outer_{};
  };
  // The next record reads the clock; unless nothing happened after all.
  void momentPassed() {
    if (reading_ == Reading::held) reading_ = Reading::passed;
  }
  void momentStands() {
    if (reading_ == Reading::passed) reading_ = Reading::held;
  }

  // Removes trace files of dead processes but the newest of this number, as opening does.
  void keepIs(U32 keep) const;

  // The file's path; empty without a file.
  std::string const& path() const;
  // Call sites known so far.
  std::size_t sites() const;
  // Records reach the file.
  bool recording() const;

 private:
  friend Log* open(std::string const& name, Options const& options);
  friend void detachAfterFork();
  struct Cold;  // what recording an event does not touch

  // The sub-buffer that a level's records go to.
  struct Ring {
    std::byte* cursor = nullptr;  // where the next record goes
    std::byte* end = nullptr;     // of the sub-buffer
    Format::SubBufferHeader* subBuffer = nullptr;
  };

  template <class... Parts>
  void recordRarely(Site& site, U32 identifier, std::size_t bytes, Parts const&... parts);
  template <class... Parts>
  bool write(Ring& ring, Site const& site, U32 identifier, std::size_t bytes, Parts const&... parts);
  bool registerSite(Site& site, std::span<Detail::Part const> message);
  void callTap(Site const& site, std::span<U64 const> values);
  bool nextSubBuffer(Ring& ring, std::size_t bytes);
  bool attend(Ring const& ring);
  void anchor();
  bool repair();
  void detach();

  U64 stamp() {
    if (reading_ == Reading::held) return ++last_;
    if (reading_ != Reading::each) reading_ = Reading::held;
    return readClock();
  }
  U64 readClock() {
    U64 const now = ticks_.now();
    return last_ = now > last_ ? now : last_ + 1;
  }
  // A reader, and whoever comes after a crash, sees the record from here on.
  static void commit(Ring& ring, std::byte* end) {
    ring.cursor = end;
    auto const used = end - reinterpret_cast<std::byte*>(ring.subBuffer + 1);
    __atomic_store_n(&ring.subBuffer->used, static_cast<U32>(used), __ATOMIC_RELEASE);
  }

  std::array<Ring, levels> rings_;
  Ticks ticks_;
  U32 serial_;  // of this log among those of the process
  bool tapped_ = false;
  Reading reading_ = Reading::each;
  U64 last_ = 0;  // newest time stamp
  // A record from this tick on is followed by an anchor. 0: a signal handler found the file truncated.
  U64 nextAnchor_ = ~U64{0};
  std::size_t maxString_ = 80;
  Cold* const cold_;
};

// The directory of a log whose name is relative, when LUMELOGDIR is not set. The current directory at first.
VANTREL_API void directoryIs(std::string path);

// Opens a log; "%d" in the name stands for the process number. A dead process's file of that name is put
// aside as ".1", ".2" and so on; where a live process or somebody else has the name, the process number comes
// into it. All of the file's space is reserved. Null when that fails, said once on stderr for each path.
VANTREL_API Log* open(std::string const& name, Options const& options);
VANTREL_API void close(Log* log);

template <std::size_t level, class... Parts>
inline void Log::record(Site& site, U32 identifier, Parts const&... parts) {
  std::size_t const bytes = Format::align8(sizeof(Format::RecordHeader) + sizeof(U32) +
                                           (Detail::bytesOf(parts, maxString_) + ... + 0));
  Ring& ring = rings_[level];
  bool const fits = bytes <= static_cast<std::size_t>(ring.end - ring.cursor);
  if (site.log != serial_ || tapped_ || !fits || write(ring, site, identifier, bytes, parts...)) [[unlikely]]
    recordRarely(site, identifier, bytes, parts...);
}

template <class... Parts>
[[gnu::noinline, gnu::cold]] void Log::recordRarely(Site& site, U32 identifier, std::size_t bytes,
                                                    Parts const&... parts) {
  std::array<Detail::Part, sizeof...(Parts)> const message{Detail::part(parts)...};
  if (site.log != serial_ && !registerSite(site, message)) return;
  if (tapped_) {
    U64 values[1 + sizeof...(Parts)] = {identifier};
    U64* end = values + 1;
    (Detail::tapped(end, parts), ...);
    callTap(site, {values, end});
  }
  Ring& ring = rings_[site.level];
  for (int attempt = 0; attempt < 3; ++attempt) {
    bool const fits = bytes <= static_cast<std::size_t>(ring.end - ring.cursor);
    if ((!fits && !nextSubBuffer(ring, bytes)) || !write(ring, site, identifier, bytes, parts...)) return;
  }
}

// True when the file was truncated, and the record is to be written again.
template <class... Parts>
[[gnu::always_inline]] inline bool Log::write(Ring& ring, Site const& site, U32 identifier, std::size_t bytes,
                                              Parts const&... parts) {
  std::byte* const at = ring.cursor;
  U64 const now = stamp();
  auto const size = static_cast<U16>(bytes);
  Format::RecordHeader const header{now, site.id, size, Format::recordCheck(now, site.id, size)};
  std::memset(at + bytes - 8, 0, 8);  // what the values leave of the last word
  std::memcpy(at, &header, sizeof header);
  std::memcpy(at + sizeof header, &identifier, sizeof identifier);
  [[maybe_unused]] std::byte* to = at + sizeof header + sizeof identifier;
  ((to = Detail::put(to, parts, maxString_)), ...);
  commit(ring, at + bytes);
  __atomic_signal_fence(__ATOMIC_SEQ_CST);  // those stores may zero it
  if (now >= nextAnchor_) [[unlikely]]
    return attend(ring);
  return false;
}

}  // namespace Lumelog

#define LUMELOG_RECORD(log, level_, identifier, ...)                      \
  do {                                                                    \
    static_assert((level_) < ::Lumelog::levels, "levels are 0 to 9");     \
    if ((log) != nullptr) {                                               \
      static constinit ::Lumelog::Site site_{level_, __FILE__, __LINE__}; \
      (log)->template record<(level_)>(site_, identifier, __VA_ARGS__);   \
    }                                                                     \
  } while (false)
