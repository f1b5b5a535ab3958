// SPDX-License-Identifier: Apache-2.0
// The comparison is honest only if each programmer does the whole work: all end with the table that is
// wanted, and those that promise to keep the order keep it at every operation.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "bench/peers/workload.h"

namespace {

using namespace Bench;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

using Make = std::unique_ptr<Programmer> (*)(Row&);

EntryConfig entry(U64 key, U64 version, U32 prio, U32 ti) {
  EntryConfig e(EntryKey(key), OpId(version << 16), static_cast<U32>(key), 0, prio);
  e.tableIndexIs(TableKey(0), ti);
  return e;
}

class Peers : public testing::TestWithParam<Make> {
 protected:
  void SetUp() override { setenv("LUMELOG_DISABLE", "1", 1); }
  bool keepsOrder() const { return GetParam() != &breakMakeProgrammer; }
};

TEST_P(Peers, EndsWithTheTableThatAWholeWorkloadWants) {
  Workload const work = workload(ruleSets().front().second);
  ASSERT_GT(work.writes(), 500U);
  ASSERT_FALSE(work.final.empty());
  Row row(work.size, true);
  auto const programmer = GetParam()(row);
  work.run(*programmer, row, true);
  EXPECT_EQ(row.contents(), work.final);
  if (keepsOrder()) {
    EXPECT_EQ(row.disorders(), 0U);
  }
}

// Keys of two priorities change places at random, with one position free or none; each time the row must end
// as it was last wanted.
TEST_P(Peers, ArrivesFromAnyPlacementAtAnyOther) {
  std::mt19937 random(3);
  for (int run = 0; run < 300; ++run) {
    U32 const size = 6 + run % 2;
    Row row(size, true);
    auto const programmer = GetParam()(row);
    std::vector<U32> places(size);
    std::iota(places.begin(), places.end(), 0U);
    U64 version = 0;
    for (int round = 0; round < 3; ++round) {
      std::ranges::shuffle(places, random);
      std::ranges::sort(places.begin(), places.begin() + 3);
      std::vector<EntryConfig> wanted;
      auto chosen = std::vector(places.begin(), places.begin() + 6);
      std::ranges::sort(chosen);
      std::shuffle(chosen.begin(), chosen.begin() + 3, random);
      std::shuffle(chosen.begin() + 3, chosen.end(), random);
      for (U64 key = 1; key <= 6; ++key)
        wanted.push_back(entry(key, ++version, key <= 3 ? 10 : 20, chosen[key - 1]));
      for (EntryConfig const& e : wanted) programmer->put(e);
      programmer->finish();
      for (EntryConfig const& e : wanted) {
        ASSERT_TRUE(row.has(e.key().value())) << "run " << run << " key " << e.key().value();
        ASSERT_EQ(row.positionOf(e.key().value()), e.tableIndex(TableKey(0)));
      }
    }
    if (keepsOrder()) {
      ASSERT_EQ(row.disorders(), 0U);
    }
  }
}

TEST_P(Peers, TakesOutWhatIsMarkedAndWhatIsGone) {
  Row row(8, true);
  auto const programmer = GetParam()(row);
  for (U64 key = 1; key <= 3; ++key) programmer->put(entry(key, key, 10, static_cast<U32>(key)));
  programmer->finish();
  EntryConfig gone = entry(2, 9, 10, 2);
  gone.isDelIs(true);
  programmer->put(gone);
  programmer->remove(3);
  programmer->finish();
  EXPECT_TRUE(row.has(1));
  EXPECT_FALSE(row.has(2));
  EXPECT_FALSE(row.has(3));
}

INSTANTIATE_TEST_SUITE_P(All, Peers,
                         testing::Values(&vantrelProgrammer, &rescanProgrammer, &breakMakeProgrammer));

TEST(Row, CountsRulesThatShouldBeThereAndAreNot) {
  Row row(8, true);
  row.add(entry(1, 1, 10, 1));
  row.add(entry(2, 2, 10, 2));
  boost::unordered_flat_map<U64, Match> const matchOf{{1, 0}, {2, 1}, {3, 0}};
  row.guard({true, true}, matchOf);
  row.add(entry(3, 3, 10, 3));  // what key 1 matches, twice now
  row.remove(1);
  EXPECT_EQ(row.absences(), 0U);
  EXPECT_EQ(row.gaps(), 0U);
  row.remove(2);
  row.remove(3);
  EXPECT_EQ(row.absences(), 3U);  // one after the first, two after the second
  EXPECT_EQ(row.mostAbsent(), 2U);
  row.add(entry(2, 4, 10, 2));
  EXPECT_EQ(row.absences(), 4U);
  EXPECT_EQ(row.gaps(), 3U);
}

TEST(Row, NoticesABrokenOrderAndRefusesAHeldPosition) {
  Row row(8, true);
  row.add(entry(1, 1, 10, 4));
  row.add(entry(2, 2, 20, 2));
  EXPECT_EQ(row.disorders(), 1U);
  EXPECT_THROW(row.add(entry(3, 3, 10, 4)), std::logic_error);
}

}  // namespace
