// SPDX-License-Identifier: Apache-2.0
#include "producer/acknowledgements.h"

#include <poll.h>

#include <filesystem>

#include "shoal/inspect.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "tests/producer/fixture.h"
#include "tests/support/temp_dir.h"

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

// Its reader copies a status, and meanwhile the agent writes.
TEST_F(AcknowledgementsTest, TakesNoMarkThatIsReplacedWhileRead) {
  class Busy : public Shoal::LocalTable<EntryStatus> {
   public:
    EntryStatus entry(EntryKey const& key) const override {
      EntryStatus const found = LocalTable::entry(key);
      if (agent) std::exchange(agent, nullptr)();
      return found;
    }
    mutable std::function<void()> agent;
  };
  auto const table = Ostra::make<Busy>();
  Acknowledgements busy{table};
  table->entryIs({EntryKey(1), OpId::deleteAcknowledge()});
  busy.awaitDelete(EntryKey(1));
  table->agent = [&] { table->entryQuietlyIs({EntryKey(1), OpId(20)}); };
  table->notifyEntryColl();
  EXPECT_FALSE(busy.done());
  table->entryIs({EntryKey(1), OpId::deleteAcknowledge()});
  EXPECT_TRUE(busy.done());
}

// The status table in a file, and an agent that writes it.
class StatusFileTest : public testing::Test {
 protected:
  using Writer = Shoal::WriterTable<EntryStatus>;
  using Reader = Shoal::ReaderTable<EntryStatus>;

  StatusFileTest() {
    startAgent(true);
    say(1, OpId::deleteAcknowledge());
    reader = Ostra::make<Reader>(path());
    waiting = std::make_unique<Acknowledgements>(reader);
    settle();
  }

  std::string path() const { return dir / "status.shoal"; }
  void startAgent(bool replace) {
    agent = nullptr;
    agent = Ostra::make<Writer>(path(), Shoal::WriterOptions{.replace = replace, .ringEntries = 16});
  }
  void say(U64 key, OpId opId) { agent->entryIs({EntryKey(key), opId}); }
  void settle() {
    for (pollfd p{reader->fd(), POLLIN, 0}; poll(&p, 1, 0) == 1;) reader->dispatch();
  }
  bool isDone() {
    settle();
    return waiting->done();
  }

  TestSupport::TempDir const dir;
  Ostra::Ptr<Writer> agent;
  Ostra::Ptr<Reader> reader;
  std::unique_ptr<Acknowledgements> waiting;
};

TEST_F(StatusFileTest, IgnoresAnEarlierMarkFarBehindTheRing) {
  waiting->awaitDelete(EntryKey(1));
  for (U64 key = 2; key < 100; ++key) say(key, OpId(key));
  EXPECT_FALSE(isDone());
  say(1, OpId::deleteAcknowledge());
  for (U64 key = 2; key < 100; ++key) say(key, OpId(key));
  EXPECT_TRUE(isDone());
}

TEST_F(StatusFileTest, IgnoresAnEarlierMarkInARepairedTable) {
  waiting->awaitDelete(EntryKey(1));
  agent = nullptr;
  EXPECT_EQ(Shoal::repair(path()).records, 1U);
  EXPECT_FALSE(isDone());
  startAgent(false);
  EXPECT_FALSE(isDone());
  say(1, OpId::deleteAcknowledge());
  EXPECT_TRUE(isDone());
}

TEST_F(StatusFileTest, TakesAnyMarkOfAnotherAgent) {
  for (bool const remove : {true, false}) {
    waiting->awaitDelete(EntryKey(1));
    if (remove) std::filesystem::remove(path());  // the next one counts its changes from zero again
    startAgent(true);
    EXPECT_FALSE(isDone()) << "it begins empty";
    say(1, OpId::deleteAcknowledge());
    EXPECT_TRUE(isDone()) << remove;
  }
}

}  // namespace
}  // namespace Vantrel
