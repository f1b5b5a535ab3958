// SPDX-License-Identifier: Apache-2.0
#include "hw/contents_file.h"

#include <cstring>
#include <optional>

#include "pallo/exception.h"

namespace Shoal {

void RecordTraits<Hw::Slot>::accept(Hw::Slot& record, Extent extent) {
  if (extent.head == 0) throw Pallo::CorruptionDetectedException("a slot's record has no position");
  Entry::accept(record.entry, {extent.head - 1, extent.tail});
}

Extent RecordTraits<Hw::Slot>::encode(Hw::Slot const& record, std::byte* image) {
  std::memcpy(image, &record.ti, sizeof record.ti);
  Extent const entry = Entry::encode(record.entry, image + sizeof record.ti);
  return {entry.head + 1, entry.tail};
}

}  // namespace Shoal

namespace Hw {

using Vantrel::EntryConfig;

static_assert(sizeof(Slot) == Shoal::RecordTraits<Slot>::bytes);

ContentsFile::ContentsFile(std::string const& path) : table_(Ostra::make<Shoal::WriterTable<Slot>>(path)) {}

void ContentsFile::each(std::function<void(U32 ti, EntryConfig const* entry)> const& visit) const {
  for (auto at = table_->first(); at; at = table_->next(*at)) {
    auto const ti = static_cast<U32>(at->key.value());
    std::optional<Slot> slot;
    try {
      slot = table_->entry(at->key);
    } catch (Pallo::CorruptionDetectedException const&) {
    } catch (Pallo::InvalidSizeException const&) {
    }
    visit(ti, slot ? &slot->entry : nullptr);
  }
}

void ContentsFile::holds(U32 ti, EntryConfig const& entry) { table_->entryIs({ti, entry}); }
void ContentsFile::isFree(U32 ti) { table_->entryDel(Position(ti)); }

}  // namespace Hw
