// SPDX-License-Identifier: Apache-2.0
// Looking at several words of a shared file at once: a slot's to copy them, an index line's for a tag.
//
// Instructions that wait for a word that is not in the cache fill the processor's window, and the next
// look-up begins the later: the fewer they are, the further look-ups that follow each other overlap.
//
// Invariants: each single word is read whole; two words may be of different times. Who reads a slot sees by
//   its state and its checksum whether it holds together; an entry is read again by itself before it is
//   used. What is read here is read after all that was read before and before all that is read after.
// Threading: beside the table's writer. Under the thread sanitizer, which knows single words only, and on
//   other processors, one word at a time.
#pragma once

#include <atomic>

#include "shoal/checksum.h"
#include "shoal/format.h"

#if defined(__SSE2__) && !defined(__SANITIZE_THREAD__)
#define SHOAL_WORD_PAIRS 1
#include <emmintrin.h>
#endif

namespace Shoal {

// Copies the slot's first `pairs` times two words to `to`, aligned to 16 bytes. Returns the checksum of the
// copy.
inline U64 copySlotWords(std::atomic<U64> const* slot, U64* to, U64 pairs) {
#ifdef SHOAL_WORD_PAIRS
  auto const* from = reinterpret_cast<__m128i const*>(slot);
  auto* target = reinterpret_cast<__m128i*>(to);
  __m128i const first = _mm_load_si128(from);
  _mm_store_si128(target, first);
  auto const folded = [](__m128i words) { return _mm_xor_si128(words, _mm_srli_epi64(words, 32)); };
  __m128i sum = folded(_mm_unpackhi_epi64(_mm_setzero_si128(), first));
  __m128i sums = sum;
#pragma GCC unroll 3
  for (U64 i = 1; i < pairs; ++i) {
    __m128i const words = _mm_load_si128(from + i);
    _mm_store_si128(target + i, words);
    sum = _mm_add_epi64(sum, folded(words));
    sums = _mm_add_epi64(sums, sum);
  }
  std::atomic_thread_fence(std::memory_order_acquire);
  auto const left = [](__m128i words) { return static_cast<U64>(_mm_cvtsi128_si64(words)); };
  auto const right = [left](__m128i words) { return left(_mm_unpackhi_epi64(words, words)); };
  return Checksum::value({left(sum), right(sum), left(sums), right(sums)});
#else
  for (U64 i = 0; i < 2 * pairs; ++i) to[i] = slot[i].load(std::memory_order_acquire);
  return Checksum::of(to, pairs);
#endif
}

// One bit for each entry of the line that carries the tag, told without a branch at each, which would be
// guessed wrong every other time and cost more than the rest of a look-up.
inline unsigned entriesOfTag(std::atomic<U64> const* line, U64 tag) {
  unsigned found = 0;
#ifdef SHOAL_WORD_PAIRS
  // The upper halves of four words beside each other; what is above the tag in them is shifted out.
  auto const upper = [line](int i) {
    auto const* pair = reinterpret_cast<float const*>(line + i);
    return _mm_castps_si128(_mm_shuffle_ps(_mm_load_ps(pair), _mm_load_ps(pair + 4), 0xDD));
  };
  __m128i const pattern = _mm_set1_epi32(static_cast<int>(tag << 8));
  __m128i const first = _mm_cmpeq_epi32(_mm_slli_epi32(upper(0), 8), pattern);
  __m128i const second = _mm_cmpeq_epi32(_mm_slli_epi32(upper(4), 8), pattern);
  found = static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(first))) |
          static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(second))) << 4;
  std::atomic_thread_fence(std::memory_order_acquire);
#else
  for (unsigned i = 0; i < Format::entriesPerLine; ++i) {
    U64 const entry = line[i].load(std::memory_order_acquire);
    found |= unsigned{Format::entryTag(entry) == tag} << i;
  }
#endif
  return found & ((1U << Format::entriesPerLine) - 1);
}

}  // namespace Shoal
