// SPDX-License-Identifier: Apache-2.0
// The contract of a shared table: what is written is read, walked and counted, through growth and reuse, by a
// reader that mounted it before or after.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
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

U64 kilobytesInHugePages() {
  std::ifstream maps("/proc/self/smaps");
  U64 sum = 0;
  for (std::string word; maps >> word;)
    if (U64 here; word == "ShmemPmdMapped:" && maps >> here) sum += here;
  return sum;
}

// Each stretch that is full, as the table grows and for the next writer; nothing of what readers see changes.
TEST(SharedTable, MayLieInHugePages) {
  Directory dir;
  std::map<U64, U64> model;
  constexpr U64 huge = Shoal::Mapping::hugePageBytes;
  auto writer = Ostra::make<Writer>(dir / "t", Shoal::WriterOptions{.hugePages = true});
  Reader early(dir / "t");
  for (U64 key = 1; key <= 30000; ++key) {
    writer->entryIs(record(key, key));
    model[key] = key;
    if (key % 10000 != 0) continue;
    EXPECT_EQ(contents(early), model);
  }
  Shoal::Mapping const mapping(dir / "t", Shoal::Mapping::Access::read);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(mapping.base()) % huge, 0U);
  U64 const made = writer->writerCounters().hugePages;
  if (made == 0) GTEST_SKIP() << "this kernel makes no huge pages of shared memory";
  U64 const fileBytes = std::filesystem::file_size(dir / "t");
  EXPECT_GT(fileBytes, 8 * huge);
  EXPECT_LE(made * huge, fileBytes);
  EXPECT_EQ(contents(Reader(dir / "t")), model);
  EXPECT_GT(kilobytesInHugePages(), made * huge / 1024);  // the writer's and the reader's
  writer = nullptr;
  writer = Ostra::make<Writer>(dir / "t", Shoal::WriterOptions{.hugePages = true});
  EXPECT_GT(writer->writerCounters().hugePages, 0U);
  EXPECT_EQ(contents(*writer), model);
  writer = Ostra::make<Writer>(dir / "other");
  for (U64 key = 1; key <= 10000; ++key) writer->entryIs(record(key, key));
  EXPECT_EQ(writer->writerCounters().hugePages, 0U);
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
