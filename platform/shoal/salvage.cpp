// SPDX-License-Identifier: Apache-2.0
#include "shoal/salvage.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "shoal/slot.h"

namespace Shoal {

using namespace Format;

namespace {

using Word = std::atomic<U64>;

class Salvage {
 public:
  Salvage(Mapping const& mapping, Header const& header)
      : header_(header),
        base_(mapping.base()),
        chunks_((std::min(mapping.fileBytes(), mapping.window()) - header.chunkStart) / chunkBytes),
        holdsSlots_(chunks_, true),
        room_{header.tailAt, header.imageBytes / 8 - header.tailAt},
        image_(header.imageBytes / 8) {}

  Salvaged run() {
    for (U64 const directory :
         {indexDirectoryAt(header_.ringEntries), overflowDirectoryAt(header_.ringEntries)})
      for (U64 i = 0; i < directoryEntries; ++i)
        if (auto const chunk = unguard(word(directory + i * 8)->load(), directory + i * 8);
            chunk && *chunk < chunks_)
          holdsSlots_[*chunk] = false;
    for (U64 chunk = 0; chunk < chunks_; ++chunk)
      if (holdsSlots_[chunk]) searchChunk(chunk);
    keepNewest();
    return std::move(found_);
  }

 private:
  Word const* word(U64 offset) const { return reinterpret_cast<Word const*>(base_ + offset); }

  void searchChunk(U64 chunk) {
    U64 const begin = header_.chunkStart + chunk * chunkBytes;
    for (U64 at = begin; at + header_.slotBytes <= begin + chunkBytes; at += header_.slotBytes)
      searchSlot(at);
  }

  // What was never written, is being written or was freed is no record.
  void searchSlot(U64 at) {
    Word const* const slot = word(at);
    U64 const state = slot[1].load();
    Extent extent;
    if (state == 0) return;
    found_.newest = std::max(found_.newest, generation(state) / 2);
    switch (Slot::copy(slot, room_, image_.data(), extent)) {
      case Slot::Copy::whole:
        found_.records.push_back({image_[0], generation(state), at / unitBytes});
        return;
      case Slot::Copy::damaged:
        found_.damage.push_back(fmt::format(
            "the slot at offset {} is damaged; by its key, which may be what is damaged, a record of "
            "key {} is lost unless a newer one is in the table",
            at, slot[2].load()));
        return;
      case Slot::Copy::overtaken:
      case Slot::Copy::freed:
        return;
    }
  }

  void keepNewest() {
    auto& records = found_.records;
    std::ranges::sort(records, [](auto const& a, auto const& b) {
      return a.key != b.key ? a.key < b.key : a.generation > b.generation;
    });
    auto const rest = std::ranges::unique(records, {}, &Salvaged::Record::key);
    records.erase(rest.begin(), rest.end());
  }

  Header const& header_;
  std::byte const* const base_;
  U64 const chunks_;
  std::vector<bool> holdsSlots_;
  Slot::Room const room_;
  std::vector<U64> image_;
  Salvaged found_;
};

}  // namespace

Salvaged salvage(Mapping const& mapping, Header const& header) { return Salvage(mapping, header).run(); }

}  // namespace Shoal
