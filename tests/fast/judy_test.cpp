// SPDX-License-Identifier: Apache-2.0
// The typed Judy wrapper against the standard containers: an installed Judy that loses keys must fail here.
#include "vantrel/fast/judy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

using namespace Vantrel;

namespace {

struct Shape {
  char const* name;
  U32 (*key)(std::mt19937_64&);
};

constexpr Shape shapes[] = {
    {"dense", [](std::mt19937_64& r) { return static_cast<U32>(r() % 20000); }},
    {"sparse", [](std::mt19937_64& r) { return static_cast<U32>(r()); }},
    {"clustered", [](std::mt19937_64& r) { return static_cast<U32>((r() % 64) * 0x03F00000U + r() % 300); }},
    {"groups", [](std::mt19937_64& r) { return static_cast<U32>((r() % 8) << 19 | r() % 4000); }},
    {"ends",
     [](std::mt19937_64& r) { return static_cast<U32>(r() % 2 ? r() % 50 : 0xFFFFFFFFU - r() % 50); }},
};

constexpr int operations = 1'000'000;  // a shape and a structure

class JudyAgainstStd : public testing::TestWithParam<Shape> {};

}  // namespace

TEST_P(JudyAgainstStd, MapKeepsEveryKeyInOrder) {
  std::mt19937_64 random(0x5EED);
  JudyMap<int> judy;
  std::map<U32, int*> reference;
  static int values[1024];
  for (int i = 0; i < operations; ++i) {
    U32 const key = GetParam().key(random);
    int* const value = &values[random() % 1024];
    switch (random() % 6) {
      case 0:
      case 1: {
        int** const slot = judy.insert(key);
        ASSERT_EQ(*slot == nullptr, !reference.contains(key)) << i;
        *slot = value;
        reference[key] = value;
        break;
      }
      case 2:
        ASSERT_EQ(judy.remove(key), reference.erase(key) == 1) << i;
        break;
      case 3: {
        auto const at = reference.find(key);
        ASSERT_EQ(judy.at(key), at == reference.end() ? nullptr : at->second) << i;
        break;
      }
      case 4: {
        auto const at = reference.upper_bound(key);
        auto const found = judy.above(key);
        ASSERT_EQ(found.has_value(), at != reference.end()) << i;
        if (found) {
          ASSERT_EQ(found->index, at->first) << i;
          ASSERT_EQ(found->value, at->second) << i;
        }
        auto const from = reference.lower_bound(key);
        auto const first = judy.atOrAbove(key);
        ASSERT_EQ(first.has_value(), from != reference.end()) << i;
        if (first) {
          ASSERT_EQ(first->index, from->first) << i;
        }
        break;
      }
      default: {
        auto const at = reference.lower_bound(key);
        auto const found = judy.below(key);
        ASSERT_EQ(found.has_value(), at != reference.begin()) << i;
        if (found) {
          ASSERT_EQ(found->index, std::prev(at)->first) << i;
        }
      }
    }
    if (i % 4096 == 0) {
      ASSERT_EQ(judy.count(), reference.size()) << i;
    }
  }
  auto at = reference.begin();
  for (auto item = judy.atOrAbove(0); item; item = judy.above(item->index), ++at) {
    ASSERT_NE(at, reference.end());
    ASSERT_EQ(item->index, at->first);
    ASSERT_EQ(item->value, at->second);
  }
  EXPECT_EQ(at, reference.end());
  EXPECT_EQ(judy.count(), reference.size());
}

TEST_P(JudyAgainstStd, SetKeepsEveryMember) {
  std::mt19937_64 random(0x5EED);
  JudySet judy;
  std::set<U64> reference;
  for (int i = 0; i < operations; ++i) {
    U64 const key = random() % 4 ? GetParam().key(random) : U64{GetParam().key(random)} << 32;
    switch (random() % 3) {
      case 0:
        ASSERT_EQ(judy.insert(key), reference.insert(key).second) << i;
        break;
      case 1:
        ASSERT_EQ(judy.remove(key), reference.erase(key) == 1) << i;
        break;
      default:
        ASSERT_EQ(judy.contains(key), reference.contains(key)) << i;
    }
  }
  EXPECT_EQ(judy.empty(), reference.empty());
}

INSTANTIATE_TEST_SUITE_P(Shapes, JudyAgainstStd, testing::ValuesIn(shapes),
                         [](auto const& shape) { return std::string(shape.param.name); });

TEST(JudyMap, StartsEmptyAndCountsTheWholeRange) {
  JudyMap<int> map;
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.count(), 0U);
  EXPECT_EQ(map.find(3), nullptr);
  int value;
  *map.insert(0) = &value;
  *map.insert(0xFFFFFFFF) = &value;
  EXPECT_EQ(map.count(), 2U);
  EXPECT_FALSE(map.below(0));
  EXPECT_FALSE(map.above(0xFFFFFFFF));
  EXPECT_EQ(map.above(0)->index, 0xFFFFFFFFU);
  EXPECT_GT(map.memoryUsed(), 0U);
}
