// SPDX-License-Identifier: Apache-2.0
// Looking at several words of a shared file at once: a slot's to copy them, an index line's for a tag.
//
// Instructions that wait for a word that is not in the cache fill the processor's window, and the next
// look-up begins the later: the fewer they are, the further look-ups that follow each other overlap.
//
// Words is for every processor, WideWords for those with AVX2, and what they return is the same.
//
// Invariants: each single word is read whole; two words may be of different times. Who reads a slot sees by
//   its state and its checksum whether it holds together; an entry is read again by itself before it is
//   used. What is read here is read after all that was read before and before all that is read after.
// Threading: beside the table's writer. Under the thread sanitizer, which knows single words only, and on
//   other processors, one word at a time.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>

#include "shoal/checksum.h"
#include "shoal/format.h"

#if defined(__SSE2__) && !defined(__SANITIZE_THREAD__)
#define SHOAL_VECTORS 1
#include <immintrin.h>
#endif

namespace Shoal {

#ifdef SHOAL_VECTORS

struct Words {
  [[gnu::always_inline]] static U64 load(std::atomic<U64> const* word) {
    return word->load(std::memory_order_acquire);
  }
  // Whether a word has this value now. What is read later may be read before it unless a fence() lies
  // between. (An atomic load would not be part of the comparison, but an instruction of its own.)
  [[gnu::always_inline]] static bool is(std::atomic<U64> const* word, U64 value) {
    return *reinterpret_cast<U64 const*>(word) == value;
  }
  [[gnu::always_inline]] static void fence() { std::atomic_thread_fence(std::memory_order_acquire); }

  // Copies a slot's rows but for the first, that is, its image from the second word on. Returns the checksum
  // of all. There are at least so many.
  template <U64 atLeast = 1>
  static U64 copyRows(std::atomic<U64> const* slot, std::byte* to, U64 rows) {
    auto const* from = reinterpret_cast<__m128i const*>(slot);
    __m128i low = _mm_load_si128(from);
    __m128i high = _mm_load_si128(from + 1);
    low = folded(_mm_castpd_si128(
        _mm_move_sd(_mm_castsi128_pd(low), _mm_castsi128_pd(_mm_cvtsi64_si128(Checksum::start)))));
    high = folded(high);
    __m128i lows = low;
    __m128i highs = high;
    auto* const target = reinterpret_cast<__m128i*>(to);
    auto const copyRow = [&](U64 i) {
      __m128i const left = _mm_load_si128(from + 2 * i);
      __m128i const right = _mm_load_si128(from + 2 * i + 1);
      _mm_storeu_si128(target + 2 * i - 2, left);
      _mm_storeu_si128(target + 2 * i - 1, right);
      low = _mm_add_epi64(low, folded(left));
      high = _mm_add_epi64(high, folded(right));
      lows = _mm_add_epi64(lows, low);
      highs = _mm_add_epi64(highs, high);
    };
#pragma GCC unroll 8
    for (U64 i = 1; i < atLeast; ++i) copyRow(i);
    for (U64 i = atLeast; i < rows; ++i) copyRow(i);
    std::atomic_thread_fence(std::memory_order_acquire);
    return checksum(_mm_add_epi64(low, _mm_slli_epi64(lows, 1)),
                    _mm_add_epi64(high, _mm_slli_epi64(highs, 1)));
  }

  // One bit for each entry of the line that carries the tag, told without a branch at each, which would be
  // guessed wrong every other time and cost more than the rest of a look-up.
  static unsigned entriesOfTag(std::atomic<U64> const* line, U64 tag) {
    // What is below the tag in an entry's upper half is shifted out.
    __m128i const pattern = _mm_set1_epi32(static_cast<int>(tag));
    unsigned const found = lanes(_mm_cmpeq_epi32(_mm_srli_epi32(halves<upper>(line), 16), pattern),
                                 _mm_cmpeq_epi32(_mm_srli_epi32(halves<upper>(line + 4), 16), pattern));
    std::atomic_thread_fence(std::memory_order_acquire);
    return found & Format::everyEntry;
  }

  // One bit for each entry of the line that there is.
  static unsigned entriesPresent(std::atomic<U64> const* line) {
    unsigned const absent = lanes(areZero(line), areZero(line + 4));
    std::atomic_thread_fence(std::memory_order_acquire);
    return ~absent & Format::everyEntry;
  }

 private:
  friend struct WideWords;
  static constexpr int upper = 0xDD;
  static constexpr int lower = 0x88;

  [[gnu::always_inline]] static __m128i folded(__m128i words) {
    return _mm_xor_si128(words, _mm_srli_epi64(words, 32));
  }
  // Of the sums of columns 0 and 1, and of columns 2 and 3.
  [[gnu::always_inline]] static U64 checksum(__m128i low, __m128i high) {
    __m128i const both = _mm_add_epi64(_mm_add_epi64(low, high), _mm_slli_epi64(high, Checksum::upperShift));
    __m128i const odd = _mm_unpackhi_epi64(both, both);
    __m128i const all = _mm_add_epi64(_mm_add_epi64(both, odd), _mm_slli_epi64(odd, Checksum::oddShift));
    return static_cast<U64>(_mm_cvtsi128_si64(all));
  }
  // The halves of four words, beside each other.
  template <int which>
  [[gnu::always_inline]] static __m128i halves(std::atomic<U64> const* words) {
    auto const* pair = reinterpret_cast<float const*>(words);
    return _mm_castps_si128(_mm_shuffle_ps(_mm_load_ps(pair), _mm_load_ps(pair + 4), which));
  }
  [[gnu::always_inline]] static __m128i areZero(std::atomic<U64> const* words) {
    return _mm_cmpeq_epi32(_mm_or_si128(halves<upper>(words), halves<lower>(words)), _mm_setzero_si128());
  }
  // One bit for each of eight comparisons that held.
  [[gnu::always_inline]] static unsigned lanes(__m128i first, __m128i second) {
    return static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(first))) |
           static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(second))) << 4;
  }
};

struct WideWords {
  static bool areSupported() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
  }
  [[gnu::always_inline]] static U64 load(std::atomic<U64> const* word) { return Words::load(word); }
  [[gnu::always_inline]] static bool is(std::atomic<U64> const* word, U64 value) {
    return Words::is(word, value);
  }
  [[gnu::always_inline]] static void fence() { Words::fence(); }

  template <U64 atLeast = 1>
  [[gnu::target("avx2")]] static U64 copyRows(std::atomic<U64> const* slot, std::byte* to, U64 rows) {
    auto const* from = reinterpret_cast<__m256i const*>(slot);
    auto* const target = reinterpret_cast<__m256i*>(to);
    __m256i const head = _mm256_load_si256(from);
    __m256i first = folded(_mm256_blend_epi32(head, _mm256_set1_epi64x(Checksum::start), 3));
    __m256i second = first;
#pragma GCC unroll 8
    for (U64 i = 1; i < atLeast; ++i) copyRow(from + i, target + i - 1, first, second);
    for (U64 i = atLeast; i < rows; ++i) copyRow(from + i, target + i - 1, first, second);
    std::atomic_thread_fence(std::memory_order_acquire);
    __m256i const sums = _mm256_add_epi64(first, _mm256_slli_epi64(second, 1));
    return Words::checksum(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
  }

  [[gnu::target("avx2")]] static unsigned entriesOfTag(std::atomic<U64> const* line, U64 tag) {
    auto const* four = reinterpret_cast<float const*>(line);
    // Upper halves of words 0 1 4 5 2 3 6 7, then in order.
    __m256 const mixed = _mm256_shuffle_ps(_mm256_load_ps(four), _mm256_load_ps(four + 8), Words::upper);
    __m256i const uppers = _mm256_permute4x64_epi64(_mm256_castps_si256(mixed), 0xD8);
    __m256i const equal =
        _mm256_cmpeq_epi32(_mm256_srli_epi32(uppers, 16), _mm256_set1_epi32(static_cast<int>(tag)));
    unsigned const found = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(equal)));
    std::atomic_thread_fence(std::memory_order_acquire);
    return found & Format::everyEntry;
  }

 private:
  [[gnu::target("avx2"), gnu::always_inline]] static void copyRow(__m256i const* from, __m256i* to,
                                                                  __m256i& first, __m256i& second) {
    __m256i const row = _mm256_load_si256(from);
    _mm256_storeu_si256(to, row);
    first = _mm256_add_epi64(first, folded(row));
    second = _mm256_add_epi64(second, first);
  }
  [[gnu::target("avx2"), gnu::always_inline]] static __m256i folded(__m256i words) {
    return _mm256_xor_si256(words, _mm256_srli_epi64(words, 32));
  }
};

#else

struct Words {
  static U64 load(std::atomic<U64> const* word) { return word->load(std::memory_order_acquire); }
  static bool is(std::atomic<U64> const* word, U64 value) {
    return word->load(std::memory_order_acquire) == value;
  }
  static void fence() {}
  template <U64 = 1>
  static U64 copyRows(std::atomic<U64> const* slot, std::byte* to, U64 rows) {
    Checksum::Sums sums;
    for (U64 i = 0; i < rows; ++i) {
      std::array<U64, Format::rowWords> row;
      for (U64 j = 0; j < row.size(); ++j) row[j] = slot[i * row.size() + j].load(std::memory_order_acquire);
      if (i == 0)
        row[0] = Checksum::start;
      else
        std::memcpy(to + (i - 1) * sizeof row, row.data(), sizeof row);
      Checksum::addRow(sums, row.data());
    }
    return Checksum::value(sums);
  }
  static unsigned entriesOfTag(std::atomic<U64> const* line, U64 tag) {
    unsigned found = 0;
    for (unsigned i = 0; i < Format::entriesPerLine; ++i)
      found |= unsigned{Format::entryTag(line[i].load(std::memory_order_acquire)) == tag} << i;
    return found;
  }
  static unsigned entriesPresent(std::atomic<U64> const* line) {
    unsigned found = 0;
    for (unsigned i = 0; i < Format::entriesPerLine; ++i)
      found |= unsigned{line[i].load(std::memory_order_acquire) != 0} << i;
    return found;
  }
};

#endif

}  // namespace Shoal
