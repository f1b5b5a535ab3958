// SPDX-License-Identifier: Apache-2.0
#include "lumelog/reader.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "pallo/exception.h"
#include "tests/lumelog/logs.h"
#include "tests/lumelog/temp_dir.h"

namespace Lumelog {
namespace {

using namespace Test;

void recordNumber(Log* log, U64 i) {
  switch (i % 3) {
    case 0:
      LUMELOG_RECORD(log, 9, 1u, "n:", i);
      break;
    case 1:
      LUMELOG_RECORD(log, 2, 1u, "n:", i, " of two");
      break;
    default:
      LUMELOG_RECORD(log, 0, 1u, "n:", i);
      break;
  }
}

U64 numberOf(Record const& record) { return record.values[1].number; }

TEST(Reader, ShowsRecordsOfAllLevelsInTheOrderOfWriting) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  for (U64 i = 0; i < 30; ++i) recordNumber(log.get(), i);
  Reader reader(dir / "a.lg");
  U64 expected = 0;
  for (Record record; reader.next(record); ++expected) {
    EXPECT_EQ(numberOf(record), expected);
    EXPECT_EQ(record.identifier(), 1U);
    EXPECT_EQ(record.site->file, "tests/lumelog/reader_test.cpp");
  }
  EXPECT_EQ(expected, 30U);
  EXPECT_FALSE(reader.damage().any());
  EXPECT_EQ(reader.sites().size(), 3U);
}

TEST(Reader, KeepsEveryKindOfValue) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  U8 const byte = 200;
  U16 const word = 65535;
  U64 const quad = ~U64{0};
  std::string const longText(100, 'x');
  LUMELOG_RECORD(log.get(), 5, 42u, "b:", byte, " w:", word, " q:", quad, " t:", true,
                 " c:", "abc" + std::string("d"), " long:", longText, " 5%");
  EXPECT_EQ(messages(dir / "a.lg"),
            std::vector<std::string>{
                "b:200 w:65535 q:18446744073709551615 t:1 c:abcd long:" + std::string(80, 'x') + " 5%"});
  Reader reader(dir / "a.lg");
  Record record;
  ASSERT_TRUE(reader.next(record));
  EXPECT_EQ(record.site->types, "iiiqiss");
  EXPECT_EQ(record.site->text, "b:%i w:%i q:%q t:%i c:%s long:%s 5%%");
  EXPECT_EQ(record.site->level, 5U);
  EXPECT_EQ(record.identifier(), 42U);
}

TEST(Reader, TellsTheTime) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  auto now = [] {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<U64>(t.tv_sec) * 1000000000U + static_cast<U64>(t.tv_nsec);
  };
  std::vector<std::pair<U64, U64>> bounds;
  for (U64 i = 0; i < 20; ++i) {
    U64 const before = now();
    LUMELOG_RECORD(log.get(), 9, 1u, "n:", i);
    bounds.emplace_back(before, now());
    usleep(5000);
  }
  Reader reader(dir / "a.lg");
  std::size_t i = 0;
  for (Record record; reader.next(record); ++i) {
    EXPECT_GE(record.realNs + 100000, bounds[i].first);
    EXPECT_LE(record.realNs, bounds[i].second + 100000);
  }
  EXPECT_EQ(i, bounds.size());
}

TEST(Reader, KeepsTheNewestWhenALevelWraps) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  LUMELOG_RECORD(log.get(), 1, 1u, "rare");
  for (U64 i = 0; i < 10000; ++i) LUMELOG_RECORD(log.get(), 9, 1u, "n:", i);
  Reader reader(dir / "a.lg");
  Record record;
  ASSERT_TRUE(reader.next(record));
  EXPECT_EQ(record.message(), "rare");
  ASSERT_TRUE(reader.next(record));
  U64 const first = numberOf(record);
  EXPECT_GE(first, 10000U - 16384 / 32);
  U64 count = 1;
  for (; reader.next(record); ++count) ASSERT_EQ(numberOf(record), first + count);
  EXPECT_EQ(first + count, 10000U);
  EXPECT_GE(count * 32, 3 * Format::subBufferRoom - 32);  // no more than one sub-buffer of four is given up
  EXPECT_FALSE(reader.damage().any());
  EXPECT_GT(reader.rings()[9].written, reader.rings()[9].subBuffers);
}

TEST(Reader, FollowsAWriterInOrder) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg", small(256));
  Reader reader(dir / "a.lg");
  EXPECT_TRUE(reader.live());
  Record record;
  EXPECT_FALSE(reader.next(record));
  U64 written = 0, read = 0;
  for (unsigned burst : {1, 2, 3, 500, 1, 1000, 0, 5}) {
    for (unsigned i = 0; i < burst; ++i) recordNumber(log.get(), written++);
    while (reader.next(record)) ASSERT_EQ(numberOf(record), read++);
    ASSERT_EQ(read, written);
  }
  log.reset();
  EXPECT_FALSE(reader.live());
  EXPECT_FALSE(reader.damage().any());
}

TEST(Reader, CountsWhatTheWriterOverran) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  recordNumber(log.get(), 0);
  Reader reader(dir / "a.lg");
  Record record;
  ASSERT_TRUE(reader.next(record));
  for (U64 i = 0; i < 10000; ++i) LUMELOG_RECORD(log.get(), 9, 1u, "n:", i);
  U64 last = 0, count = 0;
  for (; reader.next(record); ++count) {
    ASSERT_GT(numberOf(record), last);
    last = numberOf(record);
  }
  EXPECT_EQ(last, 9999U);
  EXPECT_GT(count, 300U);
  EXPECT_GT(reader.damage().overrun, 50U);
}

// The writer came round and is just beginning a sub-buffer where the reader expects the next one. What it
// wrote in between is older than what came afterwards in another level.
TEST(Reader, LooksBehindASubBufferInPreparation) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  LUMELOG_RECORD(log.get(), 9, 1u, "n:", U64{0});
  Reader reader(dir / "a.lg");
  Record record;
  ASSERT_TRUE(reader.next(record));
  for (U64 i = 1; i < 2000; ++i) LUMELOG_RECORD(log.get(), 9, 1u, "n:", i);
  LUMELOG_RECORD(log.get(), 2, 1u, "late");
  std::fstream file(dir / "a.lg", std::ios::binary | std::ios::in | std::ios::out);
  Format::FixedHeader header;
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  file.seekp(static_cast<std::streamoff>(header.ring[9].offset + Format::subBufferBytes));
  U64 const inPreparation = 0;
  file.write(reinterpret_cast<char const*>(&inPreparation), sizeof inPreparation);
  ASSERT_TRUE(file.flush());
  U64 count = 0, last = 0;
  for (; reader.next(record) && record.message() != "late"; ++count) {
    ASSERT_GT(numberOf(record), last);
    last = numberOf(record);
  }
  EXPECT_GT(count, 200U);
  EXPECT_EQ(record.message(), "late");
  EXPECT_FALSE(reader.next(record));
}

// The writer races ahead in another process: whatever is delivered is in order, and what is missing is
// counted.
TEST(Reader, IsNeverFooledByAWriterThatOvertakesIt) {
  TempDir dir;
  pid_t const child = fork();
  if (child == 0) {
    Log* log = open(dir / "a.lg", small());
    for (U64 i = 1; i <= 3000000; ++i) recordNumber(log, i);
    _exit(0);
  }
  while (access((dir / "a.lg").c_str(), F_OK) != 0) usleep(100);
  Reader reader(dir / "a.lg");
  U64 lastTicks = 0, count = 0, last = 0;
  auto drain = [&] {
    for (Record record; reader.next(record); ++count) {
      ASSERT_GT(record.ticks, lastTicks);
      ASSERT_GT(numberOf(record), last);
      lastTicks = record.ticks;
      last = numberOf(record);
    }
  };
  while (reader.live()) drain();
  drain();
  waitpid(child, nullptr, 0);
  EXPECT_EQ(last, 3000000U);
  EXPECT_GT(count, 300U);
  EXPECT_EQ(reader.damage().subBuffers, 0U);
  EXPECT_EQ(reader.damage().recordBytes, 0U);
}

TEST(Merge, OrdersFilesByTime) {
  TempDir dir;
  LogPtr a = make(dir / "a.lg"), b = make(dir / "b.lg");
  for (U64 i = 0; i < 20; ++i) {
    recordNumber((i % 2 ? a : b).get(), i);
    usleep(1000);
  }
  Merge merge;
  merge.add(std::make_unique<Reader>(dir / "a.lg"));
  merge.add(std::make_unique<Reader>(dir / "b.lg"));
  Record record;
  for (U64 i = 0; i < 20; ++i) {
    Reader const* reader = merge.next(record);
    ASSERT_TRUE(reader);
    EXPECT_EQ(numberOf(record), i);
    EXPECT_EQ(reader->path(), dir / (i % 2 ? "a.lg" : "b.lg"));
  }
  EXPECT_FALSE(merge.next(record));
  recordNumber(a.get(), 20);
  ASSERT_TRUE(merge.next(record));
  EXPECT_EQ(numberOf(record), 20U);
}

TEST(Record, KnowsWhichKeysItIsAbout) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  U64 const key = 7, other = 8;
  LUMELOG_RECORD(log.get(), 5, 1u, "key:", key, " hdl:", 9u, " blocked by key:", other, " opId: ", U64{10});
  Reader reader(dir / "a.lg");
  Record record;
  ASSERT_TRUE(reader.next(record));
  EXPECT_TRUE(record.mentionsKey(7));
  EXPECT_TRUE(record.mentionsKey(8));
  EXPECT_FALSE(record.mentionsKey(9));
  EXPECT_FALSE(record.mentionsKey(10));
  EXPECT_FALSE(record.mentionsKey(1));
}

// Files that are not what they should be.

class Damaged : public testing::Test {
 protected:
  Damaged() {
    LogPtr log = make(dir_ / "a.lg");
    for (U64 i = 0; i < 700; ++i) recordNumber(log.get(), i);
    log.reset();
    bytes_ = readFile(dir_ / "a.lg");
    Reader reader(dir_ / "a.lg");
    std::memcpy(&fixed_, bytes_.data(), sizeof fixed_);
    all_ = messages(reader);
  }
  std::size_t subBuffer(unsigned level, unsigned index) const {
    return fixed_.ring[level].offset + index * Format::subBufferBytes;
  }
  // What is shown is what was written, in order, with gaps.
  std::vector<std::string> shown(Damage& damage) {
    writeFile(dir_ / "b.lg", bytes_);
    Reader reader(dir_ / "b.lg");
    std::vector<std::string> result = messages(reader);
    damage = reader.damage();
    std::size_t at = 0;
    for (std::string const& message : result) {
      while (at < all_.size() && all_[at] != message) ++at;
      EXPECT_LT(at, all_.size()) << message;
      ++at;
    }
    return result;
  }

  TempDir dir_;
  std::string bytes_;
  Format::FixedHeader fixed_;
  std::vector<std::string> all_;
};

TEST_F(Damaged, AnotherFileIsRefused) {
  for (std::string const& bytes : {std::string(), std::string("hello"), std::string(100000, '\0')}) {
    writeFile(dir_ / "c.lg", bytes);
    EXPECT_THROW(Reader(dir_ / "c.lg"), Pallo::Exception);
  }
  EXPECT_THROW(Reader(dir_ / "absent.lg"), Pallo::Exception);
  EXPECT_THROW(Reader(dir_.path()), Pallo::Exception);
}

TEST_F(Damaged, OtherVersionIsNamed) {
  fixed_.version = 7;
  fixed_.check = Format::headerCheck(fixed_);
  std::memcpy(bytes_.data(), &fixed_, sizeof fixed_);
  writeFile(dir_ / "b.lg", bytes_);
  try {
    Reader reader(dir_ / "b.lg");
    FAIL();
  } catch (Pallo::Exception const& e) {
    EXPECT_EQ(e.what(), dir_ / "b.lg" + " is a trace file of version 7, expected 1");
  }
}

TEST_F(Damaged, HeaderIsReadFromItsCopy) {
  bytes_.replace(0, 4096, 4096, '\xEE');
  Damage damage;
  EXPECT_EQ(shown(damage), all_);
  EXPECT_TRUE(damage.header);
}

TEST_F(Damaged, OneFlippedByteCostsOneRecord) {
  bytes_[subBuffer(9, 1) + sizeof(Format::SubBufferHeader) + 32 + 3] ^=
      0x40;  // in the time stamp of the second record
  Damage damage;
  EXPECT_EQ(shown(damage).size(), all_.size() - 1);
  EXPECT_EQ(damage.recordBytes, 32U);
  EXPECT_EQ(damage.subBuffers, 0U);
}

TEST_F(Damaged, ASubBufferHeaderCostsItsSubBuffer) {
  bytes_[subBuffer(9, 0) + 8] ^= 1;
  Damage damage;
  EXPECT_EQ(shown(damage).size(), all_.size() - Format::subBufferRoom / 32);
  EXPECT_EQ(damage.subBuffers, 1U);
}

TEST_F(Damaged, ALengthThatIsTooLongShowsTheRecords) {
  bytes_[subBuffer(9, 1) + offsetof(Format::SubBufferHeader, used) + 2] = 0x7F;
  Damage damage;
  EXPECT_EQ(shown(damage), all_);
  EXPECT_GT(damage.recordBytes, 0U);
}

TEST_F(Damaged, ACallSiteCostsItsRecords) {
  bytes_[fixed_.siteOffset + 30] ^= 1;
  Damage damage;
  EXPECT_EQ(shown(damage).size(), all_.size() - 234);  // every third of 700
  EXPECT_EQ(damage.unknownSites, 234U);
  EXPECT_GT(damage.siteBytes, 0U);
}

TEST_F(Damaged, AWrongEndOfTheSitesCostsNothing) {
  for (std::size_t i = 0; i < 8; ++i) bytes_[offsetof(Format::FileHeader, live) + i] = '\0';
  Damage damage;
  EXPECT_EQ(shown(damage), all_);
}

TEST_F(Damaged, AFileCutAnywhereShowsTheRest) {
  std::string const whole = bytes_;
  for (std::size_t size = whole.size(); size > 4096; size -= std::min<std::size_t>(size, 3001)) {
    bytes_ = whole.substr(0, size);
    Damage damage;
    std::vector<std::string> const some = shown(damage);
    EXPECT_EQ(damage.missingBytes, whole.size() - size);
    if (size >= subBuffer(9, 2)) {
      EXPECT_EQ(some, all_);
    }
    if (size <= fixed_.ring[0].offset) {
      EXPECT_TRUE(some.empty());
    }
  }
}

TEST_F(Damaged, RandomDamageNeverHurtsTheRest) {
  std::string const whole = bytes_;
  std::size_t const used = subBuffer(9, 2);
  std::mt19937_64 random(20240611);
  for (int round = 0; round < 300; ++round) {
    bytes_ = whole;
    for (int i = 0; i < 20; ++i) bytes_[512 + random() % (used - 512)] = static_cast<char>(random());
    writeFile(dir_ / "b.lg", bytes_);
    Reader reader(dir_ / "b.lg");
    std::vector<std::string> const some = messages(reader);
    std::size_t intact = 0;
    for (std::size_t i = 0, at = 0; i < some.size(); ++i) {
      auto const found = std::find(all_.begin() + static_cast<std::ptrdiff_t>(at), all_.end(), some[i]);
      if (found == all_.end()) continue;
      at = static_cast<std::size_t>(found - all_.begin()) + 1;
      ++intact;
    }
    // A flipped byte of a value passes; everything else must be a record that was written.
    EXPECT_LE(some.size(), intact + 20) << "round " << round;
    if (!reader.damage().any()) {
      EXPECT_GE(intact + 20, all_.size()) << "round " << round;
    }
  }
}

}  // namespace
}  // namespace Lumelog
