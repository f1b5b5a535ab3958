// SPDX-License-Identifier: Apache-2.0
// The worked example of docs/formats/table-file.md: a table made from the page's bytes alone reads as the
// page says, and the writer's own bytes have the layout the page gives.
#include <fstream>
#include <sstream>

#include "fixture.h"

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

}  // namespace
}  // namespace ShoalTest
