// SPDX-License-Identifier: Apache-2.0
// Watchers of a shared table that go, turn to another table or stop watching while they, or their neighbours,
// are being told: the others hear everything, and nobody who left hears more.
#include <gmock/gmock.h>

#include <functional>
#include <memory>

#include "watching.h"

namespace ShoalTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TablePtr = Ostra::Ptr<Shoal::Table<Config> const>;

// A watcher that does something once, in the middle of being told. The deed is moved off the object first:
// it may be the object's end.
class Acting : public Watcher {
 public:
  explicit Acting(TablePtr table) {
    notifierIs(std::move(table));
    synchronizedIs(true);
    hasNotificationActiveIs(true);
  }
  void onEntry(EntryKey const& key) override {
    Watcher::onEntry(key);
    if (auto const act = std::exchange(onKey, nullptr)) act();
  }
  void onEntryColl() override {
    Watcher::onEntryColl();
    if (auto const act = std::exchange(onWhole, nullptr)) act();
  }
  std::function<void()> onKey, onWhole;
};

// Three watchers of one table, told in this order; the middle one acts.
class Leaving : public testing::Test {
 protected:
  Leaving() {
    settle(*reader);
    first = std::make_unique<Acting>(reader);
    middle = std::make_unique<Acting>(reader);
    last = std::make_unique<Acting>(reader);
  }
  // The ring overflows: the whole is told, after those that vanished.
  void overflow() {
    for (U64 i = 0; i < 40; ++i) writer.entryIs(record(50, 100 + i));
  }
  void tell(U64 key) {
    writer.entryIs(record(key, ++version));
    settle(*reader, 10);
  }

  Directory dir;
  Writer writer{dir / "t", {.ringEntries = 16}};
  Writer otherWriter{dir / "other"};
  Ostra::Ptr<Reader> reader = Ostra::make<Reader>(dir / "t");
  Ostra::Ptr<Reader> other = Ostra::make<Reader>(dir / "other");
  std::unique_ptr<Acting> first, middle, last;
  U64 version = 0;
};

TEST_F(Leaving, AWatcherMayGoInItsOwnNotification) {
  middle->onKey = [this] { middle.reset(); };
  tell(1);
  EXPECT_FALSE(middle);
  tell(2);
  EXPECT_THAT(first->keys, ElementsAre(1, 2));
  EXPECT_THAT(last->keys, ElementsAre(1, 2));
}

TEST_F(Leaving, AWatcherMayGoInItsOwnWholeNotification) {
  middle->onWhole = [this] { middle.reset(); };
  overflow();
  settle(*reader, 10);
  EXPECT_FALSE(middle);
  EXPECT_EQ(first->collections, 1);
  EXPECT_EQ(last->collections, 1);
  EXPECT_EQ(last->seen, contents(*reader));
}

// Of several keys in one dispatch, it hears no more.
TEST_F(Leaving, NeighboursOnBothSidesMayGo) {
  middle->onKey = [this] {
    first.reset();
    last.reset();
  };
  writer.entryIs(record(1, 1));
  writer.entryIs(record(2, 1));
  settle(*reader, 10);
  EXPECT_THAT(middle->keys, ElementsAre(1, 2));
}

TEST_F(Leaving, AllMayGoWhileTheWholeIsTold) {
  for (U64 key : {1, 2, 3}) tell(key);
  for (U64 key : {1, 2, 3}) writer.entryDel(EntryKey(key));
  overflow();
  // The first of those that vanished is told, and there is nobody left to tell of the others.
  middle->onKey = [this] {
    first.reset();
    last.reset();
    middle.reset();
  };
  settle(*reader, 10);
  EXPECT_FALSE(middle);
  Acting late(reader);
  tell(4);
  EXPECT_THAT(late.keys, ElementsAre(4));
}

TEST_F(Leaving, AWatcherMayTurnAwayInItsOwnNotification) {
  otherWriter.entryIs(record(77, 1));
  settle(*other, 10);
  middle->onKey = [this] {
    middle->notifierIs(TablePtr(other));
    middle->hasNotificationActiveIs(true);
  };
  writer.entryIs(record(1, 1));
  writer.entryIs(record(2, 1));
  settle(*reader, 10);
  EXPECT_THAT(first->keys, ElementsAre(1, 2));
  EXPECT_THAT(middle->keys, ElementsAre(1));
  EXPECT_EQ(middle->collections, 1) << "it begins with the whole of the other table";
  EXPECT_TRUE(middle->seen.contains(77));
  EXPECT_THAT(last->keys, ElementsAre(1, 2));
  otherWriter.entryIs(record(78, 1));
  settle(*other, 10);
  EXPECT_THAT(middle->keys, ElementsAre(1, 78));
}

TEST_F(Leaving, ANeighbourMayBeTurnedAwayBeforeItsTurn) {
  middle->onKey = [this] {
    first->notifierIs(TablePtr(other));
    last->notifierIs(nullptr);
  };
  tell(1);
  tell(2);
  EXPECT_THAT(first->keys, ElementsAre(1));
  EXPECT_THAT(middle->keys, ElementsAre(1, 2));
  EXPECT_THAT(last->keys, IsEmpty());
}

TEST_F(Leaving, AWatcherMayRestWhileTheWholeIsTold) {
  middle->onWhole = [this] { middle->notifierIs(nullptr); };
  overflow();
  settle(*reader, 10);
  tell(2);
  EXPECT_EQ(middle->collections, 1);
  EXPECT_THAT(middle->keys, IsEmpty());
  middle->notifierIs(TablePtr(reader));
  middle->hasNotificationActiveIs(true);
  EXPECT_EQ(middle->collections, 2);
  tell(3);
  EXPECT_THAT(middle->keys, ElementsAre(3));
  EXPECT_THAT(last->keys, ElementsAre(2, 3));
}

// It joins the end of the list that is being told, and is first told of the next change.
TEST_F(Leaving, AWatcherMayComeBackInItsOwnNotification) {
  middle->onKey = [this] {
    middle->notifierIs(nullptr);
    middle->notifierIs(TablePtr(reader));
    middle->synchronizedIs(true);
  };
  tell(1);
  EXPECT_THAT(middle->keys, ElementsAre(1));
  tell(2);
  EXPECT_THAT(middle->keys, ElementsAre(1, 2));
  EXPECT_THAT(last->keys, ElementsAre(1, 2));
}

// The watchers hold the table, and the last of them goes: the table with it, once the dispatch is through.
TEST_F(Leaving, TheTableMayGoWithItsLastWatcher) {
  for (auto const act : {&Acting::onKey, &Acting::onWhole}) {
    Ostra::Ptr<Reader> own = Ostra::make<Reader>(dir / "t");
    settle(*own);
    auto alone = std::make_unique<Acting>(own);
    (*alone).*act = [&] {
      alone.reset();
      own = nullptr;
    };
    if (act == &Acting::onKey) {
      writer.entryIs(record(1, ++version));
      writer.entryIs(record(2, ++version));
    } else {
      overflow();
    }
    ASSERT_TRUE(readable(own->fd(), 10));
    Reader& table = *own;
    table.dispatch();
    EXPECT_FALSE(alone);
  }
}

// The descriptor of a table that went in its own dispatch is closed, and its slot is another's to take.
TEST_F(Leaving, ATableThatWentGivesItsSlotBack) {
  middle->onKey = [this] {
    first.reset();
    middle.reset();
    last.reset();
    reader = nullptr;
  };
  ASSERT_EQ(slotsTaken(dir / "t"), 1U);
  writer.entryIs(record(1, 1));
  Reader& table = *reader;
  ASSERT_TRUE(readable(table.fd(), 10));
  table.dispatch();
  EXPECT_EQ(slotsTaken(dir / "t"), 0U);
}

}  // namespace
}  // namespace ShoalTest
