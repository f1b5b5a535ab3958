// SPDX-License-Identifier: Apache-2.0
// From a record type to the untyped table below it, and back.
#pragma once

#include "pallo/exception.h"
#include "shoal/table.h"
#include "shoal/table_view.h"

namespace Shoal {

template <class R>
constexpr Shape shapeOf() {
  return {RecordTraits<R>::typeName, RecordTraits<R>::version, RecordTraits<R>::bytes};
}

// A copy of the record, or the empty record. A slot that holds another key's record is damage.
template <class R>
R recordOf(TableView& view, typename RecordTraits<R>::Key const& key) {
  std::byte const* const image = view.read(key.value());
  R record = image ? RecordTraits<R>::decode(image) : RecordTraits<R>::empty();
  if (image && RecordTraits<R>::key(record) != key)
    throw Pallo::CorruptionDetectedException(view.damage("a record carries the key of another"));
  return record;
}

}  // namespace Shoal
