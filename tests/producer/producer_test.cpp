// SPDX-License-Identifier: Apache-2.0
// What the producer chooses by itself: versions, handles, low parts; and that it finds all of it again in the
// tables.
#include <map>
#include <random>
#include <set>

#include "tests/producer/fixture.h"

namespace Vantrel {
namespace {

TEST_F(ProducerTest, VersionsRiseOverAllKinds) {
  OpId const a = put(1, 10, 5);
  OpId const b = put(2, 20, 6);
  OpId const c = producer->move(EntryKey(1), 4);
  producer->markDeleted(EntryKey(2));
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, record(2).opId());
}

TEST_F(ProducerTest, VersionsGoOnAfterARestart) {
  OpId const before = put(1, 10, 5);
  restart();
  EXPECT_GT(put(2, 20, 6), before);
}

TEST_F(ProducerTest, VersionsGoOnWhenOnlyTheStatusRemembers) {
  OpId const before = put(1, 10, 5);
  acknowledge(1);
  producer->remove(EntryKey(1));
  restart();
  EXPECT_GT(put(1, 10, 5), before);
}

TEST_F(ProducerTest, VersionsGoOnWhenOnlyTheTablesWritesRemember) {
  producer = std::make_unique<Producer>(config, status, Mapping::fast(), 41);
  EXPECT_EQ(put(1, 10, 5).high(), 42U);
}

TEST_F(ProducerTest, AnAcknowledgedDeleteIsNoVersion) {
  status->entryIs({EntryKey(9), OpId::deleteAcknowledge()});
  restart();
  EXPECT_EQ(put(1, 10, 5).high(), 1U);
}

TEST_F(ProducerTest, HandlesAreDifferentAndStay) {
  put(1, 10, 5);
  put(2, 20, 6);
  U32 const first = record(1).hdl();
  EXPECT_NE(first, record(2).hdl());
  put(1, 10, 7, {1});
  EXPECT_EQ(record(1).hdl(), first);
  restart();
  put(3, 30, 8);
  EXPECT_EQ((std::set{record(1).hdl(), record(2).hdl(), record(3).hdl()}.size()), 3U);
}

TEST_F(ProducerTest, HandlesStartOverAfterTheGreatest) {
  producer->put(entry(1, version(1, 0), 0xFFFFFFFF, 0, 10, 5));
  producer->put(entry(2, version(2, 0), 1, 0, 10, 6));
  put(3, 10, 7);
  EXPECT_EQ(record(3).hdl(), 2U);
}

TEST_F(ProducerTest, TheLowPartFollowsTheContentOnly) {
  U16 const first = put(1, 10, 5, {1}).low();
  EXPECT_EQ(put(1, 10, 6, {1}).low(), first) << "another position";
  EXPECT_EQ(producer->move(EntryKey(1), 7).low(), first);
  U16 const second = put(1, 10, 7, {2}).low();
  EXPECT_NE(second, first);
  U16 const third = put(1, 10, 7, {1}).low();
  EXPECT_NE(third, second);
  EXPECT_NE(third, first) << "the first content's version may be programmed, or the second's";
}

TEST_F(ProducerTest, AKeyThatComesBackIsWrittenAnew) {
  U16 const before = put(1, 10, 5, {1}).low();
  producer->remove(EntryKey(1));
  EXPECT_NE(put(1, 10, 5, {2}).low(), before);
}

TEST_F(ProducerTest, AKeyThatComesBackAfterARestartIsWrittenAnew) {
  U16 const before = put(1, 10, 5, {1}).low();
  acknowledge(1);
  producer->remove(EntryKey(1));
  restart();
  EXPECT_NE(put(1, 10, 5, {2}).low(), before);
}

// The engine's own test for "nothing to write".
bool takenForUnchanged(OpId programmed, OpId next) {
  return programmed.low() == next.low() && next.high() - programmed.high() <= 65535;
}

TEST_F(ProducerTest, NoChangeOfContentIsEverTakenForUnchanged) {
  // Every version a key has had may be the one that is programmed.
  std::mt19937 random(20260101);
  std::map<U64, std::vector<std::pair<OpId, U64>>> history;
  for (int i = 0; i < 20000; ++i) {
    U64 const key = 1 + random() % 3;
    U64 const content = random() % 3;
    OpId const version = put(key, 10, static_cast<U32>(key), {content});
    for (auto const& [old, oldContent] : history[key])
      ASSERT_FALSE(oldContent != content && takenForUnchanged(old, version)) << "step " << i;
    history[key].emplace_back(version, content);
    if (history[key].size() > 200) history[key].erase(history[key].begin(), history[key].begin() + 100);
  }
}

TEST_F(ProducerTest, ADeleteIsRemovedOnceAcknowledged) {
  put(1, 10, 5);
  put(2, 10, 6);
  producer->markDeleted(EntryKey(1));
  EXPECT_TRUE(record(1).isDel());
  EXPECT_EQ(producer->removeAcknowledged(), 0U);
  acknowledge(1);
  EXPECT_EQ(producer->awaited(EntryKey(1)), OpId::deleteAcknowledge());
  restart();
  EXPECT_EQ(producer->removeAcknowledged(), 1U);
  EXPECT_EQ(record(1), EntryConfig());
  EXPECT_FALSE(record(2) == EntryConfig());
}

TEST_F(ProducerTest, MarkingTwiceWritesOnce) {
  put(1, 10, 5);
  producer->markDeleted(EntryKey(1));
  EntryConfig const once = record(1);
  producer->markDeleted(EntryKey(1));
  EXPECT_EQ(record(1), once);
}

TEST_F(ProducerTest, AcknowledgedMeansThisVersion) {
  put(1, 10, 5);
  EXPECT_FALSE(producer->acknowledged(EntryKey(1)));
  acknowledge(1);
  EXPECT_TRUE(producer->acknowledged(EntryKey(1)));
  put(1, 10, 6);
  EXPECT_FALSE(producer->acknowledged(EntryKey(1)));
  EXPECT_FALSE(producer->acknowledged(EntryKey(2)));
}

TEST_F(ProducerTest, FreshKeysAreAboveAllThatEitherTableKnows) {
  EXPECT_EQ(producer->freshKey(), EntryKey(1));
  put(7, 10, 5);
  EXPECT_EQ(producer->freshKey(), EntryKey(8));
  status->entryIs({EntryKey(12), OpId(1)});
  restart();
  EXPECT_EQ(producer->freshKey(), EntryKey(13));
}

TEST_F(ProducerTest, WithoutAStatusTableNothingIsAcknowledged) {
  producer = std::make_unique<Producer>(config, nullptr, Mapping::fast());
  put(1, 10, 5);
  EXPECT_FALSE(producer->acknowledged(EntryKey(1)));
}

TEST_F(ProducerTest, StepsOverADamagedRecordAndHealsIt) {
  put(1, 10, 5, {7});
  put(2, 20, 6, {8});
  OpId const last = put(3, 30, 7, {9});
  config->damaged = EntryKey(2);
  producer = std::make_unique<Producer>(config, status, Mapping::fast(), 9);
  EXPECT_EQ(producer->freshKey(), EntryKey(4));
  OpId const next = put(1, 10, 8, {7});
  EXPECT_GT(next, last);
  EXPECT_TRUE(config->damaged) << "others are written";
  put(2, 21, 9, {8});
  EXPECT_FALSE(config->damaged);
  EXPECT_EQ(record(2).prio(), 21U);
  EXPECT_EQ(record(2).hdl(), 10U) << "above every handle that was ever chosen";
}

TEST_F(ProducerTest, GivesAHealedKeyAFreeHandle) {
  for (U64 key = 1; key <= 3; ++key) put(key, 10, static_cast<U32>(key));
  config->damaged = EntryKey(2);
  put(2, 20, 9);
  U32 const handle = record(2).hdl();
  EXPECT_EQ(handle, 4U) << "no key's, the damaged record's neither";
  put(2, 20, 10);
  EXPECT_EQ(record(2).hdl(), handle) << "it keeps it";
  put(4, 30, 11);
  EXPECT_EQ(record(4).hdl(), 5U);
}

TEST_F(ProducerTest, DeletesADamagedRecord) {
  put(1, 10, 5);
  put(2, 20, 6);
  config->damaged = EntryKey(2);
  restart();
  EXPECT_FALSE(producer->acknowledged(EntryKey(2)));
  producer->markDeleted(EntryKey(2));
  EXPECT_TRUE(record(2).isDel());
  EXPECT_NE(record(2).hdl(), record(1).hdl());
  acknowledge(2);
  EXPECT_EQ(producer->removeAcknowledged(), 1U);
  config->damaged = EntryKey(1);
  producer->remove(EntryKey(1));
  EXPECT_EQ(config->size(), 0U);
}

}  // namespace
}  // namespace Vantrel
