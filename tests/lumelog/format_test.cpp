// SPDX-License-Identifier: Apache-2.0
// The bytes that docs/formats/trace-file.md shows are those that a log writes and the reader understands.
#include "lumelog/format.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/lumelog/logs.h"
#include "tests/lumelog/temp_dir.h"

namespace Lumelog {
namespace {

using namespace Test;
using testing::ElementsAre;

// The hexadecimal bytes behind a mark of the page.
std::string example(std::string const& mark) {
  std::istringstream page(readFile(VANTREL_SOURCE_DIR "/docs/formats/trace-file.md"));
  std::string line, bytes;
  while (std::getline(page, line) && line != "<!-- " + mark + " -->") continue;
  while (std::getline(page, line) && line.starts_with("    ")) {
    std::istringstream words(line);
    for (std::string word; words >> word;) bytes += static_cast<char>(std::stoi(word, nullptr, 16));
  }
  return bytes;
}

std::string hex(std::string const& bytes) {
  std::string text;
  for (unsigned char c : bytes) text += fmt::format("{:02x} ", c);
  return text;
}

class Page : public testing::Test {
 protected:
  Page() {
    LogPtr const log = make(dir_ / "a.lg", small(8));
    U64 const key = 1024;
    U32 const hdl = 33;
    static constinit Site site{9, "a.cpp", 27};
    log->record<9>(site, 7, "handling key:", key, " hdl:", hdl);
    bytes_ = readFile(dir_ / "a.lg");
    std::memcpy(&header_, bytes_.data(), sizeof header_);
  }

  TempDir dir_;
  std::string bytes_;
  Format::FileHeader header_;
};

TEST_F(Page, ShowsTheSite) {
  EXPECT_EQ(hex(bytes_.substr(header_.fixed.siteOffset, header_.live.siteUsed)), hex(example("site")));
}

// Only the time stamp, and with it the check, is the example's own.
TEST_F(Page, ShowsTheRecord) {
  std::string const wanted = example("record");
  Format::RecordHeader shown;
  ASSERT_EQ(wanted.size(), 32U);
  std::memcpy(&shown, wanted.data(), sizeof shown);
  EXPECT_EQ(shown.ticks, 0x0000012345678900U);
  EXPECT_EQ(shown.check, Format::recordCheck(shown.ticks, shown.site, shown.bytes));
  std::string written = bytes_.substr(header_.fixed.ring[9].offset + sizeof(Format::SubBufferHeader), 32);
  std::memcpy(written.data(), &shown.ticks, sizeof shown.ticks);
  std::memcpy(written.data() + offsetof(Format::RecordHeader, check), &shown.check, sizeof shown.check);
  EXPECT_EQ(hex(written), hex(wanted));
}

// Both in place of what the log wrote.
TEST_F(Page, IsWhatTheReaderUnderstands) {
  std::string const site = example("site"), record = example("record");
  std::size_t const ring = header_.fixed.ring[9].offset;
  Format::SubBufferHeader subBuffer;
  std::memcpy(&subBuffer, bytes_.data() + ring, sizeof subBuffer);
  subBuffer.ticks = 0x0000012345678900U - 1;
  subBuffer.check = Format::subBufferCheck(subBuffer);
  std::memcpy(bytes_.data() + ring, &subBuffer, sizeof subBuffer);
  bytes_.replace(header_.fixed.siteOffset, site.size(), site);
  bytes_.replace(ring + sizeof subBuffer, record.size(), record);
  writeFile(dir_ / "b.lg", bytes_);
  Reader reader(dir_ / "b.lg");
  Record shown;
  ASSERT_TRUE(reader.next(shown));
  EXPECT_EQ(fmt::format("{} {}:{} [{}] {}", shown.site->level, shown.site->file, shown.site->line,
                        shown.identifier(), shown.message()),
            "9 a.cpp:27 [7] handling key:1024 hdl:33");
  EXPECT_FALSE(reader.next(shown));
  EXPECT_FALSE(reader.damage().any());
}

// Where something lies, and how large it is.
using Place = std::pair<std::size_t, std::size_t>;
#define PLACE(Struct, member) \
  Place { offsetof(Struct, member), sizeof(Struct::member) }

// The places that the table of a section of the page names by two numbers.
std::vector<Place> placesOf(std::string const& section) {
  std::istringstream page(readFile(VANTREL_SOURCE_DIR "/docs/formats/trace-file.md"));
  std::string line;
  while (std::getline(page, line) && line != "## " + section) continue;
  std::vector<Place> places;
  while (std::getline(page, line) && !line.starts_with("## ")) {
    std::size_t offset = 0, size = 0;
    int end = 0;
    if (std::sscanf(line.c_str(), "| %zu | %zu |%n", &offset, &size, &end) == 2 && end > 0)
      places.emplace_back(offset, size);
  }
  return places;
}

TEST(PlacesOnThePage, AreThoseOfTheHeader) {
  using Format::FixedHeader;
  using Format::LiveHeader;
  auto const live = [](Place place) {
    return Place(offsetof(Format::FileHeader, live) + place.first, place.second);
  };
  std::size_t const anchors = offsetof(LiveHeader, anchor);
  EXPECT_THAT(
      placesOf("Header"),
      ElementsAre(PLACE(FixedHeader, magic), PLACE(FixedHeader, version), PLACE(FixedHeader, byteOrder),
                  PLACE(FixedHeader, check), PLACE(FixedHeader, subBufferBytes),
                  PLACE(FixedHeader, fileBytes), PLACE(FixedHeader, pid), PLACE(FixedHeader, maxString),
                  PLACE(FixedHeader, clock), PLACE(FixedHeader, threading),
                  PLACE(FixedHeader, ticksPerSecond), PLACE(FixedHeader, siteOffset),
                  PLACE(FixedHeader, siteBytes), PLACE(FixedHeader, openTicks), PLACE(FixedHeader, openNs),
                  PLACE(FixedHeader, openRealNs), PLACE(FixedHeader, ring), PLACE(FixedHeader, program),
                  live(PLACE(LiveHeader, siteUsed)), live(PLACE(LiveHeader, dropped)),
                  live(PLACE(LiveHeader, anchors)), live({anchors, sizeof(Format::Anchor)}),
                  live({anchors + sizeof(Format::Anchor), sizeof(Format::Anchor)}),
                  live(PLACE(LiveHeader, truncations))));
}

TEST(PlacesOnThePage, AreThoseOfSitesSubBuffersAndRecords) {
  using Format::RecordHeader;
  using Format::SiteHeader;
  using Format::SubBufferHeader;
  EXPECT_THAT(
      placesOf("Call site"),
      ElementsAre(PLACE(SiteHeader, check), PLACE(SiteHeader, bytes), PLACE(SiteHeader, id),
                  PLACE(SiteHeader, line), PLACE(SiteHeader, textBytes), PLACE(SiteHeader, fileBytes),
                  PLACE(SiteHeader, typeBytes), PLACE(SiteHeader, level), PLACE(SiteHeader, reserved)));
  EXPECT_THAT(
      placesOf("Sub-buffer"),
      ElementsAre(PLACE(SubBufferHeader, sequence), PLACE(SubBufferHeader, ticks), PLACE(SubBufferHeader, ns),
                  PLACE(SubBufferHeader, used), PLACE(SubBufferHeader, check)));
  EXPECT_THAT(placesOf("Record"), ElementsAre(PLACE(RecordHeader, ticks), PLACE(RecordHeader, site),
                                              PLACE(RecordHeader, bytes), PLACE(RecordHeader, check)));
}

// The numbers of a file by the page's offsets alone.
template <class Number>
Number at(std::string const& bytes, std::size_t offset) {
  Number number{};
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

TEST_F(Page, SaysWhatTheHeaderHasWhere) {
  EXPECT_EQ(bytes_.substr(0, 8), "LUMELOG1");
  EXPECT_EQ(at<U32>(bytes_, 8), 1U);
  EXPECT_EQ(at<U32>(bytes_, 12), 0x01020304U);
  std::string fixed = bytes_.substr(0, 288);
  std::fill_n(fixed.begin() + 16, 4, '\0');
  EXPECT_EQ(at<U32>(bytes_, 16), Format::fnv(std::as_bytes(std::span(fixed))));
  EXPECT_EQ(at<U32>(bytes_, 20), 4096U);
  EXPECT_EQ(at<U64>(bytes_, 24), bytes_.size());
  EXPECT_EQ(at<U32>(bytes_, 32), static_cast<U32>(getpid()));
  EXPECT_EQ(at<U32>(bytes_, 36), Options().maxString);
  EXPECT_THAT(at<U32>(bytes_, 40), testing::AnyOf(1U, 2U));
  EXPECT_EQ(at<U32>(bytes_, 44), 0U);
  EXPECT_GT(at<U64>(bytes_, 48), 1'000'000U);
  EXPECT_EQ(at<U64>(bytes_, 56), 4096U);
  EXPECT_EQ(at<U64>(bytes_, 64), 262144U);
  EXPECT_GT(at<U64>(bytes_, 72), 0U);
  timespec monotonic{}, real{};
  clock_gettime(CLOCK_MONOTONIC, &monotonic);
  clock_gettime(CLOCK_REALTIME, &real);
  EXPECT_NEAR(static_cast<double>(at<U64>(bytes_, 80)) / 1e9, static_cast<double>(monotonic.tv_sec), 600);
  EXPECT_NEAR(static_cast<double>(at<U64>(bytes_, 88)) / 1e9, static_cast<double>(real.tv_sec), 600);
  U64 offset = 4096 + 262144;
  for (std::size_t level = 0; level < 10; ++level, offset += 8192) {
    EXPECT_EQ(at<U64>(bytes_, 96 + 16 * level), offset) << level;
    EXPECT_EQ(at<U64>(bytes_, 104 + 16 * level), 8192U) << level;
  }
  EXPECT_EQ(offset + 4096, bytes_.size()) << "behind the rings lies only the copy";
  EXPECT_EQ(bytes_.substr(0, 288), bytes_.substr(bytes_.size() - 4096, 288));
  std::string const name = program_invocation_short_name;
  EXPECT_EQ(bytes_.substr(256, 32), name + std::string(32 - name.size(), '\0'));
  EXPECT_EQ(at<U64>(bytes_, 512), example("site").size());
  EXPECT_EQ(at<U64>(bytes_, 520), 0U);
  U64 const anchors = at<U64>(bytes_, 528);
  ASSERT_GT(anchors, 0U);
  std::size_t const newest = 536 + 24 * (anchors % 2);
  EXPECT_GE(at<U64>(bytes_, newest), at<U64>(bytes_, 72));
  EXPECT_GE(at<U64>(bytes_, newest + 8), at<U64>(bytes_, 80));
  EXPECT_NEAR(static_cast<double>(at<U64>(bytes_, newest + 16)) / 1e9, static_cast<double>(real.tv_sec), 600);
  EXPECT_EQ(bytes_.substr(288, 224), std::string(224, '\0')) << "what is not listed";
  EXPECT_EQ(at<U64>(bytes_, 584), 0U);
  EXPECT_EQ(bytes_.substr(592, 4096 - 592), std::string(4096 - 592, '\0')) << "what is not listed";
}

TEST_F(Page, SaysWhatASubBufferHasWhere) {
  std::size_t const ring = at<U64>(bytes_, 96 + 16 * 9);
  std::string const subBuffer = bytes_.substr(ring, 4096);
  EXPECT_EQ(at<U64>(subBuffer, 0), 1U);
  EXPECT_GE(at<U64>(subBuffer, 8), at<U64>(bytes_, 72));
  EXPECT_LE(at<U64>(subBuffer, 8), at<U64>(subBuffer, 32)) << "it was begun before its record was written";
  EXPECT_GE(at<U64>(subBuffer, 16), at<U64>(bytes_, 80));
  EXPECT_EQ(at<U32>(subBuffer, 24), example("record").size());
  std::string checked = subBuffer.substr(0, 32);
  std::fill_n(checked.begin() + 24, 8, '\0');
  EXPECT_EQ(at<U32>(subBuffer, 28), Format::fnv(std::as_bytes(std::span(checked))));
  EXPECT_EQ(subBuffer.substr(64), std::string(4096 - 64, '\0')) << "nothing more was written";
  std::string const next = bytes_.substr(ring + 4096, 4096);
  EXPECT_EQ(next, std::string(4096, '\0')) << "nobody began it";
}

// Two sub-buffers a ring here: the third takes the place of the first.
TEST_F(Page, SaysWhichSubBufferIsNext) {
  LogPtr const log = make(dir_ / "b.lg", small(8));
  static constinit Site site{9, "a.cpp", 27};
  constexpr std::size_t recordsASubBuffer = (4096 - 32) / 32;
  auto const sequences = [&] {
    std::string const bytes = readFile(dir_ / "b.lg");
    std::size_t const ring = at<U64>(bytes, 96 + 16 * 9);
    return std::pair(at<U64>(bytes, ring), at<U64>(bytes, ring + 4096));
  };
  auto const fill = [&] {
    for (std::size_t i = 0; i < recordsASubBuffer; ++i)
      log->record<9>(site, 7, "handling key:", U64{i}, " hdl:", U32{33});
    return sequences();
  };
  EXPECT_EQ(fill(), std::pair(U64{1}, U64{0}));
  EXPECT_EQ(fill(), std::pair(U64{1}, U64{2}));
  EXPECT_EQ(fill(), std::pair(U64{3}, U64{2}));
  EXPECT_EQ(fill(), std::pair(U64{3}, U64{4}));
}

}  // namespace
}  // namespace Lumelog
