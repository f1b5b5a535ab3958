// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/layout.h"

#include <gtest/gtest.h>

#include <random>

namespace Acl {
namespace {

using Places = std::vector<std::optional<U32>>;
constexpr std::nullopt_t none = std::nullopt;

std::size_t staying(Places const& before, std::vector<U32> const& after) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < before.size(); ++i) count += before[i] == after[i];
  return count;
}

// The most that can stay, by trying every ascending choice of places.
std::size_t mostStaying(Places const& before, U32 capacity, std::size_t rank = 0, U32 from = 0) {
  if (rank == before.size()) return 0;
  std::size_t best = 0;
  for (U32 place = from; place + (before.size() - rank) <= capacity; ++place)
    best = std::max(best, (before[rank] == place) + mostStaying(before, capacity, rank + 1, place + 1));
  return best;
}

TEST(LayoutTest, FreshEntriesAreSpreadWithRoomBetween) {
  EXPECT_EQ(layOut({none, none, none}, 7), (std::vector<U32>{1, 3, 5}));
  EXPECT_EQ(layOut({none, none, none, none}, 100), (std::vector<U32>{19, 39, 59, 79}));
  EXPECT_EQ(layOut({}, 0), std::vector<U32>{});
}

TEST(LayoutTest, AFullRowHasOnePlaceForEach) {
  EXPECT_EQ(layOut({none, none, none}, 3), (std::vector<U32>{0, 1, 2}));
}

TEST(LayoutTest, WhatIsInOrderStays) {
  EXPECT_EQ(layOut({2U, none, 9U, 10U}, 20), (std::vector<U32>{2, 5, 9, 10}));
}

TEST(LayoutTest, ANeighbourMakesRoomWhenThereIsNone) {
  EXPECT_EQ(layOut({0U, 2U, none, 3U, 7U}, 8), (std::vector<U32>{0, 1, 2, 3, 7}));
}

TEST(LayoutTest, APlaceBeyondTheRowIsGivenUp) { EXPECT_EQ(layOut({1U, 50U}, 4), (std::vector<U32>{1, 2})); }

TEST(LayoutTest, NoMoreMoveThanMust) {
  std::mt19937 random(5);
  for (int i = 0; i < 3000; ++i) {
    U32 const capacity = 1 + static_cast<U32>(random() % 8);
    Places places(random() % (capacity + 1));
    for (auto& place : places)
      if (random() % 4) place = static_cast<U32>(random() % (capacity + 2));
    std::vector<U32> const after = layOut(places, capacity);
    for (std::size_t r = 0; r < after.size(); ++r) {
      ASSERT_LT(after[r], capacity);
      if (r) {
        ASSERT_LT(after[r - 1], after[r]);
      }
    }
    ASSERT_EQ(staying(places, after), mostStaying(places, capacity)) << "case " << i;
  }
}

}  // namespace
}  // namespace Acl
