// SPDX-License-Identifier: Apache-2.0
#include "vantrel/sm/failed_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace Vantrel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FailedKeysTest : public testing::Test {
 protected:
  explicit FailedKeysTest() {
    for (U64 key : {9, 3, 5}) keys.set(EntryKey(key), true);
  }
  std::vector<U64> all() const {
    std::vector<U64> result;
    for (auto const& [key, value] : keys) result.push_back(key.value());
    return result;
  }
  FailedKeys keys;
};

TEST(FailedKeys, StartsEmptyWithVersionOne) {
  FailedKeys const keys;
  EXPECT_EQ(keys.version(), 1U);
  EXPECT_EQ(keys.size(), 0U);
  EXPECT_TRUE(keys.empty());
  EXPECT_EQ(keys.begin(), keys.end());
}

TEST_F(FailedKeysTest, KeysAscend) {
  EXPECT_THAT(all(), ElementsAre(3, 5, 9));
  EXPECT_EQ(keys.size(), 3U);
  EXPECT_EQ(keys.find(EntryKey(4)), keys.end());
  EXPECT_EQ(keys.find(EntryKey(5))->first, EntryKey(5));
  EXPECT_EQ(keys.upper_bound(EntryKey(5))->first, EntryKey(9));
  auto at = keys.begin();
  EXPECT_EQ(at++->first, EntryKey(3));
  EXPECT_EQ(at->first, EntryKey(5));
}

TEST_F(FailedKeysTest, VersionRisesOnInsertionAndRemoval) {
  EXPECT_EQ(keys.version(), 4U);
  keys.set(EntryKey(5), false);
  EXPECT_EQ(keys.version(), 4U) << "its value changed, not the keys";
  EXPECT_FALSE(keys.find(EntryKey(5))->second);
  keys.set(EntryKey(6), true);
  EXPECT_EQ(keys.version(), 5U);
  keys.erase(keys.begin());
  EXPECT_EQ(keys.version(), 6U);
  EXPECT_EQ(keys.size(), 3U);
}

TEST_F(FailedKeysTest, IteratorAdvancesFromWhereItsKeyWas) {
  for (auto at = keys.begin(); at != keys.end(); ++at) at = keys.erase(at);
  EXPECT_THAT(all(), IsEmpty());
}

TEST_F(FailedKeysTest, IteratorSeesInsertedAndRemovedKeys) {
  auto at = keys.find(EntryKey(5));
  at = keys.erase(at);
  for (U64 key : {4, 5, 7}) keys.set(EntryKey(key), true);
  ++at;
  EXPECT_EQ(at->first, EntryKey(7)) << "not 5 again, and not 9, its successor of before";
  keys.erase(keys.find(EntryKey(9)));
  ++at;
  EXPECT_EQ(at, keys.end());
}

TEST_F(FailedKeysTest, IteratorWhoseKeyIsRemovedByAnotherGoesOn) {
  auto at = keys.begin();
  keys.erase(keys.find(EntryKey(3)));
  keys.erase(keys.find(EntryKey(5)));
  ++at;
  EXPECT_EQ(at->first, EntryKey(9));
  ++at;
  EXPECT_EQ(at, keys.end());
}

}  // namespace
}  // namespace Vantrel
