// SPDX-License-Identifier: Apache-2.0
// The arithmetic of docs/formats/table-file.md: checksums, hashes, lines of the index.
#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <unordered_map>
#include <vector>

#include "fixture.h"
#include "shoal/shared_words.h"

namespace ShoalTest {
namespace {

// A slot of an EntryConfig's size with something in every word.
std::vector<U64> someSlot() {
  std::vector<U64> slot(80);
  std::mt19937_64 random(1);
  for (U64& word : slot) word = random();
  return slot;
}

TEST(Checksum, AnyDamageToOneWordIsSeen) {
  std::vector<U64> slot = someSlot();
  U64 const intact = Shoal::Checksum::of(slot.data(), 20);
  std::mt19937_64 random(2);
  for (std::size_t i = 1; i < slot.size(); ++i) {
    U64 const word = slot[i];
    for (int n = 0; n < 2000; ++n) {
      slot[i] = n < 64 ? word ^ U64 { 1 } << n : n == 64 ? ~word : n == 65 ? 0 : random();
      ASSERT_TRUE(slot[i] == word || Shoal::Checksum::of(slot.data(), 20) != intact) << i << " " << n;
    }
    slot[i] = word;
  }
}

// A damaged bit adds its word's weight times the change of the folded word, whatever the other words are; a
// bit goes up or down. No two of these changes may cancel.
TEST(Checksum, AnyTwoDamagedBitsAreSeen) {
  std::vector<U64> slot(80, 0);
  U64 const empty = Shoal::Checksum::of(slot.data(), 20);
  std::unordered_map<U64, std::size_t> changes;  // to the bit's number
  for (std::size_t i = 1; i < slot.size(); ++i) {
    slot[i] = 1;
    U64 const weight = Shoal::Checksum::of(slot.data(), 20) - empty;
    slot[i] = 0;
    EXPECT_EQ(weight & 1, 1U);
    for (unsigned bit = 0; bit < 64; ++bit) {
      U64 const high = weight << bit;
      U64 const low = bit < 32 ? 0 : weight << (bit - 32);
      for (U64 const change : {high + low, high - low}) {
        std::size_t const number = i * 64 + bit;
        for (U64 const either : {change, -change}) {
          auto const [at, fresh] = changes.emplace(either, number);
          ASSERT_TRUE(fresh || at->second == number) << number << " and " << at->second;
        }
      }
    }
  }
}

TEST(Checksum, ZeroesAreNotIntact) {
  std::vector<U64> const slot(80, 0);
  for (U64 rows = 1; rows <= 20; ++rows) EXPECT_NE(Shoal::Checksum::of(slot.data(), rows), 0U);
}

using CopyRows = U64 (*)(std::atomic<U64> const*, std::byte*, U64);

void expectCopyAndChecksum(CopyRows copyRows, U64 fewest) {
  alignas(64) std::array<std::atomic<U64>, 80> slot;
  std::array<U64, 80> copy;  // of what lies behind the first row, anywhere
  auto const words = someSlot();
  std::copy(words.begin(), words.end(), slot.begin());
  for (U64 rows = fewest; rows <= 20; ++rows) {
    copy.fill(0);
    EXPECT_EQ(copyRows(slot.data(), reinterpret_cast<std::byte*>(&copy[1]), rows),
              Shoal::Checksum::of(words.data(), rows));
    auto const end = copy.begin() + 1 + 4 * (rows - 1);
    EXPECT_TRUE(std::equal(copy.begin() + 1, end, words.begin() + 4)) << rows;
    EXPECT_EQ(copy[0], 0U);
    EXPECT_TRUE(std::all_of(end, copy.end(), [](U64 word) { return word == 0; })) << rows;
  }
}

TEST(Checksum, TheCopyComputesTheSame) {
  expectCopyAndChecksum(Shoal::Words::copyRows<1>, 1);
  expectCopyAndChecksum(Shoal::Words::copyRows<4>, 4);
}

#ifdef SHOAL_VECTORS
TEST(Checksum, SoDoesTheCopyInWideVectors) {
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "this processor has no AVX2";
  expectCopyAndChecksum(Shoal::WideWords::copyRows<1>, 1);
  expectCopyAndChecksum(Shoal::WideWords::copyRows<4>, 4);
}
#endif

// Keys that producers make: counted, shifted, in fields. In each index line there is room for seven.
TEST(Hash, KeysInAPatternSpreadLikeRandomOnes) {
  std::mt19937_64 random(3);
  using Pattern = U64 (*)(U64);
  std::array const patterns{Pattern{[](U64 i) { return i; }}, Pattern{[](U64 i) { return i << 20; }},
                            Pattern{[](U64 i) { return i << 44; }},
                            Pattern{[](U64 i) { return i % 300 | i / 300 << 32; }},
                            Pattern{[](U64 i) { return i % 20 | i / 20 % 20 << 24 | i / 400 << 48; }}};
  constexpr U64 keys = 10000;
  constexpr U64 buckets = keys * 2 / Shoal::Format::recordsPerTwoBuckets;
  for (Pattern const pattern : patterns) {
    for (int file = 0; file < 50; ++file) {
      std::array<U64, 4> const seed{random(), random(), random(), random()};
      std::vector<U64> held(buckets);
      U64 beside = 0;  // keys for which their bucket's line has no room
      for (U64 i = 0; i < keys; ++i)
        if (++held[Shoal::Format::bucketOf(Shoal::Format::hash(seed, pattern(i)), buckets)] > 7) ++beside;
      ASSERT_LT(beside, keys / 100) << pattern(2) << " file " << file;  // of random keys, one in 200
    }
  }
}

using EntriesOfTag = unsigned (*)(std::atomic<U64> const*, U64);

void expectEntriesOfATag(EntriesOfTag entriesOfTag) {
  alignas(64) std::array<std::atomic<U64>, 8> line;
  for (unsigned set = 0; set < 128; ++set) {
    U64 const hash = 0xABCD000000000000U | set;
    for (unsigned i = 0; i < 7; ++i)
      line[i] = set >> i & 1 ? Shoal::Format::entry(1000 + i, hash) : Shoal::Format::entry(i, ~hash);
    line[7] = U64{0xABCD} << 48;  // a link is no entry
    EXPECT_EQ(entriesOfTag(line.data(), 0xABCD), set);
  }
}

TEST(Line, EntriesOfATagAreFoundWhereverTheyAre) { expectEntriesOfATag(Shoal::Words::entriesOfTag); }

#ifdef SHOAL_VECTORS
TEST(Line, SoTheyAreInWideVectors) {
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "this processor has no AVX2";
  expectEntriesOfATag(Shoal::WideWords::entriesOfTag);
}
#endif

// An entry counts whose either half is something.
TEST(Line, EntriesThereAreCount) {
  alignas(64) std::array<std::atomic<U64>, 8> line;
  for (unsigned set = 0; set < 128; ++set) {
    for (unsigned i = 0; i < 7; ++i) line[i] = set >> i & 1 ? U64{1} << (i * 9) : 0;
    line[7] = ~U64{0};
    EXPECT_EQ(Shoal::Words::entriesPresent(line.data()), set);
  }
}

}  // namespace
}  // namespace ShoalTest
