// SPDX-License-Identifier: Apache-2.0
#include "lumelog/lumelog.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "lumelog/tap.h"
#include "tests/lumelog/logs.h"
#include "tests/lumelog/temp_dir.h"
#include "tests/support/in_child.h"

namespace Lumelog {
namespace {

using namespace Test;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::inChild;

struct Tapped {
  std::string text;
  std::vector<U64> values;
  bool operator==(Tapped const&) const = default;
};

struct Wide {
  U64 value() const { return 0x1122334455667788U; }
};

TEST(Tap, SeesTextAndValuesOfALogWithoutAFile) {
  std::vector<Tapped> seen;
  Log log;
  log.tapIs([&](std::string_view text, std::span<U64 const> values) {
    seen.push_back({std::string(text), {values.begin(), values.end()}});
  });
  for (U32 i = 0; i < 2; ++i)
    LUMELOG_RECORD(&log, 3, 7u, "key:", Wide{}, " hdl:", i, " on:", true, " name:", std::string("abc"));
  LUMELOG_RECORD(&log, 3, 7u, "100%");
  std::vector<Tapped> const expected = {{"key:%q hdl:%i on:%i name:%s", {7, 0x1122334455667788U, 0, 1, 3}},
                                        {"key:%q hdl:%i on:%i name:%s", {7, 0x1122334455667788U, 1, 1, 3}},
                                        {"100%%", {7}}};
  EXPECT_EQ(seen, expected);
}

TEST(Tap, ComesAndGoesOnALogWithAFile) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  int calls = 0;
  for (int i = 0; i < 3; ++i) {
    LUMELOG_RECORD(log.get(), 3, 7u, "i:", i);
    if (i == 0) log->tapIs([&](std::string_view, std::span<U64 const>) { ++calls; });
    if (i == 1) log->tapIs({});
  }
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(messages(dir / "a.lg").size(), 3U);
}

Log* volatile none = nullptr;

TEST(Log, NullRecordsAreDropped) {
  int evaluated = 0;
  LUMELOG_RECORD(none, 3, 7u, "n:", ++evaluated);
  EXPECT_EQ(evaluated, 0);
}

// One call site serves several logs; each has the message once.
TEST(Log, ASiteIsRegisteredOnceALog) {
  TempDir dir;
  LogPtr logs[] = {make(dir / "a.lg"), make(dir / "b.lg")};
  LUMELOG_RECORD(logs[1].get(), 1, 1u, "only b");
  for (unsigned i = 0; i < 6; ++i) LUMELOG_RECORD(logs[i % 2].get(), 1, 1u, "i:", i);
  EXPECT_THAT(messages(dir / "a.lg"), ElementsAre("i:0", "i:2", "i:4"));
  EXPECT_THAT(messages(dir / "b.lg"), ElementsAre("only b", "i:1", "i:3", "i:5"));
  EXPECT_EQ(logs[0]->sites(), 1U);
  EXPECT_EQ(logs[1]->sites(), 2U);
}

TEST(Log, ALevelOfSizeZeroKeepsNothing) {
  TempDir dir;
  Options options = small();
  options.kib[4] = 0;
  LogPtr log = make(dir / "a.lg", options);
  LUMELOG_RECORD(log.get(), 4, 1u, "gone");
  LUMELOG_RECORD(log.get(), 5, 1u, "kept");
  EXPECT_THAT(messages(dir / "a.lg"), ElementsAre("kept"));
}

TEST(Log, ARecordThatFitsNoSubBufferIsCounted) {
  TempDir dir;
  Options options = small();
  options.maxString = 1000;
  LogPtr log = make(dir / "a.lg", options);
  std::string const s(2000, 'x');
  LUMELOG_RECORD(log.get(), 4, 1u, s, s, s, s, s);
  LUMELOG_RECORD(log.get(), 4, 1u, s, s, s, s);
  EXPECT_THAT(messages(dir / "a.lg"), ElementsAre(std::string(4000, 'x')));
  Reader reader(dir / "a.lg");
  EXPECT_EQ(reader.damage().dropped, 1U);
}

TEST(Log, MessagesBeyondTheRoomForThemAreCounted) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  std::string const text(4000, 'x');
  for (int i = 0; i < 70; ++i) log->recordText(3, "file.cpp", i, 1, text);
  Reader reader(dir / "a.lg");
  EXPECT_EQ(reader.sites().size(), 64U);
  EXPECT_EQ(reader.damage().dropped, 6U);
}

// Names.

TEST(Name, HasTheProcessNumberWhereItIsAsked) {
  TempDir dir;
  LogPtr log = make(dir / "x-%d.lg");
  EXPECT_EQ(log->path(), dir / fmt::format("x-{}.lg", getpid()));
}

TEST(Name, LiesInTheDirectoryOfProgramOrEnvironment) {
  TempDir given, environment;
  directoryIs(given.path());
  LogPtr first = make("a.lg");
  setenv("LUMELOGDIR", environment.path().c_str(), 1);
  LogPtr second = make("a.lg");
  unsetenv("LUMELOGDIR");
  directoryIs("");
  EXPECT_EQ(first->path(), given / "a.lg");
  EXPECT_EQ(second->path(), environment / "a.lg");
}

TEST(Name, OfADeadProcessIsPutAside) {
  TempDir dir;
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_EQ(inChild([&] {
                Log* log = open(dir / "a.lg", small());
                LUMELOG_RECORD(log, 3, 7u, "i:", i);
                raise(SIGKILL);
              }),
              -SIGKILL);
  EXPECT_THAT(dir.names(), ElementsAre("a.lg", "a.lg.1", "a.lg.2"));
  EXPECT_THAT(messages(dir / "a.lg.1"), ElementsAre("i:0"));
  EXPECT_THAT(messages(dir / "a.lg.2"), ElementsAre("i:1"));
  EXPECT_THAT(messages(dir / "a.lg"), ElementsAre("i:2"));
}

TEST(Name, OfALiveProcessIsNotShared) {
  TempDir dir;
  LogPtr first = make(dir / "a.lg");
  testing::internal::CaptureStderr();
  LogPtr second = make(dir / "a.lg"), third = make(dir / "a.lg");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("belongs to a live process"));
  LUMELOG_RECORD(first.get(), 3, 7u, "first");
  LUMELOG_RECORD(second.get(), 3, 7u, "second");
  EXPECT_EQ(second->path(), dir / fmt::format("a-{}.lg", getpid()));
  EXPECT_EQ(third->path(), dir / fmt::format("a-{}.2.lg", getpid()));
  EXPECT_THAT(messages(first->path()), ElementsAre("first"));
  EXPECT_THAT(messages(second->path()), ElementsAre("second"));
}

TEST(Name, ManyProcessesAtOnceGetAFileEach) {
  TempDir dir;
  std::vector<pid_t> children;
  for (unsigned i = 0; i < 12; ++i) {
    pid_t const child = fork();
    if (child == 0) {
      freopen("/dev/null", "w", stderr);
      Log* log = open(dir / "a.lg", small());
      LUMELOG_RECORD(log, 3, 7u, "i:", i);
      usleep(200000);
      _exit(0);
    }
    children.push_back(child);
  }
  for (pid_t child : children) waitpid(child, nullptr, 0);
  std::vector<std::string> all;
  for (std::string const& name : dir.names())
    for (std::string const& message : messages(dir / name)) all.push_back(message);
  EXPECT_EQ(dir.names().size(), 12U);
  std::sort(all.begin(), all.end());
  EXPECT_THAT(
      all, ElementsAre("i:0", "i:1", "i:10", "i:11", "i:2", "i:3", "i:4", "i:5", "i:6", "i:7", "i:8", "i:9"));
}

// Files that others of the directory may read, and names that they may have taken.

mode_t modeOf(std::string const& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(File, IsForItsOwnerAndGroup) {
  TempDir dir;
  mode_t const before = umask(0);
  LogPtr const first = make(dir / "a.lg");
  umask(027);
  LogPtr const second = make(dir / "b.lg");
  umask(077);
  LogPtr const third = make(dir / "c.lg");
  umask(before);
  EXPECT_EQ(modeOf(dir / "a.lg"), 0640U);
  EXPECT_EQ(modeOf(dir / "b.lg"), 0640U);
  EXPECT_EQ(modeOf(dir / "c.lg"), 0600U);
}

TEST(Name, ThatIsALinkIsLeftAlone) {
  TempDir dir, elsewhere;
  writeFile(elsewhere / "victim", "precious");
  std::filesystem::create_symlink(elsewhere / "victim", dir / "a.lg");
  testing::internal::CaptureStderr();
  LogPtr const log = make(dir / "a.lg");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("writing " + log->path() + " instead"));
  EXPECT_EQ(log->path(), dir / fmt::format("a-{}.lg", getpid()));
  EXPECT_TRUE(std::filesystem::is_symlink(dir / "a.lg"));
  EXPECT_EQ(readFile(elsewhere / "victim"), "precious");
  EXPECT_THAT(elsewhere.names(), ElementsAre("victim"));
}

TEST(Name, ThatIsADirectoryIsLeftAlone) {
  TempDir dir;
  std::filesystem::create_directory(dir / "a.lg");
  testing::internal::CaptureStderr();
  LogPtr const log = make(dir / "a.lg");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("instead"));
  ASSERT_TRUE(log);
  EXPECT_EQ(log->path(), dir / fmt::format("a-{}.lg", getpid()));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "a.lg"));
}

// Old files.

void leaveDead(std::string const& path, unsigned i) {
  EXPECT_EQ(inChild([&] {
              Log* const log = open(path, small());
              LUMELOG_RECORD(log, 3, 7u, "i:", i);
            }),
            0);
}

// What the files left in the directory tell.
std::vector<std::string> told(TempDir const& dir) {
  std::vector<std::string> all;
  for (std::string const& name : dir.names())
    for (std::string const& message : messages(dir / name)) all.push_back(message);
  std::sort(all.begin(), all.end());
  return all;
}

Options keeping(U32 keep) {
  Options options = small();
  options.keep = keep;
  return options;
}

TEST(OldFiles, BeyondTheNewestEightAreRemoved) {
  TempDir dir;
  for (unsigned i = 10; i < 22; ++i) leaveDead(dir / "x-%d.lg", i);
  LogPtr const log = make(dir / "x-%d.lg");
  EXPECT_THAT(told(dir), ElementsAre("i:14", "i:15", "i:16", "i:17", "i:18", "i:19", "i:20", "i:21"));
  EXPECT_EQ(dir.names().size(), 9U);
}

TEST(OldFiles, ThatWerePutAsideAreRemovedToo) {
  TempDir dir;
  for (unsigned i = 0; i < 6; ++i) leaveDead(dir / "a.lg", i);
  EXPECT_EQ(dir.names().size(), 6U);
  LogPtr const log = make(dir / "a.lg", keeping(2));
  EXPECT_THAT(told(dir), ElementsAre("i:4", "i:5"));
}

TEST(OldFiles, GoByWhenTheyWereWrittenLast) {
  TempDir dir;
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  // Opened first, written last.
  pid_t const old = fork();
  if (old == 0) {
    Log* const log = open(dir / "a.lg", small());
    char c;
    static_cast<void>(!read(go[0], &c, 1));
    LUMELOG_RECORD(log, 3, 7u, "old");
    _exit(0);
  }
  while (access((dir / "a.lg").c_str(), F_OK) != 0) usleep(100);
  for (unsigned i = 0; i < 3; ++i) leaveDead(dir / "a-%d.lg", i);
  ASSERT_EQ(write(go[1], "", 1), 1);
  waitpid(old, nullptr, 0);
  LogPtr const log = make(dir / "a.lg", keeping(2));
  EXPECT_THAT(told(dir), ElementsAre("i:2", "old"));
  ::close(go[0]);
  ::close(go[1]);
}

TEST(OldFiles, AreRemovedAtOnceWhenFewerAreKept) {
  TempDir dir;
  for (unsigned i = 0; i < 5; ++i) leaveDead(dir / "x-%d.lg", i);
  LogPtr const log = make(dir / "x-%d.lg");
  LUMELOG_RECORD(log.get(), 3, 7u, "own");
  log->keepIs(1);
  EXPECT_THAT(told(dir), ElementsAre("i:4", "own"));
  log->keepIs(0);
  EXPECT_THAT(told(dir), ElementsAre("own"));
}

// All that looks like one, and is none.
TEST(OldFiles, AreTheOnlyOnesRemoved) {
  TempDir dir;
  leaveDead(dir / "x-%d.lg", 1);
  std::string const dead = dir.names().front(), trace = readFile(dir / dead);
  for (std::string const name : {"y-1.lg", "x-1.lg.bak", "x-1.log", "x-one.lg", "xx-1.lg", "x-1.lg.new-1-1",
                                 "x-.lg", "x-1xlg", "x-1.lg.1.2"})
    writeFile(dir / name, trace);
  writeFile(dir / "x-2.lg", "no trace");
  writeFile(dir / "x-3.lg", std::string(20000, '\0'));
  writeFile(dir / "x-4.lg", "");
  std::filesystem::create_directory(dir / "x-5.lg");
  std::filesystem::create_symlink(dir / "y-1.lg", dir / "x-6.lg");
  ASSERT_EQ(mkfifo((dir / "x-7.lg").c_str(), 0600), 0);
  if (geteuid() == 0) {
    writeFile(dir / "x-8.lg", trace);
    ASSERT_EQ(chown((dir / "x-8.lg").c_str(), 65534, 65534), 0);
  }
  LogPtr const live = make(dir / "x-9.lg", keeping(100));
  std::vector<std::string> expected = dir.names();
  std::erase(expected, dead);
  LogPtr const log = make(dir / "x-10.lg", keeping(0));
  LogPtr const other = make(dir / "x-%d.lg", keeping(0));
  expected.push_back("x-10.lg");
  expected.push_back(fmt::format("x-{}.lg", getpid()));
  EXPECT_THAT(dir.names(), testing::UnorderedElementsAreArray(expected));
}

// A file of somebody else under the wanted name can neither be locked nor be moved.
TEST(Name, OfAnotherUserIsLeftAlone) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be two users";
  TempDir dir;
  writeFile(dir / "a.lg", "another's");
  chmod((dir / "a.lg").c_str(), 0600);
  chmod(dir.path().c_str(), 01777);
  EXPECT_EQ(inChild([&] {
              freopen("/dev/null", "w", stderr);
              if (setresuid(65534, 65534, 65534) != 0) _exit(1);
              Log* const log = open(dir / "a.lg", small());
              LUMELOG_RECORD(log, 3, 7u, "here");
              if (!log || log->path() != dir / fmt::format("a-{}.lg", getpid())) _exit(2);
            }),
            0);
  EXPECT_EQ(readFile(dir / "a.lg"), "another's");
}

// What goes wrong.

TEST(Opening, InAMissingDirectoryIsSaidOnce) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(open("/nonexistent/a.lg", small()), nullptr);
  EXPECT_EQ(open("/nonexistent/a.lg", small()), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Lumelog: cannot open the trace file /nonexistent/a.lg: No such file or directory; running "
            "without it\n");
}

TEST(Opening, WithoutSpaceFailsThereAndLeavesNothing) {
  TempDir dir;
  EXPECT_EQ(inChild([&] {
              signal(SIGXFSZ, SIG_IGN);
              rlimit const limit{64 * 1024, 64 * 1024};
              setrlimit(RLIMIT_FSIZE, &limit);
              freopen((dir / "said").c_str(), "w", stderr);
              if (open(dir / "a.lg", small())) _exit(1);
            }),
            0);
  EXPECT_EQ(readFile(dir / "said"),
            "Lumelog: cannot open the trace file " + dir / "a.lg: File too large; running without it\n");
  EXPECT_THAT(dir.names(), ElementsAre("said"));
}

// Where the kernel lets this process mount: a full disk and one that fills up.
TEST(Opening, OnAFullDiskFailsThere) {
  TempDir dir;
  int const result = inChild([&] {
    if (!mountSmallDisk(dir.path(), 64)) _exit(77);
    freopen((dir / "said").c_str(), "w", stderr);
    if (open(dir / "a.lg", small())) _exit(1);
    fflush(stderr);
    if (readFile(dir / "said") != "Lumelog: cannot open the trace file " + dir / "a.lg" +
                                      ": No space left on device; running without it\n")
      _exit(2);
    if (dir.names() != std::vector<std::string>{"said"}) _exit(3);
  });
  if (result == 77) GTEST_SKIP() << "this process may not mount";
  EXPECT_EQ(result, 0);
}

TEST(Opening, MakesAFullDiskHarmlessLater) {
  TempDir dir;
  int const result = inChild([&] {
    if (!mountSmallDisk(dir.path(), 1024)) _exit(77);
    LogPtr const log = make(dir / "a.lg");
    if (!log) _exit(1);
    std::FILE* const rest = fopen((dir / "rest").c_str(), "w");
    while (fputs("as much as there is", rest) != EOF && fflush(rest) != EOF) continue;
    if (errno != ENOSPC) _exit(2);
    for (unsigned i = 0; i < 100000; ++i) LUMELOG_RECORD(log.get(), 3, 7u, "i:", i);
    if (messages(dir / "a.lg").back() != "i:99999") _exit(3);
  });
  if (result == 77) GTEST_SKIP() << "this process may not mount";
  EXPECT_EQ(result, 0) << "a page without space behind it is a SIGBUS";
}

TEST(Opening, ReservesAllItsSpace) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  struct stat status;
  ASSERT_EQ(stat(log->path().c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, status.st_size);
  EXPECT_EQ(status.st_size, 4096 + 256 * 1024 + 10 * 16 * 1024 + 4096);
}

// Other processes.

TEST(Fork, TheChildDoesNotWriteIntoItsParentsFile) {
  TempDir dir;
  LogPtr log = make(dir / "a.lg");
  auto both = [&](unsigned i) { LUMELOG_RECORD(log.get(), 3, 7u, "i:", i); };
  both(0);
  EXPECT_EQ(inChild([&] {
              for (unsigned i = 0; i < 1000; ++i) both(99);
              LUMELOG_RECORD(log.get(), 3, 7u, "a message that the parent never had");
              if (log->recording()) _exit(1);
            }),
            0);
  both(1);
  EXPECT_THAT(messages(dir / "a.lg"), ElementsAre("i:0", "i:1"));
  EXPECT_EQ(log->sites(), 1U);
}

TEST(Fork, AChildDoesNotKeepItsParentsFileLive) {
  TempDir dir;
  int toChild[2];
  ASSERT_EQ(pipe(toChild), 0);
  EXPECT_EQ(inChild([&] {
              open(dir / "a.lg", small());
              if (fork() == 0) {
                ::close(toChild[1]);
                char c;
                static_cast<void>(read(toChild[0], &c, 1));
                _exit(0);
              }
            }),
            0);
  Reader reader(dir / "a.lg");
  // The child lets go of it as soon as it runs.
  for (int i = 0; i < 2000 && reader.live(); ++i) usleep(1000);
  EXPECT_FALSE(reader.live());
  ::close(toChild[0]);
  ::close(toChild[1]);
}

// A process killed at a moment that nobody chose: what was written up to some record is there, without a gap.
TEST(Crash, KilledAnywhereLeavesEveryRecordWhole) {
  U64 all = 0;
  for (int round = 0; round < 30; ++round) {
    TempDir dir;
    pid_t const child = fork();
    if (child == 0) {
      Options options = small();
      options.kib[9] = 64;
      Log* log = open(dir / "a.lg", options);
      for (U64 i = 0;; ++i) {
        LUMELOG_RECORD(log, 9, 7u, "n:", i, " twice:", 2 * i,
                       " text:", std::string_view("0123456789", i % 10));
        if (i % 1000 == 0) LUMELOG_RECORD(log, 1, 7u, "thousand:", i / 1000);
      }
    }
    while (access((dir / "a.lg").c_str(), F_OK) != 0) usleep(50);
    usleep(static_cast<useconds_t>(500 + 397 * round));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    Reader reader(dir / "a.lg");
    U64 next = ~U64{0}, count = 0;
    for (Record record; reader.next(record);) {
      if (record.site->level == 1) continue;
      if (count++) {
        ASSERT_EQ(record.values[1].number, next);
      }
      next = record.values[1].number + 1;
      ASSERT_EQ(record.values[2].number, 2 * record.values[1].number);
      ASSERT_EQ(record.values[3].text, std::string_view("0123456789", record.values[1].number % 10));
    }
    all += count;
    EXPECT_FALSE(reader.damage().any()) << reader.damage().lines().front();
  }
  EXPECT_GT(all, 0U);
}

}  // namespace
}  // namespace Lumelog
