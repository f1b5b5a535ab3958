// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/tables.h"

#include <cstring>

#include "pallo/exception.h"

namespace {

template <class T>
T get(std::byte const* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}
template <class T>
void put(std::byte* at, T value) {
  std::memcpy(at, &value, sizeof value);
}
// The usual lengths are known when this is compiled, and their copies a few moves; what copies any length
// takes longer to begin than they do.
template <class Array>
void getArray(std::byte const* image, std::size_t at, std::size_t imageBytes, Array& array) {
  std::byte const* const elements = image + at + Array::elementsAt;
  std::size_t const readable = imageBytes - at - Array::elementsAt;
  switch (U32 const count = get<U32>(image + at)) {
    case 0:
      return array.set(elements, 0, readable);
    case 1:
      return array.set(elements, 1, readable);
    case 2:
      return array.set(elements, 2, readable);
    case 3:
      return array.set(elements, 3, readable);
    case 4:
      return array.set(elements, 4, readable);
    default:
      return array.set(elements, count, readable);
  }
}
template <class Array>
void putArray(std::byte* at, Array const& array) {
  put(at, array.count());
  std::memcpy(at + Array::elementsAt, array.elements().data(), array.elements().size_bytes());
}

}  // namespace

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
    return table.entry(key);
  } catch (Pallo::CorruptionDetectedException const&) {
    return {};
  } catch (Pallo::InvalidSizeException const&) {
    return {};
  }
}

}  // namespace Vantrel

namespace Shoal {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;

void RecordTraits<EntryConfig>::encode(EntryConfig const& record, std::byte* image) {
  static_assert(liesAsItsImage());
  std::memset(image, 0, bytes);
  std::memcpy(image, &record, tableIndexAt);
  putArray(image + tableIndexAt, record.tableIndex_);
  putArray(image + dataAt, record.data_);
}
EntryConfig RecordTraits<EntryConfig>::decode(std::byte const* image) {
  EntryConfig r;
  std::memcpy(inPlace(r), image, tableIndexAt);
  r.isDel_ &= deleteMarker;
  getArray(image, tableIndexAt, bytes, r.tableIndex_);
  getArray(image, dataAt, bytes, r.data_);
  return r;
}

void RecordTraits<EntryStatus>::encode(EntryStatus const& record, std::byte* image) {
  put(image, record.key().value());
  put(image + 8, record.opId().value());
}
EntryStatus RecordTraits<EntryStatus>::decode(std::byte const* image) {
  return {EntryKey(get<U64>(image)), OpId(get<U64>(image + 8))};
}

}  // namespace Shoal
