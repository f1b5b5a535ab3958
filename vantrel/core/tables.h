// SPDX-License-Identifier: Apache-2.0
// The two tables between producer and engine, and how their records lie in them.
//
// Image of an EntryConfig, 616 bytes, host byte order (x86-64: little-endian):
//   0 key 8 | 8 opId 8 | 16 hdl 4 | 20 pg 2 | 22 flags 2 | 24 prio 4 | 28 tableIndex count 4
//   32 tableIndex 17 x 4 | 100 data count 4 | 104 data 64 x 8
// Bit 0 of flags is the delete marker; the other bits are zero. Elements beyond a count are zero.
// Image of an EntryStatus, 16 bytes: 0 key 8 | 8 opId 8.
//
// Invariants: decode(encode(r)) == r, and equal records have equal images.
// Threading: none of its own; a table belongs to its thread.
// Cost: what is copied is what counts, not the capacity of the arrays; an image is zero beyond. An
//   EntryConfig is read from a file straight to where it is wanted.
// Errors: Pallo::InvalidSizeException from decode(), and so from readEntry(), for a count beyond its array.
//   Other damage is reported to the table by readEntry().
#pragma once

#include <cstddef>
#include <string_view>

#include "shoal/table.h"
#include "vantrel/core/entry.h"

namespace Shoal {

template <>
struct RecordTraits<Vantrel::EntryConfig> {
  using Key = Vantrel::EntryKey;
  static constexpr std::string_view typeName = "EntryConfig";
  static constexpr U32 version = 1;
  static constexpr std::size_t bytes = 616;
  static Key key(Vantrel::EntryConfig const& r) { return r.key(); }
  static Vantrel::EntryConfig empty() { return {}; }
  static VANTREL_API void encode(Vantrel::EntryConfig const& record, std::byte* image);
  static VANTREL_API Vantrel::EntryConfig decode(std::byte const* image);

  static constexpr std::size_t fixedBytes = 104;  // all but the data words
  static Vantrel::EntryConfig unset() { return Vantrel::EntryConfig(Vantrel::EntryConfig::Unset()); }
  static std::byte* inPlace(Vantrel::EntryConfig& r) { return reinterpret_cast<std::byte*>(&r); }
  static bool isComplete(Vantrel::EntryConfig const& r, U64 words) {
    return r.isDel_ <= deleteMarker && r.tableIndex_.count() <= r.tableIndex_.capacity &&
           r.data_.count() <= words - fixedBytes / sizeof(U64);
  }

 private:
  static constexpr U16 deleteMarker = 1;
  static constexpr std::size_t tableIndexAt = 28;
  static constexpr std::size_t dataAt = 100;
  static constexpr bool liesAsItsImage();
};

constexpr bool RecordTraits<Vantrel::EntryConfig>::liesAsItsImage() {
  using Vantrel::EntryConfig;
  return offsetof(EntryConfig, key_) == 0 && offsetof(EntryConfig, opId_) == 8 &&
         offsetof(EntryConfig, hdl_) == 16 && offsetof(EntryConfig, pg_) == 20 &&
         offsetof(EntryConfig, isDel_) == 22 && offsetof(EntryConfig, prio_) == 24 &&
         offsetof(EntryConfig, tableIndex_) == tableIndexAt && offsetof(EntryConfig, data_) == dataAt &&
         dataAt + EntryConfig::Data::elementsAt == fixedBytes && fixedBytes % alignof(U64) == 0 &&
         alignof(EntryConfig) == alignof(U64) && sizeof(EntryConfig) == bytes;
}

template <>
struct RecordTraits<Vantrel::EntryStatus> {
  using Key = Vantrel::EntryKey;
  static constexpr std::string_view typeName = "EntryStatus";
  static constexpr U32 version = 1;
  static constexpr std::size_t bytes = 16;
  static Key key(Vantrel::EntryStatus const& r) { return r.key(); }
  static Vantrel::EntryStatus empty() { return {}; }
  static VANTREL_API void encode(Vantrel::EntryStatus const& record, std::byte* image);
  static VANTREL_API Vantrel::EntryStatus decode(std::byte const* image);
};

}  // namespace Shoal

namespace Vantrel {

using TableConfig = Shoal::Table<EntryConfig>;
using TableStatus = Shoal::Table<EntryStatus>;

// The key's record. Damage is reported to the table and reads as the empty configuration.
VANTREL_API EntryConfig readEntry(TableConfig const& table, EntryKey const& key);
// The same for who only looks: damage of either kind reads as the empty configuration, and is not reported.
VANTREL_API EntryConfig peekEntry(TableConfig const& table, EntryKey const& key);

}  // namespace Vantrel
