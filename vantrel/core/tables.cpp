// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "pallo/exception.h"

namespace Vantrel {

EntryConfig readEntry(TableConfig const& table, EntryKey const& key) {
  try {
    return table.entry(key);
  } catch (Pallo::CorruptionDetectedException const& damage) {
    table.corruptionDetected(damage.what());
    return {};
  }
}

EntryConfig peekEntry(TableConfig const& table, EntryKey const& key) {
  try {
    return table.peek(key);
  } catch (Pallo::CorruptionDetectedException const&) {
    return {};
  } catch (Pallo::InvalidSizeException const&) {
    return {};
  }
}

}  // namespace Vantrel

namespace Shoal {

using Vantrel::EntryConfig;
using Vantrel::EntryStatus;

namespace {

using Indexes = EntryConfig::TableIndexes;
using Data = EntryConfig::Data;

constexpr std::size_t tableIndexAt = 28;  // their count, and behind it the elements
constexpr std::size_t dataAt = 100;
constexpr std::size_t fewestHeadWords = (tableIndexAt + Indexes::elementsAt) / 8;
constexpr std::size_t tailBegin = RecordTraits<EntryConfig>::tailAt * 8;
constexpr std::size_t indexesInHead = Indexes::capacity - 1;
constexpr U16 deleteMarker = 1;

constexpr U32 headWords(U32 indexes) {
  return static_cast<U32>(fewestHeadWords) + (std::min<U32>(indexes, indexesInHead) + 1) / 2;
}

[[noreturn]] void throwTooShort(Extent extent) {
  throw Pallo::CorruptionDetectedException(
      fmt::format("a record has {} and {} words, too few for its counts", extent.head, extent.tail));
}

// Throws the array's own error when the count is beyond its capacity.
template <class Array>
void checkCount(Array const& array, std::size_t readable) {
  if (array.count() > Array::capacity) [[unlikely]]
    Array().set(reinterpret_cast<std::byte const*>(&array) + Array::elementsAt, array.count(), readable);
}

}  // namespace

// What it takes for EntryConfig to lie in memory as its image does.
struct RecordTraits<EntryConfig>::Layout {
  static_assert(offsetof(EntryConfig, key_) == 0 && offsetof(EntryConfig, opId_) == 8 &&
                offsetof(EntryConfig, hdl_) == 16 && offsetof(EntryConfig, pg_) == 20 &&
                offsetof(EntryConfig, isDel_) == 22 && offsetof(EntryConfig, prio_) == 24 &&
                offsetof(EntryConfig, tableIndex_) == tableIndexAt &&
                offsetof(EntryConfig, data_) == dataAt && dataAt + Data::elementsAt == tailBegin + 8 &&
                alignof(EntryConfig) == alignof(U64) && sizeof(EntryConfig) == bytes);
};

void RecordTraits<EntryConfig>::accept(EntryConfig& record, Extent extent) {
  if (extent.head < fewestHeadWords || extent.tail < 1) [[unlikely]]
    throwTooShort(extent);
  record.isDel_ &= deleteMarker;
  U32 const inARow =
      extent.head == tailAt ? extent.head + extent.tail : extent.head;  // words from the beginning
  checkCount(record.tableIndex_, (inARow - fewestHeadWords) * 8);
  checkCount(record.data_, (extent.tail - 1) * 8);
  if (extent.head < headWords(record.tableIndexs()) || extent.tail < 1 + record.datas()) [[unlikely]]
    throwTooShort(extent);
}

Extent RecordTraits<EntryConfig>::encode(EntryConfig const& record, std::byte* image) {
  Extent const extent{headWords(record.tableIndexs()), 1 + record.datas()};
  auto const* const from = reinterpret_cast<std::byte const*>(&record);
  std::size_t const indexesEnd =
      tableIndexAt + Indexes::elementsAt + record.tableIndex_.elements().size_bytes();
  std::memset(image + tailBegin, 0, sizeof(U32));  // the seventeenth table index
  std::memset(image + (extent.head - 1) * 8, 0, 8);
  std::memcpy(image, from, indexesEnd);
  std::memcpy(image + dataAt, from + dataAt, Data::elementsAt + record.data_.elements().size_bytes());
  return extent;
}

void RecordTraits<EntryStatus>::accept(EntryStatus&, Extent extent) {
  if (extent.head != tailAt) throwTooShort(extent);
}

Extent RecordTraits<EntryStatus>::encode(EntryStatus const& record, std::byte* image) {
  std::memcpy(image, &record, bytes);
  return {tailAt, 0};
}

}  // namespace Shoal
