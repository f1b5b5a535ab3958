// SPDX-License-Identifier: Apache-2.0
// The worked example of docs/formats/table-file.md: a table made from the page's bytes alone reads as the
// page says, and the writer's own bytes have the layout the page gives.
#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <random>
#include <sstream>
#include <unordered_map>
#include <vector>

#include "fixture.h"
#include "shoal/shared_words.h"

namespace ShoalTest {
namespace {

// Lines "offset  hex bytes  comment" of the page's ```hex blocks.
std::map<U64, std::string> exampleBytes() {
  std::ifstream page(VANTREL_SOURCE_DIR "/docs/formats/table-file.md");
  std::map<U64, std::string> bytes;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("```")) {
      inside = line == "```hex";
      continue;
    }
    if (!inside) continue;
    std::istringstream in(line);
    U64 offset;
    in >> std::hex >> offset;
    std::string run;
    for (std::string token; in >> token && token != "|";)
      run.push_back(static_cast<char>(std::stoul(token, nullptr, 16)));
    bytes[offset] = run;
  }
  return bytes;
}

TEST(TableFile, TheWorkedExampleIsATable) {
  auto const example = exampleBytes();
  ASSERT_GT(example.size(), 10U);
  Directory dir;
  std::ofstream(dir / "t", std::ios::binary).close();
  std::filesystem::resize_file(dir / "t", 143360 + 2 * 262144);
  std::fstream file(dir / "t", std::ios::binary | std::ios::in | std::ios::out);
  for (auto const& [offset, run] : example) {
    file.seekp(static_cast<std::streamoff>(offset));
    file << run;
  }
  // The page gives one line of the index; the other 63 differ in their link alone.
  for (U64 bucket = 0; bucket < 64; ++bucket) {
    U64 const link = Shoal::Format::link(0, bucket, 0);
    file.seekp(static_cast<std::streamoff>(143360 + bucket * 64 + 56));
    file.write(reinterpret_cast<char const*>(&link), 8);
  }
  file.close();
  Reader reader(dir / "t");
  Config expected(EntryKey(0x1122334455667788), OpId(0x0000000000010002), 7, 3, 1000);
  expected.tableIndexIs(TableKey(0), 42);
  expected.dataIs(DataKey(0), 0xAABBCCDD);
  EXPECT_EQ(reader.size(), 1U);
  EXPECT_EQ(reader.entry(expected.key()), expected);
  auto const place = reader.first();
  ASSERT_TRUE(place);
  EXPECT_EQ(place->key, expected.key());
  EXPECT_FALSE(reader.next(*place));
  Writer writer(dir / "t");
  EXPECT_EQ(writer.entry(expected.key()), expected);
  EXPECT_EQ(writer.writerCounters().repaired, 0U);
}

// A slot of an EntryConfig's size with something in every word.
std::vector<U64> someSlot() {
  std::vector<U64> slot(80);
  std::mt19937_64 random(1);
  for (U64& word : slot) word = random();
  return slot;
}

TEST(Checksum, AnyDamageToOneWordIsSeen) {
  std::vector<U64> slot = someSlot();
  U64 const intact = Shoal::Checksum::of(slot.data(), 40);
  std::mt19937_64 random(2);
  for (std::size_t i = 1; i < slot.size(); ++i) {
    U64 const word = slot[i];
    for (int n = 0; n < 2000; ++n) {
      slot[i] = n < 64 ? word ^ U64 { 1 } << n : n == 64 ? ~word : n == 65 ? 0 : random();
      ASSERT_TRUE(slot[i] == word || Shoal::Checksum::of(slot.data(), 40) != intact) << i << " " << n;
    }
    slot[i] = word;
  }
}

// A damaged bit adds its word's weight times the change of the folded word, whatever the other words are; a
// bit goes up or down. No two of these changes may cancel.
TEST(Checksum, AnyTwoDamagedBitsAreSeen) {
  std::vector<U64> slot(80, 0);
  U64 const empty = Shoal::Checksum::of(slot.data(), 40);
  std::unordered_map<U64, std::size_t> changes;  // to the bit's number
  for (std::size_t i = 1; i < slot.size(); ++i) {
    slot[i] = 1;
    U64 const weight = Shoal::Checksum::of(slot.data(), 40) - empty;
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
  for (U64 pairs = 1; pairs <= 40; ++pairs) EXPECT_NE(Shoal::Checksum::of(slot.data(), pairs), 0U);
}

TEST(Checksum, TheCopyComputesTheSame) {
  alignas(16) std::array<std::atomic<U64>, 80> slot;
  alignas(16) std::array<U64, 80> copy;
  auto const words = someSlot();
  std::copy(words.begin(), words.end(), slot.begin());
  for (U64 pairs = 1; pairs <= 40; ++pairs) {
    copy.fill(0);
    EXPECT_EQ(Shoal::copySlotWords(slot.data(), copy.data(), pairs),
              Shoal::Checksum::of(words.data(), pairs));
    EXPECT_TRUE(std::equal(copy.begin(), copy.begin() + 2 * pairs, words.begin()));
    EXPECT_TRUE(std::all_of(copy.begin() + 2 * pairs, copy.end(), [](U64 word) { return word == 0; }));
  }
}

TEST(Line, EntriesOfATagAreFoundWhereverTheyAre) {
  alignas(64) std::array<std::atomic<U64>, 8> line;
  for (unsigned set = 0; set < 128; ++set) {
    U64 const hash = 0xABCDEF0000000000U | set;
    for (unsigned i = 0; i < 7; ++i)
      line[i] = set >> i & 1 ? Shoal::Format::entry(1000 + i, hash) : Shoal::Format::entry(i, ~hash);
    line[7] = U64{0xABCDEF} << 32;  // a link is no entry
    EXPECT_EQ(Shoal::entriesOfTag(line.data(), 0xABCDEF), set);
  }
}

}  // namespace
}  // namespace ShoalTest
