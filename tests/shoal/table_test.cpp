// SPDX-License-Identifier: Apache-2.0
// The contract of a shared table: what is written is read, walked and counted, through growth and reuse, by a
// reader that mounted it before or after.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>

#include "fixture.h"

namespace ShoalTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(SharedTable, ReadsWhatWasWritten) {
  Directory dir;
  Writer writer(dir / "t");
  Reader reader(dir / "t");
  writer.entryIs(record(5, 1));
  EXPECT_EQ(reader.entry(EntryKey(5)), record(5, 1));
  EXPECT_EQ(writer.entry(EntryKey(5)), record(5, 1));
  EXPECT_EQ(reader.entry(EntryKey(6)), Config());
  writer.entryIs(record(5, 2));
  EXPECT_EQ(reader.entry(EntryKey(5)), record(5, 2));
  EXPECT_EQ(reader.size(), 1U);
  writer.entryDel(EntryKey(5));
  writer.entryDel(EntryKey(5));
  EXPECT_EQ(reader.entry(EntryKey(5)), Config());
  EXPECT_EQ(reader.size(), 0U);
}

TEST(SharedTable, AgreesWithAMapThroughGrowthAndReuse) {
  Directory dir;
  std::map<U64, U64> model;
  auto writer = Ostra::make<Writer>(dir / "t");
  Reader early(dir / "t");
  std::mt19937_64 random(7);
  for (U64 step = 1; step <= 60000; ++step) {
    U64 const key = random() % 9000;
    if (random() % 3 == 0) {
      writer->entryDel(EntryKey(key));
      model.erase(key);
    } else {
      writer->entryIs(record(key, step));
      model[key] = step;
    }
    if (step % 20000 == 0) {
      EXPECT_EQ(contents(early), model);
      EXPECT_EQ(early.size(), model.size());
    }
    if (step != 30000) continue;
    writer = nullptr;
    writer = Ostra::make<Writer>(dir / "t");
  }
  EXPECT_EQ(contents(Reader(dir / "t")), model);
  EXPECT_EQ(contents(*writer), model);
}

TEST(SharedTable, NotifiesByKeyAndSleepsBetween) {
  Directory dir;
  Writer writer(dir / "t");
  auto reader = Ostra::make<Reader>(dir / "t");
  Watcher watcher;
  watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
  watcher.hasNotificationActiveIs(true);
  EXPECT_EQ(watcher.collections, 1);
  settle(*reader);
  EXPECT_FALSE(readable(reader->fd(), 20));
  writer.entryIs(record(1, 1));
  EXPECT_TRUE(readable(reader->fd(), 1000));
  settle(*reader, 20);
  writer.entryIs(record(2, 1));
  writer.entryDel(EntryKey(1));
  settle(*reader, 20);
  EXPECT_THAT(watcher.keys, ElementsAre(1, 2, 1));
  EXPECT_EQ(watcher.collections, 1);
  EXPECT_EQ(watcher.seen, (std::map<U64, U64>{{2, 1}}));
}

TEST(SharedTable, FollowsAFileThatReplacedItsOwn) {
  Directory dir;
  auto writer = Ostra::make<Writer>(dir / "t");
  writer->entryIs(record(1, 1));
  writer->entryIs(record(2, 1));
  auto reader = Ostra::make<Reader>(dir / "t");
  Watcher watcher;
  watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
  watcher.hasNotificationActiveIs(true);
  settle(*reader);
  reader->dispatch();
  watcher.keys.clear();
  writer = nullptr;
  settle(*reader, 20);
  writer = Ostra::make<Writer>(dir / "t", Shoal::WriterOptions{.replace = true});
  writer->entryIs(record(3, 9));
  settle(*reader, 20);
  EXPECT_EQ(watcher.seen, (std::map<U64, U64>{{3, 9}}));
  EXPECT_EQ(watcher.collections, 2);
  writer->entryIs(record(4, 9));
  settle(*reader, 20);
  EXPECT_EQ(watcher.seen, (std::map<U64, U64>{{3, 9}, {4, 9}}));
}

TEST(SharedTable, RefusesASecondWriterNamingTheFirst) {
  Directory dir;
  Writer const writer(dir / "t");
  try {
    Writer const second(dir / "t");
    FAIL() << "two writers";
  } catch (Shoal::WriterLockedException const& error) {
    EXPECT_EQ(error.holder(), getpid());
    EXPECT_THAT(error.what(), HasSubstr("process " + std::to_string(getpid())));
  }
}

// A table may go with the process's statics, whatever went before it.
TEST(SharedTable, MayBeAStatic) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own, in which nothing was made yet
  auto const leave = [] {
    static Directory dir;
    static std::unique_ptr<Writer> table;  // made before all that the table makes on its way
    table = std::make_unique<Writer>(dir / "t");
    std::exit(0);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ShoalTest
