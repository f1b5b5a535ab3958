// SPDX-License-Identifier: Apache-2.0
// A trace file that is truncated, removed or replaced while its process records: logrotate's copytruncate,
// and worse.
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "lumelog/format.h"
#include "tests/lumelog/logs.h"
#include "tests/lumelog/temp_dir.h"
#include "tests/support/in_child.h"

namespace Lumelog {
namespace {

using namespace Test;

using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::inChild;

void cut(std::string const& path, U64 bytes = 0) {
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(bytes)), 0);
}

U64 sizeOf(std::string const& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<U64>(status.st_size) : 0;
}

std::vector<U64> range(U64 from, U64 to) {
  std::vector<U64> result(to - from);
  std::iota(result.begin(), result.end(), from);
  return result;
}

// Until the file's size is looked at again.
void quietMoment() { usleep(15000); }

class Truncated : public testing::Test {
 protected:
  // The numbers up to `to`, of which every fiftieth goes to a rarer level.
  void write(U64 from, U64 to) {
    for (U64 i = from; i < to; ++i) {
      if (i % 50 == 0)
        LUMELOG_RECORD(log_.get(), 2, 1u, "n:", i, " rare");
      else
        LUMELOG_RECORD(log_.get(), 9, 1u, "n:", i);
    }
  }
  static std::vector<U64> numbers(Reader& reader) {
    std::vector<U64> result;
    for (Record record; reader.next(record);) result.push_back(record.values[1].number);
    return result;
  }
  std::vector<U64> numbers() {
    Reader reader(path_);
    std::vector<U64> result = numbers(reader);
    EXPECT_FALSE(reader.damage().any()) << reader.damage().lines().front();
    return result;
  }

  TempDir dir_;
  std::string const path_ = dir_ / "a.lg";
  LogPtr log_ = make(path_);
  U64 const whole_ = sizeOf(path_);
};

TEST_F(Truncated, ToNothingLosesNoRecordWrittenLater) {
  write(0, 300);
  cut(path_);
  write(300, 301);
  EXPECT_EQ(numbers(), range(300, 301));
  EXPECT_EQ(sizeOf(path_), whole_);
  write(301, 400);
  EXPECT_EQ(numbers(), range(300, 400));
  Reader reader(path_);
  Record record;
  ASSERT_TRUE(reader.next(record));
  EXPECT_EQ(record.message(), "n:300 rare");
}

TEST_F(Truncated, KeepsTheMessagesOfBefore) {
  LUMELOG_RECORD(log_.get(), 1, 1u, "seen only before");
  write(0, 60);
  std::size_t const sites = log_->sites();
  cut(path_);
  write(60, 120);
  LUMELOG_RECORD(log_.get(), 1, 1u, "seen only after");
  EXPECT_EQ(log_->sites(), sites + 1);
  Reader reader(path_);
  EXPECT_EQ(reader.sites().size(), sites + 1);
}

// After a quiet moment the size is looked at, and so the first record finds out, wherever the cut is.
TEST_F(Truncated, AnywhereLosesNoRecordAfterAQuietMoment) {
  U64 const rings = whole_ - Format::headerBytes - 10 * 16 * 1024;
  U64 n = 0;
  for (U64 const size :
       {U64{0}, U64{1}, U64{511}, U64{600}, U64{4095}, U64{4096}, U64{4097}, U64{100001}, rings - 1, rings,
        rings + 33, whole_ - 5 * 4096, whole_ - 4 * 4096 - 1, whole_ - 4097, whole_ - 4096, whole_ - 1}) {
    write(n, n + 700);
    cut(path_, size);
    quietMoment();
    n += 700;
    write(n, n + 20);
    Reader reader(path_);
    std::vector<U64> const found = numbers(reader);
    ASSERT_GE(found.size(), 20U) << size;
    EXPECT_EQ(std::vector<U64>(found.end() - 20, found.end()), range(n, n + 20)) << size;
    EXPECT_TRUE(std::is_sorted(found.begin(), found.end())) << size;
    EXPECT_EQ(reader.damage().missingBytes, 0U) << size;
    EXPECT_EQ(reader.damage().recordBytes, 0U) << size;
    EXPECT_EQ(sizeOf(path_), whole_) << size;
    n += 20;
  }
}

// What lies before the cut stays readable, though the writer comes to it only later.
TEST_F(Truncated, AtItsEndKeepsWhatWasBeforeTheCut) {
  write(0, 60);
  cut(path_, whole_ - Format::headerBytes - 4096);
  write(60, 120);
  Reader reader(path_);
  EXPECT_EQ(numbers(reader), range(0, 120));
  quietMoment();
  write(120, 130);
  EXPECT_EQ(numbers(), range(0, 130));
}

TEST_F(Truncated, AndGrownAgainByOthersIsStartedOver) {
  write(0, 60);
  cut(path_);
  cut(path_, whole_);
  quietMoment();
  write(60, 70);
  EXPECT_EQ(numbers(), range(60, 70));
}

TEST_F(Truncated, IsFollowedByAReader) {
  write(0, 60);
  Reader reader(path_);
  EXPECT_EQ(numbers(reader), range(0, 60));
  cut(path_);
  EXPECT_EQ(numbers(reader), range(0, 0));
  write(60, 5000);
  std::vector<U64> const all = numbers(reader);
  EXPECT_EQ(all.back(), 4999U);
  EXPECT_EQ(reader.damage().restarts, 1U);
  EXPECT_THAT(reader.damage().lines(), ElementsAre("1 truncations; what was not read until then is lost"));
  write(5000, 5010);
  EXPECT_EQ(numbers(reader), range(5000, 5010));
}

// Longer than before when the reader comes to look: its sequences say nothing.
TEST_F(Truncated, IsFollowedWhateverTheSequences) {
  write(0, 1);
  Reader reader(path_);
  EXPECT_EQ(numbers(reader), range(0, 1));
  cut(path_);
  write(1, 400);
  EXPECT_EQ(numbers(reader), range(1, 400));
}

TEST_F(Truncated, DeliversFirstWhatAReaderHasInHand) {
  write(0, 60);
  Reader reader(path_);
  Record record;
  ASSERT_TRUE(reader.next(record));
  cut(path_);
  write(60, 70);
  std::vector<U64> const rest = numbers(reader);
  EXPECT_EQ(rest, range(1, 70));
}

TEST_F(Truncated, AtItsEndIsFollowedByAReader) {
  write(0, 60);
  Reader reader(path_);
  EXPECT_EQ(numbers(reader), range(0, 60));
  cut(path_, whole_ - 3 * 4096);
  quietMoment();
  write(60, 100);
  EXPECT_EQ(numbers(reader), range(60, 100));
  EXPECT_EQ(reader.damage().restarts, 0U);
}

TEST_F(Truncated, IsFollowedPastWhatWasCutUnread) {
  write(0, 60);
  Reader reader(path_);
  EXPECT_EQ(numbers(reader), range(0, 60));
  write(60, 380);  // two sub-buffers on
  cut(path_, whole_ - Format::headerBytes - 3 * 4096);
  quietMoment();
  write(380, 400);
  std::vector<U64> const found = numbers(reader);
  ASSERT_GE(found.size(), 20U);
  EXPECT_EQ(std::vector<U64>(found.end() - 20, found.end()), range(380, 400));
}

TEST_F(Truncated, IsReadWholeByAReaderThatCameBetween) {
  write(0, 60);
  cut(path_, whole_ - 3 * 4096);
  Reader reader(path_);
  EXPECT_EQ(reader.damage().missingBytes, 3 * 4096U);
  EXPECT_EQ(numbers(reader), range(0, 60));
  quietMoment();
  write(60, 300);
  EXPECT_EQ(numbers(reader), range(60, 300));
  EXPECT_FALSE(reader.damage().any());
}

// Another process cuts at moments and to sizes that nobody chose, as fast as it can.
TEST_F(Truncated, AllTheTimeNeverEndsTheProcess) {
  Reader reader(path_);
  pid_t const cutter = fork();
  if (cutter == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::mt19937 random(20250117);
    for (;;) {
      static_cast<void>(!truncate(path_.c_str(), random() % 4 ? static_cast<off_t>(random() % whole_) : 0));
      usleep(static_cast<useconds_t>(random() % 300));
    }
  }
  U64 n = 0, last = 0, read = 0, disorders = 0;
  for (auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
       std::chrono::steady_clock::now() < end; n += 5000) {
    write(n, n + 5000);
    for (Record record; reader.next(record); ++read) {
      if (read != 0 && record.values[1].number <= last) ++disorders;
      last = record.values[1].number;
    }
  }
  kill(cutter, SIGKILL);
  waitpid(cutter, nullptr, 0);
  quietMoment();
  write(n, n + 100);
  Reader after(path_);
  std::vector<U64> const found = numbers(after);
  ASSERT_GE(found.size(), 100U);
  EXPECT_EQ(std::vector<U64>(found.end() - 100, found.end()), range(n, n + 100));
  std::vector<U64> const followed = numbers(reader);
  ASSERT_GE(followed.size(), 100U);
  EXPECT_EQ(followed.back(), n + 99);
  EXPECT_GT(read, 0U);
  EXPECT_EQ(disorders, 0U);
  EXPECT_EQ(reader.damage().recordBytes + after.damage().recordBytes, 0U) << "half a record";
}

TEST_F(Truncated, AndReplacedLeavesTheOtherFileAlone) {
  write(0, 10);
  int const own = ::open(path_.c_str(), O_RDONLY);
  ASSERT_EQ(unlink(path_.c_str()), 0);
  writeFile(path_, "another file");
  std::string const way = fmt::format("/proc/self/fd/{}", own);
  cut(way);
  write(10, 300);
  EXPECT_EQ(readFile(path_), "another file");
  Reader reader(way);
  EXPECT_EQ(numbers(reader), range(10, 300));
  ::close(own);
}

TEST_F(Truncated, StaysEmptyForAForkedChild) {
  write(0, 10);
  cut(path_);
  EXPECT_EQ(inChild([&] { write(10, 3000); }), 0);
  EXPECT_EQ(sizeOf(path_), 0U);
  write(10, 20);
  EXPECT_EQ(numbers(), range(10, 20));
}

// The kernel's answer to a store into a page that a failing disk cannot give.
void failPage(std::string const& path, U64 offset) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line) && line.find(path) == std::string::npos) continue;  // under its first name
  siginfo_t info{};
  info.si_code = BUS_ADRERR;
  info.si_addr = reinterpret_cast<void*>(std::stoull(line, nullptr, 16) + offset);
  ASSERT_EQ(syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), SIGBUS, &info), 0);
}

TEST(FailingDisk, EndsTracingForAWhile) {
  TempDir dir;
  Options options = small();
  options.retrySeconds = 1;
  LogPtr const log = make(dir / "a.lg", options);
  LUMELOG_RECORD(log.get(), 9, 1u, "before");
  U64 const ring9 = sizeOf(log->path()) - Format::headerBytes - 4 * 4096;
  failPage(log->path(), ring9);
  testing::internal::CaptureStderr();
  for (U32 i = 0; i < 1000; ++i) LUMELOG_RECORD(log.get(), 9, 1u, "lost:", i);
  EXPECT_FALSE(log->recording());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Lumelog: cannot go on with the trace file " + log->path() +
                ": its pages cannot be written; running without it\n");
  sleep(1);
  LUMELOG_RECORD(log.get(), 9, 1u, "after");
  EXPECT_TRUE(log->recording());
  EXPECT_EQ(messages(log->path()).back(), "after");
}

// Where the kernel lets this process mount. The disk is filled when the file gives up its space.
int onAFullDisk(TempDir const& dir, std::string const& said, U32 retrySeconds,
                std::function<void(Log*, std::string)> const& work) {
  return inChild([&] {
    if (!mountSmallDisk(dir.path(), 1024)) _exit(77);
    freopen(said.c_str(), "w", stderr);
    Options options = small();
    options.retrySeconds = retrySeconds;
    LogPtr const log = make(dir / "a.lg", options);
    for (U32 i = 0; i < 10; ++i) LUMELOG_RECORD(log.get(), 3, 1u, "before:", i);
    cut(dir / "a.lg");
    writeFile(dir / "rest", std::string(1024 * 1024, 'x'));
    work(log.get(), dir / "a.lg");
  });
}

TEST(FullDisk, EndsTracingAndSaysSoOnce) {
  TempDir dir, elsewhere;
  int const result = onAFullDisk(dir, elsewhere / "said", 60, [&](Log* log, std::string const& path) {
    for (U32 i = 0; i < 1000; ++i) LUMELOG_RECORD(log, 3, 1u, "i:", i);
    for (U32 i = 0; i < 1000; ++i) LUMELOG_RECORD(log, 9, 1u, "another:", i);
    log->recordText(0, "file.cpp", 1, 1, "at last");
    fflush(stderr);
    if (log->recording()) _exit(1);
    if (sizeOf(path) != 0) _exit(2);
    if (readFile(elsewhere / "said") != "Lumelog: cannot go on with the trace file " + path +
                                            ": No space left on device; running without it\n")
      _exit(3);
  });
  if (result == 77) GTEST_SKIP() << "this process may not mount";
  EXPECT_EQ(result, 0);
}

TEST(FullDisk, IsTriedAgainLater) {
  TempDir dir, elsewhere;
  int const result = onAFullDisk(dir, elsewhere / "said", 0, [&](Log* log, std::string const& path) {
    for (U32 i = 0; i < 100; ++i) LUMELOG_RECORD(log, 3, 1u, "lost:", i);
    unlink((dir / "rest").c_str());
    for (U32 i = 0; i < 3; ++i) LUMELOG_RECORD(log, 3, 1u, "after:", i);
    Reader reader(path);
    if (messages(reader) != std::vector<std::string>{"after:0", "after:1", "after:2"}) _exit(1);
    if (!log->recording() || reader.damage().dropped != 100) _exit(2);
  });
  if (result == 77) GTEST_SKIP() << "this process may not mount";
  EXPECT_EQ(result, 0);
}

TEST(FullDisk, IsNotTriedAgainTooSoon) {
  TempDir dir, elsewhere;
  int const result = onAFullDisk(dir, elsewhere / "said", 60, [&](Log* log, std::string const& path) {
    LUMELOG_RECORD(log, 3, 1u, "lost");
    unlink((dir / "rest").c_str());
    LUMELOG_RECORD(log, 3, 1u, "lost too");
    if (log->recording() || sizeOf(path) != 0) _exit(1);
  });
  if (result == 77) GTEST_SKIP() << "this process may not mount";
  EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace Lumelog
