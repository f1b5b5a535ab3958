// SPDX-License-Identifier: Apache-2.0
// Overlap index and rank list beside the plainest that says the same.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>

#include "producer/planner/overlap_index.h"
#include "producer/planner/rank_list.h"
#include "tests/producer/planner/worlds.h"

namespace Planning {
namespace {

class OverlapIndexTest : public testing::TestWithParam<World> {};

TEST_P(OverlapIndexTest, FindsWhatAllPairsFind) {
  MatchGenerator generator(3, GetParam());
  OverlapIndex index;
  std::map<U32, Match> held;
  U64 found = 0;
  for (int i = 0; i < 6000; ++i) {
    U32 const slot = generator.below(700);
    if (held.erase(slot))
      index.remove(slot);
    else
      index.add(slot, held[slot] = generator.match());
    Match const asked = generator.match();
    std::vector<U32> expected;
    for (auto const& [other, match] : held)
      if (overlap(asked, match)) expected.push_back(other);
    ASSERT_EQ(index.find(asked), expected);
    found += expected.size();
  }
  EXPECT_GT(found, 0U);
}

INSTANTIATE_TEST_SUITE_P(Worlds, OverlapIndexTest,
                         testing::Values(World::Sparse, World::Mixed, World::Dense, World::All, World::Long));

TEST(PrefixTest, MeetsExactlyWhenOneContainsTheOther) {
  MatchGenerator generator(5, World::Long);
  for (int i = 0; i < 10000; ++i) {
    Prefix const a = generator.match().source, b = generator.match().source;
    unsigned const shorter = std::min(a.length, b.length);
    EXPECT_EQ(a.meets(b), a.cut(shorter) == b.cut(shorter));
  }
}

void expectOrder(RankList const& ranks, std::vector<U32> const& expected) {
  std::vector<U32> found;
  U64 last = 0;
  for (U32 slot = ranks.first(); slot != RankList::none; slot = ranks.next(slot)) {
    ASSERT_TRUE(found.empty() || ranks.tag(slot) > last);
    last = ranks.tag(slot);
    found.push_back(slot);
  }
  ASSERT_EQ(found, expected);
}

TEST(RankListTest, KeepsTheOrderOfRandomInserts) {
  MatchGenerator generator(1, World::All);
  RankList ranks;
  std::vector<U32> list, unused;
  for (U32 slot = 0; slot < 2000; ++slot) unused.push_back(slot);
  for (int i = 0; i < 3000; ++i) {
    if (list.size() > 5 && generator.below(3) == 0) {
      U32 const at = generator.below(list.size());
      ranks.remove(list[at]);
      unused.push_back(list[at]);
      list.erase(list.begin() + at);
    } else {
      U32 const at = generator.below(list.size() + 1), slot = unused.back();
      unused.pop_back();
      ranks.insert(slot, at < list.size() ? list[at] : RankList::none);
      list.insert(list.begin() + at, slot);
    }
    if (i % 50 == 0) expectOrder(ranks, list);
  }
}

TEST(RankListTest, FindsRoomAtOnePlaceForEver) {
  RankList ranks;
  ranks.insert(0);
  std::vector<U32> expected{0};
  for (U32 slot = 1; slot < 5000; ++slot) {
    ranks.insert(slot, 0);
    expected.insert(expected.end() - 1, slot);
  }
  expectOrder(ranks, expected);
}

}  // namespace
}  // namespace Planning
