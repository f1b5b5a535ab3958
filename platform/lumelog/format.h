// SPDX-License-Identifier: Apache-2.0
// The bytes of a trace file, for its writer and its reader; docs/formats/trace-file.md tells the same with an
// example.
//
//   file         | FileHeader | call sites | ring buffer of level 0 | ... | of level 9 | copy of the header |
//   ring buffer  | sub-buffer 5 | sub-buffer 2 | sub-buffer 3 | sub-buffer 4 |
//   sub-buffer   | header | record | record | record |<- committed: `used`       |
//
// A ring buffer is a row of sub-buffers of 4 KiB, filled one after the other and then again from the first.
// The oldest is overwritten as a whole, so that a reader never has to guess where a record starts. A record
// never crosses a sub-buffer.
//
// Invariants: everything is little-endian and lies on a multiple of 8. What is not yet committed is never
//   read: a sub-buffer's records up to `used`, the sites up to `siteUsed`. Time stamps rise strictly over the
//   whole file.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>

#include "pallo/types.h"

namespace Lumelog::Format {

constexpr char magic[8] = {'L', 'U', 'M', 'E', 'L', 'O', 'G', '1'};
constexpr U32 version = 1;
constexpr U32 byteOrder = 0x01020304;
constexpr std::size_t levels = 10;
constexpr std::size_t headerBytes = 4096;
constexpr std::size_t siteBytes = 256 * 1024;
constexpr std::size_t subBufferBytes = 4096;

// What the time stamps count.
enum class Clock : U32 { Tsc = 1, MonotonicNs = 2 };

// Where one level's ring lies.
struct Ring {
  U64 offset;  // from the start of the file, bytes
  U64 bytes;   // a multiple of the sub-buffer size; 0: nothing of this level is kept
};

// Written once at opening, before the file appears under its name; written again at the end of the file.
struct FixedHeader {
  char magic[8];
  U32 version;
  U32 byteOrder;
  U32 check;           // fnv() of this structure with 0 here
  U32 subBufferBytes;  // size of a sub-buffer
  U64 fileBytes;       // size of the whole file
  U32 pid;             // the process that writes
  U32 maxString;       // longer strings were cut to this many bytes
  Clock clock;         // what ticks are
  U32 threading;       // 0: one thread
  U64 ticksPerSecond;  // measured at opening; two anchors far apart tell it better
  U64 siteOffset;      // where the call sites start
  U64 siteBytes;       // room for them
  U64 openTicks;       // the moment of opening on the tick clock,
  U64 openNs;          //   on CLOCK_MONOTONIC, nanoseconds,
  U64 openRealNs;      //   and on CLOCK_REALTIME, nanoseconds since 1970
  Ring ring[levels];
  char program[32];  // the process's name, filled up with zeros
};
static_assert(sizeof(FixedHeader) == 288);

// One moment on three clocks.
struct Anchor {
  U64 ticks;
  U64 ns;
  U64 realNs;
};

// What changes while the process runs.
struct LiveHeader {
  U64 siteUsed;  // committed bytes of the call sites
  U64 dropped;   // records that could not be written: sites full, or larger than a sub-buffer
  U64 anchors;   // anchors taken since opening; the newest is anchor[anchors % 2], none while 0
  Anchor anchor[2];
  U64 truncations;  // times the file was made whole again
};

struct FileHeader {
  FixedHeader fixed;
  U64 reserved[28];
  LiveHeader live;  // at byte 512
};
static_assert(offsetof(FileHeader, live) == 512 && sizeof(FileHeader) <= headerBytes);

// The sub-buffer of sequence number s (from 1) is the ring's sub-buffer (s - 1) mod n.
struct SubBufferHeader {
  U64 sequence;  // 0 while the writer prepares the sub-buffer
  U64 ticks;     // the moment the sub-buffer was begun on the tick clock
  U64 ns;        // and on CLOCK_MONOTONIC
  U32 used;      // committed bytes after this header
  U32 check;     // subBufferCheck()
};
static_assert(sizeof(SubBufferHeader) == 32);
constexpr std::size_t subBufferRoom = subBufferBytes - sizeof(SubBufferHeader);

// Followed by the values: "i" 4 bytes, "q" 8 bytes, "s" two bytes of length and the characters; zeros up to a
// multiple of 8. The first value is the writer's identifier.
struct RecordHeader {
  U64 ticks;
  U32 site;   // number of the call site
  U16 bytes;  // of the whole record
  U16 check;  // recordCheck()
};
static_assert(sizeof(RecordHeader) == 16);

// Followed by the types, the text (values as %i %q %s, a percent sign as %%) and the source file; zeros up to
// a multiple of 8.
struct SiteHeader {
  U32 check;  // fnv() of the whole entry with 0 here
  U32 bytes;  // of the whole entry
  U32 id;     // 1 for the first, then rising by one
  U32 line;   // in the source file
  U16 textBytes;
  U16 fileBytes;
  U8 typeBytes;
  U8 level;
  U16 reserved;
};
static_assert(sizeof(SiteHeader) == 24);

constexpr std::size_t align8(std::size_t bytes) { return (bytes + 7) & ~std::size_t{7}; }

// Ties the parts of a record's header to each other.
constexpr U16 recordCheck(U64 ticks, U32 site, U16 bytes) {
  U64 const mixed = ticks ^ (ticks >> 32) ^ site ^ (U64{bytes} << 3);
  return static_cast<U16>(mixed ^ (mixed >> 16) ^ 0x4C6CU);
}

// FNV-1a, 32 bits.
inline U32 fnv(std::span<std::byte const> bytes, U32 hash = 0x811C9DC5U) {
  for (std::byte b : bytes) hash = (hash ^ static_cast<U32>(b)) * 0x01000193U;
  return hash;
}

inline U32 headerCheck(FixedHeader header) {
  header.check = 0;
  return fnv(std::as_bytes(std::span(&header, 1)));
}

// The header of a trace file of this version.
inline bool sound(FixedHeader const& header) {
  return std::memcmp(header.magic, magic, sizeof magic) == 0 && header.check == headerCheck(header) &&
         header.version == version && header.byteOrder == byteOrder &&
         header.subBufferBytes == subBufferBytes;
}

// Over all of a sub-buffer's header but `used`, which changes.
inline U32 subBufferCheck(SubBufferHeader header) {
  header.used = header.check = 0;
  return fnv(std::as_bytes(std::span(&header, 1)));
}

}  // namespace Lumelog::Format
