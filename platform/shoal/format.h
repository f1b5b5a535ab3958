// SPDX-License-Identifier: Apache-2.0
// The bytes of a table file, as docs/formats/table-file.md describes them.
//
//   header | live words | copy of the header | ring of changed keys | directory of index chunks |
//   directory of overflow chunks | chunks...
//
// The file grows by chunks, and nothing in it ever moves. A chunk holds lines of the index, overflow lines,
// or slots. The index is a linear hash table (W. Litwin, Linear hashing, VLDB 1980): line b is bucket b, and
// one bucket is split at a time, so that growth never touches more than one. An entry of a line is one 8-byte
// word that names a slot; a record is published and replaced by one store to that word, and removed by one
// store to its slot's state.
//
// A slot says by itself whether it holds a record, whose, and how new: the index can be rebuilt from the
// slots.
//
// Invariants: a guarded word carries 16 bits that depend on its value and its place; an index entry carries
//   the exclusive-or of its quarters; a line's link carries 32 bits that depend on bucket and depth; a slot
//   carries a 32-bit checksum. Whatever does not agree with its guard is damage, and is not followed.
// Cost: 26 bytes of index and slotBytes a record.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <optional>
#include <string_view>

#include "pallo/types.h"
#include "shoal/table_file.h"

namespace Shoal::Format {

inline constexpr U64 magic = 0x314C424154485353U;  // "SSHTABL1"
inline constexpr U32 version = 5;

inline constexpr U64 unitBytes = 32;             // of a line; what an entry or a link counts in
inline constexpr U64 chunkBytes = 256U * 1024U;  // what the file grows by
inline constexpr U64 linesPerChunk = chunkBytes / unitBytes;
inline constexpr U64 directoryEntries = 8192;
inline constexpr U64 maxBuckets = directoryEntries * linesPerChunk;
inline constexpr U64 firstBuckets = 128;         // of an empty table
inline constexpr U64 recordsPerFourBuckets = 5;  // above this mean a bucket is split
inline constexpr unsigned wordsPerLine = 4;
inline constexpr unsigned entriesPerLine = 3;
inline constexpr unsigned linkInLine = 3;
inline constexpr U64 windowBytes = 1ULL << 37;  // address space of one mapping
inline constexpr U64 maxChunks = windowBytes / chunkBytes;
inline constexpr U64 maxHeadWords = 63;    // of an image
inline constexpr U64 maxTailWords = 1022;  // of an image
inline constexpr U64 maxDepth = 4096;      // lines of a bucket

// The first bytes of the file, written once, and again at headerCopyAt.
struct Header {
  U64 magic;
  U32 version;        // of this format
  U32 recordVersion;  // of the record's image
  char typeName[32];  // of the record, zero-padded
  U32 imageBytes;     // of a record's image, a multiple of 8
  U32 slotBytes;      // of a slot: 16 + imageBytes, rounded up to 64
  U32 ringEntries;    // a power of two
  U32 chunkStart;     // offset of chunk 0
  U64 hash[4];        // the multiplier's low and high half, the addend's low and high half; random
  U64 tableId;        // random; stays when the table is made anew from its slots
  U64 madeAt;         // seconds since 1970
  U64 tailAt;         // the word of the image that begins its tail
  U64 reserved;       // zero
  U64 checksum;       // XXH3-64 of the bytes before it
};
static_assert(sizeof(Header) == 136);

// Offsets of the live words, each in a cache line of its own.
inline constexpr U64 bucketsAt = 4096;  // guarded: buckets of the index
inline constexpr U64 chunksAt = 4160;   // guarded: chunks in use
inline constexpr U64 countAt = 4224;    // guarded: records present
inline constexpr U64 headAt = 4288;     // guarded: changes ever announced
inline constexpr U64 writerAt = 4352;   // the writer's process id and, above 32 bits, its namespace; a hint
inline constexpr U64 headerCopyAt = 6144;
inline constexpr U64 ringAt = 8192;  // ringEntries x {stamp, key}

constexpr U64 roundUp(U64 value, U64 to) { return (value + to - 1) / to * to; }
constexpr U64 indexDirectoryAt(U64 ringEntries) { return ringAt + ringEntries * 16; }
constexpr U64 overflowDirectoryAt(U64 ringEntries) {
  return indexDirectoryAt(ringEntries) + directoryEntries * 8;
}
constexpr U64 chunkStart(U64 ringEntries) {
  return roundUp(overflowDirectoryAt(ringEntries) + directoryEntries * 8, 4096);
}

// A slot: 0 checksum 8 | 8 state 8 | 16 the words of the image's head that are in use, and those of its tail.
// The first is the key.
inline constexpr U64 slotHeadBytes = 16;
constexpr U64 slotBytes(U64 imageBytes) { return roundUp(slotHeadBytes + imageBytes, 64); }

// The state word: 48 bits of generation, which is twice the number of the change that wrote the slot, and odd
// while it is being written; above them how much of the image is in use, 10 bits of the tail and 6 of the
// head, or all ones in a slot that was freed.
inline constexpr Extent freed{63, 1023};
constexpr U64 state(U64 generation, Extent extent) {
  return (generation & 0xFFFF'FFFF'FFFFU) | U64{extent.tail} << 48 | U64{extent.head} << 58;
}
constexpr U64 generation(U64 state) { return state & 0xFFFF'FFFF'FFFFU; }
constexpr Extent extent(U64 state) {
  return {static_cast<U32>(state >> 58), static_cast<U32>(state >> 48 & 1023)};
}
constexpr bool isWriting(U64 state) { return (state & 1) != 0; }
constexpr bool isFreed(U64 state) { return state >> 48 == 0xFFFF; }

// A bijective mix: every bit of x reaches every bit of the result. (The finalizer of MurmurHash3 in D.
// Stafford's variant 13.)
constexpr U64 mix(U64 x) {
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

// A guarded word holds 48 bits; its place is its offset in the file.
constexpr U64 guard(U64 value, U64 place) {
  return (value & 0xFFFFFFFFFFFFU) | mix(value + place * 0x9E3779B97F4A7C15U + 1) << 48;
}
constexpr std::optional<U64> unguard(U64 word, U64 place) {
  U64 const value = word & 0xFFFFFFFFFFFFU;
  if (guard(value, place) != word) return std::nullopt;
  return value;
}

// An index entry: 32 bits slot (offset / 32) | 16 bits, so that the exclusive-or of the word's four quarters
// is zero | the upper 16 bits of the key's hash, its tag. Zero: no entry.
constexpr U64 foldQuarters(U64 x) {
  x ^= std::rotr(x, 32);
  x ^= std::rotr(x, 16);
  return x & 0xFFFF;
}
constexpr U64 tag(U64 hash) { return hash >> 48; }
constexpr U64 entry(U64 unit, U64 hash) {
  U64 const body = (unit & 0xFFFFFFFFU) | tag(hash) << 48;
  return body | foldQuarters(body) << 32;
}
constexpr U64 entryUnit(U64 entry) { return entry & 0xFFFFFFFFU; }
constexpr U64 entryTag(U64 entry) { return tag(entry); }
constexpr bool entryIntact(U64 entry) { return foldQuarters(entry) == 0; }

// The last word of a line: the unit of the next overflow line (0: none), guarded by the line's bucket and
// depth.
constexpr U64 link(U64 unit, U64 bucket, U64 depth) {
  return (unit & 0xFFFFFFFFU) | mix(unit ^ mix(bucket << 24 ^ depth ^ 0x5348)) << 32;
}
constexpr std::optional<U64> linkUnit(U64 word, U64 bucket, U64 depth) {
  U64 const unit = word & 0xFFFFFFFFU;
  if (link(unit, bucket, depth) != word) return std::nullopt;
  return unit;
}

// Ring entry of change `sequence`: the stamp guards sequence and key.
constexpr U64 stamp(U64 sequence, U64 key) { return guard(sequence, mix(key) | 1); }

// The bucket of a hash in an index of `buckets` buckets, `level` being the greatest power of two in that;
// without a branch, which would be mispredicted.
constexpr U64 bucketOf(U64 hash, U64 buckets, U64 level) {
  U64 const bucket = hash & (2 * level - 1);
  U64 const stands = -U64{bucket < buckets};
  return bucket & (stands | ~level);
}
constexpr U64 bucketOf(U64 hash, U64 buckets) { return bucketOf(hash, buckets, std::bit_floor(buckets)); }

// Strongly universal: multiply-add in 128 bits, of which the high half is kept. Whoever does not know the
// file's random multiplier and addend cannot choose two keys that collide with more than their fair chance.
// What follows maps one number to one number, so that this stays true; it separates keys that lie in a
// pattern, which would otherwise lie in a pattern of buckets.
constexpr U64 hash(std::array<U64, 4> const& seed, U64 key) {
  __extension__ using U128 = unsigned __int128;
  U128 const multiplier = (U128{seed[1]} << 64) | seed[0];
  U128 const addend = (U128{seed[3]} << 64) | seed[2];
  U64 const high = static_cast<U64>((multiplier * key + addend) >> 64);
  U64 const spread = (high ^ high >> 32) * 0x9E3779B97F4A7C15U;
  return spread ^ spread >> 32;
}

}  // namespace Shoal::Format
