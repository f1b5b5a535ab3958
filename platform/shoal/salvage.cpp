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
        end_(std::min(mapping.fileBytes(), mapping.window())),
        chunks_(end_ > header.chunkStart ? (end_ - header.chunkStart + chunkBytes - 1) / chunkBytes : 0),
        holdsSlots_(chunks_, true),
        room_{header.tailAt, header.imageBytes / 8 - header.tailAt},
        image_(header.imageBytes / 8) {}

  Salvaged run() {
    reportMissingEnd();
    for (U64 const directory :
         {indexDirectoryAt(header_.ringEntries), overflowDirectoryAt(header_.ringEntries)})
      readDirectory(directory);
    for (U64 chunk = 0; chunk < chunks_; ++chunk)
      if (holdsSlots_[chunk]) searchChunk(chunk);
    keepNewest();
    return std::move(found_);
  }

 private:
  Word const* word(U64 offset) const { return reinterpret_cast<Word const*>(base_ + offset); }

  void readDirectory(U64 offset) {
    for (U64 place = offset; place < offset + directoryEntries * 8; place += 8) {
      U64 const entry = word(place)->load();
      auto const chunk = unguard(entry, place);
      if (entry != 0 && chunk && *chunk < chunks_) holdsSlots_[*chunk] = false;
    }
  }

  void reportMissingEnd() {
    auto const chunks = unguard(word(chunksAt)->load(), chunksAt);
    U64 const bytes = chunks ? header_.chunkStart + *chunks * chunkBytes : 0;
    if (end_ < bytes)
      found_.damage.push_back(
          fmt::format("the file is cut short to {} bytes of {}; what was beyond is lost", end_, bytes));
  }

  // A chunk in which nothing was ever written as a record is one of the index, whose directory is damaged.
  void searchChunk(U64 chunk) {
    U64 const begin = header_.chunkStart + chunk * chunkBytes;
    U64 const records = found_.records.size();
    U64 const damaged = found_.damaged.size();
    bool anyFreed = false;
    for (U64 at = begin; at + header_.slotBytes <= begin + chunkBytes && at < end_; at += header_.slotBytes)
      anyFreed |= searchSlot(at) == Slot::Copy::freed;
    if (found_.records.size() == records && !anyFreed && found_.damaged.size() > damaged + 1) {
      found_.damaged.resize(damaged);
      found_.damage.push_back(fmt::format("the chunk at offset {} holds no intact record", begin));
    }
    for (U64 i = damaged; i < found_.damaged.size(); ++i)
      found_.damage.push_back(
          fmt::format("the slot at offset {} is damaged; by its key, which may be what is damaged, a record "
                      "of key {} is lost unless a newer one is in the table",
                      found_.damaged[i].unit * unitBytes, found_.damaged[i].key));
  }

  // What was never written, is half-written by a killed writer or was freed is no record.
  Slot::Copy searchSlot(U64 at) {
    Word const* const slot = word(at);
    U64 state;
    Slot::Copy const copy = Slot::copy(slot, room_, image_.data(), state);
    if (state == 0) return Slot::Copy::overtaken;
    auto const head = unguard(word(headAt)->load(), headAt);
    bool const isUnderWay = copy == Slot::Copy::overtaken && head && generation(state) / 2 == *head + 1;
    if (copy == Slot::Copy::whole) {
      found_.newest = std::max(found_.newest, generation(state) / 2);
      found_.records.push_back({image_[0], generation(state), at / unitBytes});
    } else if (copy != Slot::Copy::freed && !isUnderWay) {
      found_.damaged.push_back({slot[2].load(), generation(state), at / unitBytes});
    }
    return copy;
  }

  void keepNewest() {
    auto& records = found_.records;
    std::ranges::sort(records, [](auto const& a, auto const& b) {
      return a.key != b.key ? a.key < b.key : a.generation > b.generation;
    });
    auto const rest = std::ranges::unique(records, {}, &Salvaged::Slot::key);
    records.erase(rest.begin(), rest.end());
  }

  Header const& header_;
  std::byte const* const base_;
  U64 const end_;  // of the file
  U64 const chunks_;
  std::vector<bool> holdsSlots_;
  Slot::Room const room_;
  std::vector<U64> image_;
  Salvaged found_;
};

}  // namespace

Salvaged salvage(Mapping const& mapping, Header const& header) { return Salvage(mapping, header).run(); }

}  // namespace Shoal
