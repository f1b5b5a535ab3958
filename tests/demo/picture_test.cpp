// SPDX-License-Identifier: Apache-2.0
#include "apps/demo/picture.h"

#include <gtest/gtest.h>

namespace Demo {
namespace {

TEST(Picture, barsRiseWithPriority) {
  EXPECT_EQ(picture({{0, 0, 10}, {1, 0, 20}, {3, 0, 30}}, 80, false), "group 0   ▁▃·▆\n");
}

TEST(Picture, everyGroupHasItsLineOnOneScale) {
  EXPECT_EQ(picture({{0, 0, 10}, {1, 1, 40}, {2, 0, 20}, {3, 1, 80}}, 80, false),
            "group 0   ▁·▃·\n"
            "group 1   ·▅·▇\n");
}

TEST(Picture, positionsThatShareACellShowTheGreatest) {
  EXPECT_EQ(picture({{0, 0, 4}, {1, 0, 1}, {2, 0, 2}, {7, 0, 3}}, 14, false), "group 0   ▇▃·▅\n");
}

TEST(Picture, coloursAreForTerminalsOnly) {
  std::string const coloured = picture({{0, 0, 1}, {1, 1, 1}}, 80, true);
  EXPECT_NE(coloured.find("\033[36m"), std::string::npos);
  EXPECT_NE(coloured.find("\033[33m"), std::string::npos);
  EXPECT_EQ(picture({{0, 0, 1}}, 80, false).find('\033'), std::string::npos);
}

TEST(Picture, isNoWiderThanTheTerminal) {
  std::vector<Placed> row;
  for (U32 ti = 0; ti < 5000; ti += 3) row.push_back({ti, 0, ti});
  std::string const line = picture(row, 50, false);
  std::size_t cells = 0;
  for (char const c : line) cells += (c & 0xC0) != 0x80;
  EXPECT_EQ(cells, 51U) << "50 columns and the line's end";
}

TEST(Picture, survivesNothingManyGroupsAndNarrowTerminals) {
  EXPECT_EQ(picture({}, 80, false), "(no entries)\n");
  EXPECT_EQ(picture({{4294967295, 0, 4294967295}}, 0, false), "group 0   ▁\n");
  std::vector<Placed> row;
  for (U16 pg = 0; pg < 20; ++pg) row.push_back({pg, pg, 1});
  EXPECT_NE(picture(row, 80, false).find("and 4 groups more"), std::string::npos);
}

TEST(InOrder, looksAtEachGroupAlone) {
  EXPECT_TRUE(inOrder({}));
  EXPECT_TRUE(inOrder({{5, 0, 10}, {1, 0, 10}, {3, 1, 1}}));
  EXPECT_FALSE(inOrder({{5, 0, 9}, {1, 0, 10}, {3, 1, 1}}));
}

}  // namespace
}  // namespace Demo
