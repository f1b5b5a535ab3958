// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "bench/report/table.h"

namespace {

using Bench::Name;
using Bench::Table;

TEST(BenchName, HasThreePartsAndMayHaveMore) {
  Name const name = Name::parsed("ring of 10, cold/floor/1000/iterations:1/real_time");
  EXPECT_EQ(name.what, "ring of 10, cold");
  EXPECT_EQ(name.side, "floor");
  EXPECT_EQ(name.size, "1000");
}

TEST(BenchName, RefusesWhatIsNoCaseSideAndSize) {
  for (char const* name : {"add", "add/ours", "add/theirs/1000", "/1000"})
    EXPECT_THROW(Name::parsed(name), std::invalid_argument) << name;
}

TEST(BenchTable, ShowsMediansAndTheirRatios) {
  Table table("road", "The road", "ns");
  for (double const ns : {300.0, 100.0, 150.0}) table.add({"add", "ours", "1000"}, {{"ns", ns}});
  for (double const ns : {90.0, 110.0, 100.0, 5000.0}) table.add({"add", "floor", "1000"}, {{"ns", ns}});
  table.add({"add", "peer", "1000"}, {{"ns", 1500.0}});
  auto const row = table.json()["rows"][0];
  EXPECT_EQ(row["ours"], 150.0);
  EXPECT_EQ(row["floor"], 105.0);
  EXPECT_DOUBLE_EQ(row["ours/floor"], 150.0 / 105.0);
  EXPECT_DOUBLE_EQ(row["peer/ours"], 10.0);
  EXPECT_THAT(table.text(), testing::HasSubstr("add  1,000   150    105        1.43  1,500       10.0\n"));
}

// A machine that is half as fast in one round is so for both sides.
TEST(BenchTable, TakesARatioRoundByRound) {
  Table table("road", "The road", "ns");
  for (double const ns : {300.0, 100.0, 160.0}) table.add({"add", "ours", "1000"}, {{"ns", ns}});
  for (double const ns : {200.0, 100.0, 40.0}) table.add({"add", "floor", "1000"}, {{"ns", ns}});
  auto const row = table.json()["rows"][0];
  EXPECT_EQ(row["ours"], 160.0);
  EXPECT_EQ(row["floor"], 100.0);
  EXPECT_DOUBLE_EQ(row["ours/floor"], 1.5);
}

TEST(BenchTable, CountsGrowthFromTenThousand) {
  Table table("road", "The road", "ns");
  for (auto const& [size, ns] : {std::pair{"1000", 50.0}, {"10000", 80.0}, {"1000000", 200.0}})
    table.add({"add", "ours", size}, {{"ns", ns}});
  auto const rows = table.json()["rows"];
  EXPECT_FALSE(rows[0].contains("growth"));
  EXPECT_FALSE(rows[1].contains("growth"));
  EXPECT_DOUBLE_EQ(rows[2]["growth"], 2.5);
}

TEST(BenchTable, MakesColumnsOfCountersAndRowsOfSideFigures) {
  Table table("between", "Between", "ns");
  table.add({"write", "ours", "1"}, {{"ns", 7.0}, {"also:p99", 70.0}, {"allocs", 2.0}});
  table.add({"write", "floor", "1"}, {{"ns", 7.0}, {"also:p99", 35.0}, {"allocs", 1.0}});
  auto const rows = table.json()["rows"];
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0]["counters"]["allocs"], 2.0);
  EXPECT_EQ(rows[0]["counters"]["allocs floor"], 1.0);
  EXPECT_EQ(rows[1]["case"], "write, p99");
  EXPECT_DOUBLE_EQ(rows[1]["ours/floor"], 2.0);
}

TEST(BenchTable, SaysEachNoteOnce) {
  Table table("between", "Between", "ns");
  table.note("no peer");
  table.note("no peer");
  EXPECT_EQ(table.json()["notes"].size(), 1U);
}

}  // namespace
