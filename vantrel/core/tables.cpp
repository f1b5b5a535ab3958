// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/tables.h"

#include <cstring>

#include "pallo/exception.h"

namespace Vantrel {

// Field by field, in storage order.
struct EntryConfigImageAccess {
  static constexpr U16 deleteMarker = 1;
  static constexpr std::size_t tableIndexAt = 28;
  static constexpr std::size_t dataAt = 100;

  template <class T>
  static T get(std::byte const* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
  }
  template <class T>
  static void put(std::byte* at, T value) {
    std::memcpy(at, &value, sizeof value);
  }
  // The usual lengths are known when this is compiled, and their copies a few moves; what copies any length
  // takes longer to begin than they do.
  template <class Array>
  static void getArray(std::byte const* image, std::size_t at, Array& array) {
    std::byte const* const elements = image + at + sizeof(U32);
    std::size_t const readable = Shoal::RecordTraits<EntryConfig>::bytes - at - sizeof(U32);
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
  static void putArray(std::byte* at, Array const& array) {
    put(at, array.count());
    std::memcpy(at + sizeof(U32), array.elements().data(), array.elements().size_bytes());
  }

  static void encode(EntryConfig const& r, std::byte* image) {
    std::memset(image, 0, Shoal::RecordTraits<EntryConfig>::bytes);
    put(image, r.key_.value());
    put(image + 8, r.opId_.value());
    put(image + 16, r.hdl_);
    put(image + 20, r.pg_);
    put(image + 22, r.isDel_ ? deleteMarker : U16{0});
    put(image + 24, r.prio_);
    putArray(image + tableIndexAt, r.tableIndex_);
    putArray(image + dataAt, r.data_);
  }
  static EntryConfig decode(std::byte const* image) {
    EntryConfig r(EntryKey(get<U64>(image)), OpId(get<U64>(image + 8)), get<U32>(image + 16),
                  get<U16>(image + 20), get<U32>(image + 24));
    r.isDel_ = get<U16>(image + 22) & deleteMarker;
    getArray(image, tableIndexAt, r.tableIndex_);
    getArray(image, dataAt, r.data_);
    return r;
  }
};

EntryConfig readEntry(TableConfig const& table, EntryKey const& key) {
  try {
    return table.entry(key);
  } catch (Pallo::CorruptionDetectedException const& damage) {
    table.corruptionDetected(damage.what());
    return {};
  }
}

}  // namespace Vantrel

namespace Shoal {

using Vantrel::EntryConfig;
using Vantrel::EntryConfigImageAccess;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;

void RecordTraits<EntryConfig>::encode(EntryConfig const& record, std::byte* image) {
  EntryConfigImageAccess::encode(record, image);
}
EntryConfig RecordTraits<EntryConfig>::decode(std::byte const* image) {
  return EntryConfigImageAccess::decode(image);
}

void RecordTraits<EntryStatus>::encode(EntryStatus const& record, std::byte* image) {
  EntryConfigImageAccess::put(image, record.key().value());
  EntryConfigImageAccess::put(image + 8, record.opId().value());
}
EntryStatus RecordTraits<EntryStatus>::decode(std::byte const* image) {
  return {EntryKey(EntryConfigImageAccess::get<U64>(image)),
          OpId(EntryConfigImageAccess::get<U64>(image + 8))};
}

}  // namespace Shoal
