// SPDX-License-Identifier: Apache-2.0
// One slot, read as every reader of a seqlock reads: generation, copy, generation; and the checksum in
// between.
//
//   | checksum | state | key | image 1 | image 2 | ...          an image's first word is its key
//
//   writer:  state = odd generation    words    checksum    state = even generation, length
//   reader: state words and their checksum fence state again: the same and even, or it was overtaken
//
// Invariants: a copy that is `whole` is what one write left. What the slot says is not trusted: no word
//   beyond the given length is read or written.
// Threading: any number of readers beside one writer. Every access is a relaxed or releasing atomic of one
//   word, ordered by fences: what the thread sanitizer checks is what runs.
// Cost: a load, a store and a step of the checksum for each word in use.
#pragma once

#include <atomic>

#include "shoal/checksum.h"
#include "shoal/format.h"

namespace Shoal::Slot {

using Words = std::atomic<U64> const*;

enum class Copy {
  whole,
  overtaken,  // the writer was or is at work on it
  freed,      // its record was removed or replaced
  damaged
};

// The words of an image of one record type.
struct Room {
  U64 head;  // and where the tail begins
  U64 tail;
};

// Over the state and the words in use, each of which `word(inSlot, inImage)` returns, asked for once and in
// order.
template <class Step, class Word>
[[gnu::always_inline]] inline U64 checksum(U64 state, U64 tailAt, Word word) {
  Extent const extent = Format::extent(state);
  U64 crc = Step::step(Checksum::start, state);
  for (U64 i = 0; i < extent.head; ++i) crc = Step::step(crc, word(i, i));
  for (U64 i = 0; i < extent.tail; ++i) crc = Step::step(crc, word(extent.head + i, tailAt + i));
  return crc;
}
template <class Word>
[[gnu::always_inline]] inline U64 checksum(U64 state, U64 tailAt, Word word) {
  if (Checksum::hasInstruction) [[likely]]
    return checksum<Checksum::InstructionStep>(state, tailAt, word);
  return checksum<Checksum::TableStep>(state, tailAt, word);
}

// Copies a slot's record into an image; `state` says what of that is in use. `named()` says whether the index
// still names the slot. It is asked before the last look at the state, of a freed slot too: one that was
// freed may have been published again in between.
template <class Named>
[[gnu::always_inline]] inline Copy copy(Words slot, Room room, U64* image, U64& state, Named named) {
  U64 const before = state = slot[1].load(std::memory_order_acquire);
  Extent const extent = Format::extent(before);
  if (Format::isWriting(before)) return Copy::overtaken;
  bool isWhole = false;
  if (extent.head <= room.head && extent.tail <= room.tail && !extent.isEmpty()) [[likely]] {
    U64 const checksum = Slot::checksum(before, room.head, [=](U64 inSlot, U64 inImage) {
      return image[inImage] = slot[2 + inSlot].load(std::memory_order_relaxed);
    });
    isWhole = checksum == slot[0].load(std::memory_order_relaxed);
  }
  std::atomic_thread_fence(std::memory_order_acquire);
  if (!named() || slot[1].load(std::memory_order_relaxed) != before) return Copy::overtaken;
  if (isWhole) [[likely]]
    return Copy::whole;
  return Format::isFreed(before) ? Copy::freed : Copy::damaged;
}
[[gnu::always_inline]] inline Copy copy(Words slot, Room room, U64* image, U64& state) {
  return copy(slot, room, image, state, [] { return true; });
}

}  // namespace Shoal::Slot
