// SPDX-License-Identifier: Apache-2.0
// The row sees what is wrong, and each scheme keeps it right.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>

#include "bench/planner/sets.h"

namespace Bench {
namespace {

Rules const overlapping(3);  // three that match anything

TEST(PlanRowTest, CountsAWriteThatBreaksTheOrder) {
  PlanRow row(overlapping, 4, true);
  row.add(1, 1, 1, 0);
  row.add(2, 0, 2, 0);  // the earlier rule behind the later
  EXPECT_EQ(row.holes(), 1U);
  row.move(2, 0);
  EXPECT_EQ(row.holes(), 1U);
}

TEST(PlanRowTest, CountsAWantedRuleThatGoes) {
  PlanRow row(overlapping, 4, true);
  row.wantedIs(1, true);
  row.add(1, 1, 1, 0);
  row.add(2, 1, 2, 0);
  row.remove(1);
  EXPECT_EQ(row.holes(), 0U);  // its other entry is there
  row.remove(2);
  EXPECT_EQ(row.holes(), 1U);
}

TEST(PlanRowTest, RefusesTakenPlacesAndFallingPriorities) {
  PlanRow row(overlapping, 4, true);
  row.add(1, 0, 1, 10);
  EXPECT_THROW(row.add(2, 1, 1, 10), std::logic_error);
  EXPECT_THROW(row.add(3, 1, 4, 10), std::logic_error);
  EXPECT_THROW(row.add(4, 1, 2, 9), std::logic_error);
}

TEST(PlanRowTest, CountsTheWritesOfAnEdit) {
  PlanRow row(overlapping, 4, false);
  row.wantedIs(0, true);
  row.add(1, 0, 0, 0);
  row.move(1, 1);
  EXPECT_EQ(row.editDone(), 2U);
  row.wantedIs(0, false);
  row.remove(1);  // asked for
  EXPECT_EQ(row.editDone(), 0U);
}

class SchemeTest : public testing::TestWithParam<MakeScheme> {};

TEST_P(SchemeTest, InsertsWithoutHoles) {
  for (char const* set : {"acl 200", "fw 200"}) {
    Rules const rules = ruleSet(set);
    PlanRow row(rules, static_cast<U32>(rules.size()) + 1, true);
    std::unique_ptr<Scheme> const scheme = GetParam()(rules, row);
    std::vector<U32> first, others;
    for (U32 rule = 0; rule < rules.size(); ++rule) (rule % 2 ? first : others).push_back(rule);
    for (U32 rule = 0; rule < rules.size(); ++rule) row.wantedIs(rule, true);
    std::ranges::shuffle(others, std::mt19937(1));
    scheme->load(first);
    for (U32 const rule : others) scheme->insert(rule);
    EXPECT_EQ(row.holes(), 0U) << set;
    U32 entries = 0;
    for (U32 place = 0; place < row.size(); ++place) entries += row.at(place) != 0;
    EXPECT_EQ(entries, rules.size()) << set;
  }
}

INSTANTIATE_TEST_SUITE_P(Schemes, SchemeTest,
                         testing::Values(planned, blockAtEnd, levelsAndBlock, nearestGap, dependencyChains));

}  // namespace
}  // namespace Bench
