// SPDX-License-Identifier: Apache-2.0
// The common case of a look-up in one straight line, with no loop but over the record's own rows and no call:
// the key is in its bucket's first line, and its slot at rest.
//
// Look-ups that follow each other overlap: while one waits for memory the processor begins the next, as far
// as its window of instructions reaches. Two of these just fit into it, and what is added here is paid
// several times over. Hence a record is copied from the file to where it is wanted and checked as it passes
// by, one comparison stands for several where it can, and what is not the common case is elsewhere.
//
// Invariants: what is returned is of one time, and the index still named its slot when it was complete.
// Threading: beside the table's writer.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>

#include "pallo/exception.h"
#include "shoal/format.h"
#include "shoal/shared_words.h"
#include "shoal/table.h"
#include "shoal/table_view.h"

namespace Shoal {

// Whether a record type lies in memory as its image. (An image's first word is its key.)
template <class R>
concept LiesAsItsImage = requires(R& record) { RecordTraits<R>::inPlace(record); };

template <class R>
class StraightRead {
  using Traits = RecordTraits<R>;

 public:
  // True when `record` has become the key's record. False when anything else than the common case may be, and
  // `record` is without meaning.
  using Function = bool (*)(TableView& view, R& record, U64 key);
  static Function forThisProcessor() {
#ifdef SHOAL_VECTORS
    if (WideWords::areSupported()) return wide;
#endif
    return narrow;
  }
  static bool narrow(TableView& view, R& record, U64 key) {
    if constexpr (LiesAsItsImage<R>) return inPlace<Words>(view, record, key);
    return overCopy(view, record, key);
  }
  // The same by a given way to look at words (shared_words.h).
  template <class W>
  [[gnu::always_inline]] static bool inPlace(TableView& view, R& record, U64 key) {
    constexpr U64 fixedRows = Format::rowsOfImage(Traits::fixedBytes);
    static_assert(Format::imageBytesInRows(fixedRows) == Traits::fixedBytes);
    static_assert(Format::imageBytesInRows(Format::rowsOfImage(Traits::bytes)) == sizeof(R));
    Found found;
    if (!find<W>(view, key, found)) return false;
    // At rest, not too short and not too long, in one comparison.
    constexpr U64 fewest = Format::fewestWords(fixedRows);
    U64 const above = Format::wordsAtRest(found.state) - fewest;
    if (above > imageWords - fewest) return false;
    U64 const rows = fixedRows + above / Format::rowWords;
    std::byte* const image = Traits::inPlace(record);
    std::memcpy(image, &key, sizeof key);
    U64 const checksum = W::template copyRows<fixedRows>(found.slot, image + sizeof key, rows);
    return stands<W>(found, checksum, key) && Traits::isComplete(record, Format::imageWordsInRows(rows));
  }
  // What to read to.
  static R blank() {
    if constexpr (LiesAsItsImage<R>) return Traits::unset();
    return Traits::empty();
  }

  // The same over a copy of the image: for types that lie in memory otherwise, and for records that end
  // before the fixed bytes do, or in zeroes that the file does not keep.
  [[gnu::noinline]] static bool overCopy(TableView& view, R& record, U64 key) {
    Found found;
    if (!find<Words>(view, key, found) || Format::wordsAtRest(found.state) > imageWords) return false;
    U64 const rows = Format::rows(found.state);
    std::byte* const image = view.scratch_.data();
    std::memcpy(image, &key, sizeof key);
    U64 const checksum = Words::copyRows(found.slot, image + sizeof key, rows);
    bool const slotKeyIs = Words::is(found.slot + 2, key);
    if (!stands<Words>(found, checksum, key) || !slotKeyIs) return false;
    view.clearScratchBehind(rows);
    try {
      record = Traits::decode(image);
    } catch (Pallo::InvalidSizeException const&) {
      return false;
    }
    return true;
  }

 private:
  static constexpr U64 imageWords = (Traits::bytes + 7) / 8;

  struct Found {
    std::atomic<U64> const* named;
    U64 entry;
    std::atomic<U64> const* slot;
    U64 state;
  };

#ifdef SHOAL_VECTORS
  [[gnu::target("avx2,bmi,bmi2")]] static bool wide(TableView& view, R& record, U64 key) {
    if constexpr (LiesAsItsImage<R>) return inPlace<WideWords>(view, record, key);
    return overCopy(view, record, key);
  }
#endif

  // The slot of the entry at which the walk stands, or of the first entry of the key's tag in its bucket's
  // line.
  template <class W>
  [[gnu::always_inline]] static bool find(TableView& view, U64 key, Found& found) {
    std::atomic<U64> const* named = nullptr;
    if (view.visited_.key == key && view.visited_.word) [[unlikely]] {
      named = view.visited_.word;
    } else {
      if (!W::is(view.word(Format::bucketsAt), view.bucketsWord_)) return false;
      W::fence();
      U64 const hashed = view.hash(key);
      std::atomic<U64> const* const line = view.firstLine(hashed);
      unsigned const candidates = line ? W::entriesOfTag(line, Format::tag(hashed)) : 0;
      if (candidates == 0) return false;
      named = line + std::countr_zero(candidates);
    }
    U64 const entry = W::load(named);
    U64 const unit = Format::entryUnit(entry);
    if (!Format::entryIntact(entry) || unit >= view.unitsEnd_) return false;
    std::atomic<U64> const* const slot = view.word(unit * Format::unitBytes);
    found = {named, entry, slot, W::load(slot + 1)};
    return true;
  }

  // What was copied is of one time, and by its first word the key's; and the index still names the slot.
  template <class W>
  [[gnu::always_inline]] static bool stands(Found const& found, U64 checksum, U64 key) {
    if (!W::is(found.slot + 3, key) || !W::is(found.slot, checksum)) return false;
    W::fence();
    return W::is(found.slot + 1, found.state) && W::is(found.named, found.entry);
  }
};

}  // namespace Shoal
