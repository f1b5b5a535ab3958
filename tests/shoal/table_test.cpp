// SPDX-License-Identifier: Apache-2.0
// The contract of a shared table: what is written is read, walked and counted, through growth and reuse, by a
// reader that mounted it before or after.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "fixture.h"
#include "shoal/inspect.h"
#include "shoal/table_writer.h"

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

TEST(SharedTable, GivesEachWriteOfAKeyANewChange) {
  Directory dir;
  Writer writer(dir / "t");
  Reader reader(dir / "t");
  EXPECT_EQ(reader.changeOf(EntryKey(5)), Shoal::Change());
  std::vector<Shoal::Change> seen;
  for (U64 round = 0; round < 40; ++round) {
    writer.entryIs(record(5, 1));
    Shoal::Change const change = reader.changeOf(EntryKey(5));
    EXPECT_EQ(std::ranges::count(seen, change), 0) << round;
    for (U64 key = 100 * round; key < 100 * round + 100; ++key) writer.entryIs(record(key + 6, 1));
    EXPECT_EQ(reader.changeOf(EntryKey(5)), change) << "others were written";
    EXPECT_EQ(writer.changeOf(EntryKey(5)), change);
    seen.push_back(change);
    if (round % 2 == 0) continue;
    writer.entryDel(EntryKey(5));
    EXPECT_EQ(reader.changeOf(EntryKey(5)), Shoal::Change());
  }
}

TEST(SharedTable, GivesAnotherTableAtItsPathNewChanges) {
  Directory dir;
  std::vector<Shoal::Change> seen;
  for (bool const replace : {false, true, false, true}) {
    Writer writer(dir / "t", {.replace = replace});
    writer.entryIs(record(5, 1));
    EXPECT_EQ(std::ranges::count(seen, writer.changeOf(EntryKey(5))), 0) << seen.size();
    seen.push_back(writer.changeOf(EntryKey(5)));
    if (replace) std::filesystem::remove(dir / "t");  // the next one counts from zero again
  }
}

TEST(SharedTable, KeepsChangesWhenMadeAnew) {
  Directory dir;
  {
    Writer writer(dir / "t");
    for (U64 key = 0; key < 300; ++key) writer.entryIs(record(key, 1));
    for (U64 key = 0; key < 300; key += 3) writer.entryIs(record(key, 2));
  }
  auto const changes = [&] {
    Reader const reader(dir / "t");
    std::map<U64, U64> all;
    for (U64 key = 0; key < 300; ++key) all[key] = reader.changeOf(EntryKey(key)).number;
    EXPECT_EQ(reader.changeOf(EntryKey(7)).table, reader.changeOf(EntryKey(8)).table);
    return std::pair(reader.changeOf(EntryKey(7)).table, all);
  };
  auto const before = changes();
  EXPECT_EQ(Shoal::repair(dir / "t").records, 300U);
  EXPECT_EQ(changes(), before);
  Writer writer(dir / "t");
  EXPECT_GE(writer.changes(), 400U);
  writer.entryIs(record(7, 3));
  EXPECT_GT(writer.changeOf(EntryKey(7)).number, before.second.rbegin()->second);
  EXPECT_EQ(Shoal::inspect(dir / "t").damage, std::vector<std::string>());
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

// A record is read to where it is wanted; what lies there before must not show.
void dirtyTheStack() {
  std::array<std::byte, 8192> bytes;
  bytes.fill(std::byte{0xEE});
  asm volatile("" : : "r"(bytes.data()) : "memory");
}

TEST(SharedTable, ReadsRecordsOfEveryLength) {
  Directory dir;
  Writer writer(dir / "t");
  Reader reader(dir / "t");
  U64 version = 0;
  auto const expectRead = [&](Config const& written) {
    writer.entryIs(written);
    dirtyTheStack();
    ASSERT_EQ(reader.entry(written.key()), written);
    dirtyTheStack();
    ASSERT_EQ(writer.entry(written.key()), written);
  };
  for (unsigned indexes = 0; indexes <= 17; ++indexes) {
    for (unsigned words = 0; words <= 64; ++words) {
      for (unsigned zeroes = 0; zeroes <= words; zeroes = 2 * zeroes + 1) {  // at the end
        Config r(EntryKey(1 + words % 5), OpId(++version), 1, 2, 3);
        for (unsigned i = 0; i < indexes; ++i) r.tableIndexIs(TableKey(i), i % 3 == 0 ? 0 : i);
        for (unsigned i = 0; i < words; ++i) r.dataIs(DataKey(i), i < words - zeroes ? ~U64{i} : 0);
        expectRead(r);
        if (HasFatalFailure()) return;
      }
    }
  }
}

// Another program may leave anything in an image whose checksum is right.
TEST(SharedTable, ReadsImagesOfAnotherProgramWithCare) {
  Directory dir;
  Shoal::TableWriter writer(dir / "t", Shoal::shapeOf<Config>(), {});
  Reader reader(dir / "t");
  auto const write = [&](U64 key, std::size_t at, U32 value) {
    std::array<U64, Shoal::RecordTraits<Config>::bytes / 8> image;
    auto* const bytes = reinterpret_cast<std::byte*>(image.data());
    Shoal::Extent const extent = Shoal::RecordTraits<Config>::encode(record(key, 3), bytes);
    std::memcpy(bytes + at, &value, sizeof value);
    writer.put(key, image.data(), extent);
  };
  U32 const pg = record(1, 3).pg();
  write(1, 20, pg | 0xFFFE0000U);  // flags without a meaning
  EXPECT_EQ(reader.entry(EntryKey(1)), record(1, 3));
  write(1, 20, pg | 0xFFFF0000U);
  EXPECT_TRUE(reader.entry(EntryKey(1)).isDel());
  Config deleted = record(1, 3);
  deleted.isDelIs(true);
  EXPECT_EQ(reader.entry(EntryKey(1)), deleted);
  for (std::size_t const countAt : {std::size_t{28}, std::size_t{100}}) {
    write(2, countAt, 65);
    EXPECT_THROW(reader.entry(EntryKey(2)), Pallo::InvalidSizeException);
    Reader validating(dir / "t");
    Checks checks([](EntryKey const&, Config&, char const* damage) {
      if (damage) throw Pallo::CorruptionDetectedException(damage);
    });
    validating.validatorIs(&checks);
    EXPECT_TRUE(validating.entry(EntryKey(1)).isDel());
    EXPECT_THROW(validating.entry(EntryKey(2)), Pallo::CorruptionDetectedException);
  }
  write(3, 0, 4);  // another's key
  EXPECT_THROW(reader.entry(EntryKey(3)), Pallo::CorruptionDetectedException);
  EXPECT_EQ(reader.entry(EntryKey(4)), Config());
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

TEST(SharedTable, TellsOfEachKeyOfACleanUp) {
  Directory dir;
  auto const writer = Ostra::make<Writer>(dir / "t");
  for (U64 key = 1; key <= 3; ++key) writer->entryIs(record(key, 1));
  Watcher watcher;
  watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(writer.get()));
  watcher.hasNotificationActiveIs(true);
  writer->cleanup();
  EXPECT_THAT(watcher.keys, testing::UnorderedElementsAre(1, 2, 3));
  EXPECT_TRUE(watcher.seen.empty());
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
