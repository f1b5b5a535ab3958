// SPDX-License-Identifier: Apache-2.0
// The map in pieces against the standard one, and what it is there for: that an insert moves little.
#include "ostra/piecewise_map.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <stdexcept>
#include <unordered_map>
#include <vector>

namespace Ostra {
namespace {

// Says little in its upper bits, or nothing at all.
struct Identity {
  std::size_t operator()(U64 key) const { return key; }
};
struct Constant {
  std::size_t operator()(U64) const { return 7; }
};

template <class Hash>
class PiecewiseMapTest : public testing::Test {
 protected:
  using Map = PiecewiseMap<U64, U64, Hash>;
  static void expectSame(Map const& map, std::unordered_map<U64, U64> const& reference) {
    ASSERT_EQ(map.size(), reference.size());
    std::size_t met = 0;
    for (auto const& [key, value] : map) {
      auto const at = reference.find(key);
      ASSERT_NE(at, reference.end()) << key;
      ASSERT_EQ(value, at->second);
      ++met;
    }
    EXPECT_EQ(met, reference.size()) << "each is met once";
    std::size_t inPieces = 0;
    for (auto const& piece : map.pieces()) inPieces += piece.size();
    EXPECT_EQ(inPieces, reference.size());
  }
};
using Hashes = testing::Types<std::hash<U64>, Identity, Constant>;
TYPED_TEST_SUITE(PiecewiseMapTest, Hashes);

}  // namespace

TYPED_TEST(PiecewiseMapTest, DoesWhatTheStandardMapDoes) {
  typename TestFixture::Map map;
  std::unordered_map<U64, U64> reference;
  std::mt19937_64 random(11);
  for (int i = 0; i < 60'000; ++i) {
    // The range widens until the one map is split.
    U64 const key = random() % (i < 20'000 ? 500U : 30'000U), value = random();
    switch (random() % 6) {
      case 0:
      case 1:
      case 2: {
        auto const [at, inserted] = map.try_emplace(key, value);
        auto const [wanted, isNew] = reference.try_emplace(key, value);
        ASSERT_EQ(inserted, isNew);
        ASSERT_EQ(*at, (std::pair<U64 const, U64>(*wanted)));
        break;
      }
      case 3:
        ASSERT_EQ(map.erase(key), reference.erase(key));
        break;
      case 4:
        if (auto const at = map.find(key); at != map.end()) map.erase(at);
        reference.erase(key);
        break;
      default:
        ASSERT_EQ(map.contains(key), reference.contains(key));
        ASSERT_EQ(map.find(key) == map.end(), !reference.contains(key));
        map[key] = reference[key] = value;
        ASSERT_EQ(std::as_const(map).find(key)->second, value);
        ASSERT_EQ(map.at(key), value);
    }
  }
  this->expectSame(map, reference);
  ASSERT_GT(map.pieces().size(), 1U);
  map.clear();
  this->expectSame(map, {});
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.begin(), map.end());
}

TEST(PiecewiseMap, StartsEmpty) {
  PiecewiseMap<U64, U64> const map;
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.size(), 0U);
  EXPECT_EQ(map.begin(), map.end());
  EXPECT_EQ(map.find(1), map.end());
  EXPECT_THROW(map.at(1), std::out_of_range);
}

TEST(PiecewiseMap, IteratorsLeadThroughAllPieces) {
  PiecewiseMap<U64, U64> map;
  for (U64 key : {1, 2, 3}) map.try_emplace(key, 10 * key);
  std::vector<U64> keys;
  PiecewiseMap<U64, U64>::const_iterator at = map.begin();
  while (at != map.end()) keys.push_back(at++->first);
  EXPECT_THAT(keys, testing::UnorderedElementsAre(1, 2, 3));
  map.begin()->second = 5;
  EXPECT_EQ(map.at(map.begin()->first), 5U);
}

// Keys as agents number their handles: one by one, with gaps of a power of two, or in the upper half only.
TEST(PiecewiseMap, KeysSpreadOverThePieces) {
  constexpr U64 members = 100'000;
  for (int const shift : {0, 8, 20, 32, 40}) {
    PiecewiseMap<U64, U64, Identity> map;
    for (U64 i = 0; i < members; ++i) map.try_emplace(i << shift, i);
    auto const pieces = map.pieces();
    ASSERT_EQ(pieces.size(), 256U);
    std::size_t largest = 0;
    for (auto const& piece : pieces) largest = std::max(largest, piece.size());
    EXPECT_LT(largest, 2 * members / pieces.size()) << shift;
  }
}

TEST(PiecewiseMap, IsOneMapUntilItIsLarge) {
  PiecewiseMap<U64, U64> map;
  for (U64 key = 0; key < map.splitAt; ++key) map.try_emplace(key, key + 1);
  EXPECT_EQ(map.pieces().size(), 1U);
  map.try_emplace(0, 7);
  map.try_emplace(map.splitAt, 7);
  EXPECT_EQ(map.pieces().size(), 256U);
  EXPECT_EQ(map.size(), map.splitAt + 1);
  for (U64 key = 0; key < map.splitAt; ++key) ASSERT_EQ(map.at(key), key + 1);
  EXPECT_EQ(static_cast<std::size_t>(std::distance(map.begin(), map.end())), map.size());
  map.clear();
  EXPECT_EQ(map.pieces().size(), 1U);
  EXPECT_TRUE(map.empty());
}

// What an insert moves is what lies elsewhere afterwards.
TEST(PiecewiseMap, AnInsertMovesOnePieceAtMost) {
  PiecewiseMap<U64, U64> map;
  auto const firsts = [&map] {
    std::vector<void const*> places;
    for (auto const& piece : map.pieces()) places.push_back(piece.empty() ? nullptr : &*piece.begin());
    return places;
  };
  U64 key = 0;
  while (map.size() <= map.splitAt) map.try_emplace(key, key), ++key;
  std::size_t moves = 0;
  for (U64 const end = key + 50'000; key < end; ++key) {
    auto const before = firsts();
    map.try_emplace(key, key);
    auto const after = firsts();
    std::size_t changed = 0;
    for (std::size_t i = 0; i < after.size(); ++i) changed += before[i] != after[i];
    ASSERT_LE(changed, 1U);
    moves += changed;
  }
  EXPECT_GT(moves, map.pieces().size()) << "each of them has grown";
}

}  // namespace Ostra
