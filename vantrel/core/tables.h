// SPDX-License-Identifier: Apache-2.0
// The two tables between producer and engine, and how their records lie in them.
//
// Image of an EntryConfig, 616 bytes, host byte order (x86-64: little-endian):
//   0 key 8 | 8 opId 8 | 16 hdl 4 | 20 pg 2 | 22 flags 2 | 24 prio 4 | 28 tableIndex count 4
//   32 tableIndex 17 x 4 | 100 data count 4 | 104 data 64 x 8
// Bit 0 of flags is the delete marker; the other bits are zero. Elements beyond a count are zero.
// Image of an EntryStatus, 16 bytes: 0 key 8 | 8 opId 8.
//
// A table file stores only the used words of an image: the head up to the last table index, and the tail,
// which begins at 96 with the seventeenth table index, up to the last data word.
//
// Invariants: a record lies in memory as its image does; equal records have equal images.
// Threading: none of its own; a table belongs to its thread.
// Cost: only the used words are copied, not the capacity of the arrays. A record is read from the file
//   straight into the caller's variable.
// Errors: Pallo::InvalidSizeException for a count beyond its array, Pallo::CorruptionDetectedException for an
//   image that ends too early. readEntry() reports the latter, as all damage but a wrong count, to the table.
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
  static constexpr std::size_t tailAt = 12;
  static Key key(Vantrel::EntryConfig const& r) { return r.key(); }
  static Vantrel::EntryConfig empty() { return {}; }
  static Vantrel::EntryConfig unset() { return Vantrel::EntryConfig(Vantrel::EntryConfig::Unset()); }
  static std::byte* image(Vantrel::EntryConfig& r) { return reinterpret_cast<std::byte*>(&r); }
  static VANTREL_API void accept(Vantrel::EntryConfig& record, Extent extent);
  static VANTREL_API Extent encode(Vantrel::EntryConfig const& record, std::byte* image);

 private:
  struct Layout;
};

template <>
struct RecordTraits<Vantrel::EntryStatus> {
  using Key = Vantrel::EntryKey;
  static constexpr std::string_view typeName = "EntryStatus";
  static constexpr U32 version = 1;
  static constexpr std::size_t bytes = 16;
  static constexpr std::size_t tailAt = 2;
  static Key key(Vantrel::EntryStatus const& r) { return r.key(); }
  static Vantrel::EntryStatus empty() { return {}; }
  static Vantrel::EntryStatus unset() { return {}; }
  static std::byte* image(Vantrel::EntryStatus& r) { return reinterpret_cast<std::byte*>(&r); }
  static VANTREL_API void accept(Vantrel::EntryStatus& record, Extent extent);
  static VANTREL_API Extent encode(Vantrel::EntryStatus const& record, std::byte* image);
};

}  // namespace Shoal

namespace Vantrel {

using TableConfig = Shoal::Table<EntryConfig>;
using TableStatus = Shoal::Table<EntryStatus>;

// Returns the key's record. Damage is reported to the table and reads as the empty configuration.
VANTREL_API EntryConfig readEntry(TableConfig const& table, EntryKey const& key);
// The same for diagnostics: damage, a wrong count included, reads as the empty configuration and is not
// reported.
VANTREL_API EntryConfig peekEntry(TableConfig const& table, EntryKey const& key);

}  // namespace Vantrel
