// SPDX-License-Identifier: Apache-2.0
// The worked example of docs/formats/table-file.md, both ways: a table made from the page's bytes alone reads
// as the page says, and a writer leaves the page's bytes.
#include <fstream>
#include <sstream>

#include "fixture.h"
#include "shoal/format.h"
#include "shoal/inspect.h"

namespace ShoalTest {
namespace {

namespace Format = Shoal::Format;

constexpr U64 ringEntries = 16;
constexpr U64 chunkStart = Format::chunkStart(ringEntries);
constexpr U64 fileBytes = chunkStart + 2 * Format::chunkBytes;

// Lines "offset  hex bytes | comment" of the page's ```hex blocks.
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

// The page's file. The page gives one line of the index, from which the other 127 differ in their links
// alone, and the first of two headers that are the same.
std::string exampleFile() {
  std::string file(fileBytes, '\0');
  for (U64 bucket = 0; bucket < Format::firstBuckets; ++bucket) {
    U64 const link = Format::link(0, bucket, 0);
    U64 const at = chunkStart + bucket * Format::unitBytes + Format::linkInLine * 8;
    file.replace(at, 8, reinterpret_cast<char const*>(&link), 8);
  }
  for (auto const& [offset, run] : exampleBytes()) {
    if (offset + run.size() > file.size()) throw std::out_of_range("the example lies beyond its file's end");
    file.replace(offset, run.size(), run);
  }
  file.replace(Format::headerCopyAt, sizeof(Format::Header), file, 0, sizeof(Format::Header));
  return file;
}

Config exampleRecord() {
  Config record(EntryKey(0x1122334455667788), OpId(0x10002), 7, 3, 1000);
  record.tableIndexIs(TableKey(0), 42);
  record.dataIs(DataKey(0), 0xAABBCCDD);
  return record;
}

std::string content(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class TableFileExample : public testing::Test {
 protected:
  void write(std::string const& bytes) { std::ofstream(path(), std::ios::binary) << bytes; }
  std::string path() const { return dir_ / "t"; }

 private:
  Directory dir_;
};

TEST_F(TableFileExample, ReadsAsThePageSays) {
  ASSERT_GT(exampleBytes().size(), 30U);
  write(exampleFile());
  Reader const reader(path());
  EXPECT_EQ(reader.size(), 1U);
  EXPECT_EQ(reader.entry(exampleRecord().key()), exampleRecord());
  auto const place = reader.first();
  ASSERT_TRUE(place);
  EXPECT_EQ(place->key, exampleRecord().key());
  EXPECT_FALSE(reader.next(*place));
}

TEST_F(TableFileExample, IsIntact) {
  write(exampleFile());
  Shoal::Inspection const found = Shoal::inspect(path());
  EXPECT_EQ(found.records, 1U);
  EXPECT_TRUE(found.damage.empty());
  EXPECT_TRUE(found.unfinished.empty());
  Shoal::TableInfo const info = Shoal::tableInfo(path());
  EXPECT_EQ(info.madeAt, 1'700'000'000U);
  EXPECT_EQ(info.buckets, 128U);
  EXPECT_EQ(info.changes, 1U);
}

TEST_F(TableFileExample, NeedsNoRepairByAWriter) {
  write(exampleFile());
  Writer const writer(path());
  EXPECT_EQ(writer.entry(exampleRecord().key()), exampleRecord());
  EXPECT_EQ(writer.writerCounters().repaired, 0U);
  EXPECT_EQ(writer.writerCounters().rebuilds, 0U);
}

// An empty table with the page's header, of which the rest follows but for the writer's process id.
TEST_F(TableFileExample, IsWhatAWriterLeaves) {
  std::string expected = exampleFile();
  { Writer const empty(path(), {.ringEntries = ringEntries}); }
  std::string made = content(path());
  for (U64 const at : {U64{0}, Format::headerCopyAt})
    made.replace(at, sizeof(Format::Header), expected.substr(at, sizeof(Format::Header)));
  write(made);
  { Writer(path()).entryIs(exampleRecord()); }
  made = content(path());
  made.replace(Format::writerAt, 8, 8, '\0');
  ASSERT_EQ(made.size(), expected.size());
  for (U64 at = 0; at < made.size(); at += 8)
    EXPECT_EQ(made.substr(at, 8), expected.substr(at, 8)) << "at offset " << std::hex << at;
}

}  // namespace
}  // namespace ShoalTest
