// SPDX-License-Identifier: Apache-2.0
#include "producer/acknowledgements.h"

#include "tests/producer/fixture.h"

namespace Vantrel {
namespace {

class AcknowledgementsTest : public ProducerTest {
 protected:
  Acknowledgements waiting{status};
  void say(U64 key, OpId opId) { status->entryIs({EntryKey(key), opId}); }
};

TEST_F(AcknowledgementsTest, EndWithExactlyTheAwaitedVersion) {
  waiting.await(EntryKey(1), OpId(20));
  say(1, OpId(10));
  EXPECT_FALSE(waiting.done());
  say(2, OpId(20));
  EXPECT_FALSE(waiting.done());
  say(1, OpId(20));
  EXPECT_TRUE(waiting.done());
}

TEST_F(AcknowledgementsTest, WhatIsThereAlreadyIsSeenAtOnce) {
  say(1, OpId(20));
  waiting.await(EntryKey(1), OpId(20));
  EXPECT_TRUE(waiting.done());
}

TEST_F(AcknowledgementsTest, ADeleteEndsWithItsMark) {
  waiting.await(EntryKey(1), OpId::deleteAcknowledge());
  status->entryDel(EntryKey(1));
  EXPECT_FALSE(waiting.done());
  say(1, OpId::deleteAcknowledge());
  EXPECT_TRUE(waiting.done());
}

TEST_F(AcknowledgementsTest, IgnoresTheMarkOfAnEarlierDelete) {
  say(1, OpId::deleteAcknowledge());
  waiting.awaitDelete(EntryKey(1));
  EXPECT_FALSE(waiting.done());
  waiting.await(EntryKey(2), OpId(20));
  say(2, OpId(20));
  EXPECT_EQ(waiting.keys(), std::vector{EntryKey(1)});
  say(1, OpId(20));  // the version that the delete is about
  EXPECT_FALSE(waiting.done());
  say(1, OpId::deleteAcknowledge());
  EXPECT_TRUE(waiting.done());
}

TEST_F(AcknowledgementsTest, TakesTheSameMarkWrittenAgain) {
  say(1, OpId::deleteAcknowledge());
  waiting.awaitDelete(EntryKey(1));
  say(1, OpId::deleteAcknowledge());
  EXPECT_TRUE(waiting.done());
}

TEST_F(AcknowledgementsTest, AWholeCollectionNotificationLooksAtAll) {
  waiting.await(EntryKey(1), OpId(20));
  waiting.await(EntryKey(2), OpId(21));
  waiting.await(EntryKey(3), OpId(22));
  status->entryQuietlyIs({EntryKey(1), OpId(20)});
  status->entryQuietlyIs({EntryKey(3), OpId(22)});
  EXPECT_EQ(waiting.outstanding(), 3U);
  status->notifyEntryColl();
  EXPECT_EQ(waiting.keys(), std::vector{EntryKey(2)});
  EXPECT_EQ(waiting.awaited(EntryKey(2)), OpId(21));
}

TEST_F(AcknowledgementsTest, TheHandlerHearsEachKeyOnceAndMayGoOn) {
  std::vector<U64> heard;
  waiting.onAcknowledgedIs([&](EntryKey key) {
    heard.push_back(key.value());
    if (key == EntryKey(1)) waiting.await(EntryKey(2), OpId(30));
  });
  waiting.await(EntryKey(1), OpId(20));
  say(1, OpId(20));
  say(1, OpId(20));
  say(2, OpId(30));
  EXPECT_EQ(heard, (std::vector<U64>{1, 2}));
  EXPECT_TRUE(waiting.done());
}

TEST_F(AcknowledgementsTest, AForgottenKeyIsNotAwaited) {
  waiting.await(EntryKey(1), OpId(20));
  waiting.forget(EntryKey(1));
  EXPECT_TRUE(waiting.done());
}

}  // namespace
}  // namespace Vantrel
