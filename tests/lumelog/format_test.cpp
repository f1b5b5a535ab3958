// SPDX-License-Identifier: Apache-2.0
// The bytes that docs/formats/trace-file.md shows are those that a log writes and the reader understands.
#include "lumelog/format.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "lumelog/lumelog.h"
#include "lumelog/parse.h"
#include "lumelog/reader.h"
#include "tests/lumelog/temp_dir.h"

namespace Lumelog {
namespace {

using Test::readFile;
using Test::TempDir;

struct Close {
  void operator()(Log* log) const { close(log); }
};

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
    Options options;
    options.kib.fill(8);
    std::unique_ptr<Log, Close> const log(open(dir_ / "a.lg", options));
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
  std::string written = bytes_.substr(header_.fixed.ring[9].offset + sizeof(Format::BlockHeader), 32);
  std::memcpy(written.data(), &shown.ticks, sizeof shown.ticks);
  std::memcpy(written.data() + offsetof(Format::RecordHeader, check), &shown.check, sizeof shown.check);
  EXPECT_EQ(hex(written), hex(wanted));
}

TEST_F(Page, IsWhatTheReaderUnderstands) {
  std::string const bytes = example("site");
  Format::SiteHeader site;
  std::memcpy(&site, bytes.data(), sizeof site);
  auto const info = Parse::site(site, bytes.data() + sizeof site);
  ASSERT_TRUE(info);
  std::string const record = example("record");
  Record shown{0, 0, 0, &*info, {}};
  ASSERT_TRUE(Parse::values(info->types, std::as_bytes(std::span(record)), &shown.values));
  EXPECT_EQ(fmt::format("{} {}:{} [{}] {}", info->level, info->file, info->line, shown.identifier(),
                        shown.message()),
            "9 a.cpp:27 [7] handling key:1024 hdl:33");
}

// The offsets of the page's tables.
TEST_F(Page, SaysWhereTheHeaderHasWhat) {
  using Format::FileHeader;
  using Format::FixedHeader;
  EXPECT_EQ(bytes_.substr(0, 8), "LUMELOG1");
  EXPECT_EQ(offsetof(FixedHeader, check), 16U);
  EXPECT_EQ(offsetof(FixedHeader, fileBytes), 24U);
  EXPECT_EQ(offsetof(FixedHeader, clock), 40U);
  EXPECT_EQ(offsetof(FixedHeader, siteOffset), 56U);
  EXPECT_EQ(offsetof(FixedHeader, openRealNs), 88U);
  EXPECT_EQ(offsetof(FixedHeader, ring), 96U);
  EXPECT_EQ(offsetof(FixedHeader, program), 256U);
  EXPECT_EQ(offsetof(FileHeader, live) + offsetof(Format::LiveHeader, anchor), 536U);
  EXPECT_EQ(bytes_.substr(0, 288), bytes_.substr(bytes_.size() - 4096, 288));
  std::string fixed = bytes_.substr(0, 288);
  std::fill_n(fixed.begin() + 16, 4, '\0');
  EXPECT_EQ(Format::fnv(std::as_bytes(std::span(fixed))), header_.fixed.check);
}

}  // namespace
}  // namespace Lumelog
