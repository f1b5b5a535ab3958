// SPDX-License-Identifier: Apache-2.0
// The arithmetic of docs/formats/table-file.md: checksums, hashes, lines of the index.
#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <set>
#include <vector>

#include "fixture.h"
#include "shoal/checksum.h"
#include "shoal/slot.h"
#include "shoal/table_view.h"

namespace ShoalTest {
namespace {

using namespace Shoal;
using Format::entriesPerLine;

constexpr Extent whole{12, 65};  // of an EntryConfig
constexpr U64 tailAt = 12;
constexpr U64 wholeState = Format::state(2 * 77, whole);

// Of a state and the words behind it.
U64 checksum(U64 state, std::vector<U64> const& words) {
  return Slot::checksum<Checksum::TableStep>(state, tailAt, [&](U64 inSlot, U64) { return words[inSlot]; });
}
std::vector<U64> someWords() {
  std::vector<U64> words(whole.head + whole.tail);
  std::mt19937_64 random(1);
  for (U64& word : words) word = random();
  return words;
}

TEST(Checksum, ChangesWithEachWord) {
  std::vector<U64> words = someWords();
  U64 const intact = checksum(wholeState, words);
  std::mt19937_64 random(2);
  for (U64& word : words) {
    U64 const was = word;
    for (int n = 0; n < 2000; ++n) {
      word = n == 0 ? ~was : n == 1 ? 0 : random();
      ASSERT_TRUE(word == was || checksum(wholeState, words) != intact) << n;
    }
    word = was;
  }
}

// The checksum is linear: a damaged bit changes it by the same whatever the other bits are, so that two
// damaged bits go unseen exactly where their changes are equal. The bits of the checksum itself are among
// them.
TEST(Checksum, SeesAnyTwoDamagedBits) {
  std::vector<U64> words(whole.head + whole.tail, 0);
  U64 const empty = checksum(wholeState, words);
  std::set<U64> changes{0};
  for (unsigned bit = 0; bit < 64; ++bit) EXPECT_TRUE(changes.insert(U64{1} << bit).second);
  for (unsigned bit = 0; bit < 48; ++bit)
    EXPECT_TRUE(changes.insert(checksum(wholeState ^ U64{1} << bit, words) ^ empty).second) << bit;
  for (std::size_t i = 0; i < words.size(); ++i) {
    for (unsigned bit = 0; bit < 64; ++bit) {
      words[i] = U64{1} << bit;
      EXPECT_TRUE(changes.insert(checksum(wholeState, words) ^ empty).second) << i << " " << bit;
    }
    words[i] = 0;
  }
}

TEST(Checksum, SeesAnotherLength) {
  std::vector<U64> const words = someWords();
  std::set<U64> all;
  for (U32 head = 0; head <= whole.head; ++head)
    for (U32 tail = 0; tail <= whole.tail; ++tail)
      EXPECT_TRUE(all.insert(checksum(Format::state(154, {head, tail}), words)).second)
          << head << " " << tail;
}

TEST(Checksum, OfZeroesIsNotZero) {
  std::vector<U64> const words(whole.head + whole.tail, 0);
  for (U32 head = 0; head <= whole.head; ++head)
    EXPECT_NE(checksum(Format::state(0, {head, whole.tail}), words), 0U);
}

// CRC-32C of the bytes 0, 1, ... 31, as RFC 3720 gives it; without the last inversion.
TEST(Checksum, IsTheCrcThatOthersCompute) {
  std::array<U64, 4> words;
  for (unsigned i = 0; i < 32; ++i)
    reinterpret_cast<unsigned char*>(words.data())[i] = static_cast<unsigned char>(i);
  U64 crc = Checksum::start;
  for (U64 const word : words) crc = Checksum::TableStep::step(crc, word);
  EXPECT_EQ(crc ^ 0xFFFFFFFFU, 0x46DD794EU);
}

TEST(Checksum, IsTheSameByInstruction) {
  if (!Checksum::hasInstruction) GTEST_SKIP() << "this processor has no instruction for it";
  std::vector<U64> const words = someWords();
  U64 const byInstruction = Slot::checksum<Checksum::InstructionStep>(
      wholeState, tailAt, [&](U64 inSlot, U64) { return words[inSlot]; });
  EXPECT_EQ(byInstruction, checksum(wholeState, words));
}

// Keys that producers make: counted, shifted, in fields. In each index line there is room for three.
TEST(Hash, SpreadsKeysOfAPattern) {
  std::mt19937_64 random(3);
  using Pattern = U64 (*)(U64);
  std::array const patterns{Pattern{[](U64 i) { return i; }}, Pattern{[](U64 i) { return i << 20; }},
                            Pattern{[](U64 i) { return i << 44; }},
                            Pattern{[](U64 i) { return i % 300 | i / 300 << 32; }},
                            Pattern{[](U64 i) { return i % 20 | i / 20 % 20 << 24 | i / 400 << 48; }}};
  constexpr U64 keys = 10000;
  constexpr U64 buckets = keys * 4 / Shoal::Format::recordsPerFourBuckets;
  for (Pattern const pattern : patterns) {
    for (int file = 0; file < 50; ++file) {
      std::array<U64, 4> const seed{random(), random(), random(), random()};
      std::vector<U64> held(buckets);
      U64 beside = 0;  // keys for which their bucket's line has no room
      for (U64 i = 0; i < keys; ++i)
        if (++held[Shoal::Format::bucketOf(Shoal::Format::hash(seed, pattern(i)), buckets)] > entriesPerLine)
          ++beside;
      ASSERT_LT(beside, keys / 16) << pattern(2) << " file " << file;  // of random keys, one in 25
    }
  }
}

using Line = std::array<std::atomic<U64>, Format::wordsPerLine>;

TEST(Line, FindsEntriesOfATagWhereverTheyAre) {
  alignas(64) Line line;
  for (unsigned set = 0; set < 1U << entriesPerLine; ++set) {
    U64 const hash = 0xABCD000000000000U | set;
    for (unsigned i = 0; i < entriesPerLine; ++i)
      line[i] = set >> i & 1 ? Format::entry(1000 + i, hash) : Format::entry(i, ~hash);
    line[Format::linkInLine] = U64{0xABCD} << 48;  // a link is no entry
    EXPECT_EQ(entriesTagged(line.data(), 0xABCD), set);
  }
}

TEST(Entry, IsDamagedByAnyFlippedBit) {
  U64 const intact = Format::entry(123456, 0xABCD'0000'0000'0000);
  EXPECT_TRUE(Format::entryIntact(intact));
  for (unsigned bit = 0; bit < 64; ++bit) EXPECT_FALSE(Format::entryIntact(intact ^ U64{1} << bit)) << bit;
}

}  // namespace
}  // namespace ShoalTest
