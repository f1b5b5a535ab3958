// SPDX-License-Identifier: Apache-2.0
// Whom the writer's lock names to another: its holder, also to a child of its, and also where the holder is
// a process that cannot be seen. What is locked is a table, and goes on with the numbers of the one it
// replaces.
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "fixture.h"
#include "shoal/format.h"

namespace ShoalTest {
namespace {

using testing::HasSubstr;

constexpr int cannotUnshare = 77;

// As another container does that shares the table's directory and has process numbers of its own.
void refusedAmongOtherProcesses(std::string const& path) {
  if (unshare(geteuid() == 0 ? CLONE_NEWPID : CLONE_NEWPID | CLONE_NEWUSER) != 0) _exit(cannotUnshare);
  pid_t const inside = fork();
  if (inside < 0) _exit(cannotUnshare);
  if (inside == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      Writer const second(path);
      ADD_FAILURE() << "two writers";
    } catch (Shoal::WriterLockedException const& error) {
      EXPECT_EQ(error.holder(), 0);
      EXPECT_THAT(error.what(), HasSubstr(path));
      EXPECT_THAT(error.what(), HasSubstr("a process that is not visible from here is writing this table"));
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  // The first process of its namespace: a signal that it did not ask for does not end it.
  for (int i = 0; i < 100; ++i) {
    if (waitpid(inside, &status, WNOHANG) == inside) _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 2);
    usleep(100000);
  }
  kill(inside, SIGKILL);
  _exit(3);
}

// A writer in a process of its own, which it has become when this returns.
pid_t startWriter(std::string const& path) {
  int made[2];
  if (pipe(made) != 0) return -1;
  pid_t const child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Writer const writer(path);
    if (write(made[1], "w", 1) != 1) _exit(2);
    for (;;) pause();
  }
  close(made[1]);
  char byte;
  bool const there = read(made[0], &byte, 1) == 1;
  close(made[0]);
  return there ? child : -1;
}

TEST(WriterLock, RefusesAWriterThatCannotSeeItsHolder) {
  Directory dir;
  pid_t const writer = startWriter(dir / "t");
  ASSERT_GT(writer, 0);
  std::fflush(nullptr);
  pid_t const child = fork();
  if (child == 0) refusedAmongOtherProcesses(dir / "t");
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == cannotUnshare) GTEST_SKIP() << "no process numbers of one's own to be had here";
  EXPECT_NE(WEXITSTATUS(status), 3) << "it waits for the lock without end";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// A child has its parent's memory of the lock, and not the lock.
TEST(WriterLock, NamesTheParentToAChild) {
  Directory dir;
  Writer const writer(dir / "t");
  pid_t const parent = getpid();
  auto const second = [&] {
    try {
      Writer const another(dir / "t");
      _exit(1);
    } catch (Shoal::WriterLockedException const& error) {
      _exit(error.holder() == parent ? 0 : 2);
    }
  };
  EXPECT_EXIT(second(), testing::ExitedWithCode(0), "");
  EXPECT_THROW(Writer(dir / "t"), Shoal::WriterLockedException) << "it still has the lock";
}

// Neither the lock's holder nor anything else is written into what is no table.
TEST(WriterLock, LeavesWhatIsNoTableAlone) {
  Directory dir;
  for (std::string const& bytes : {std::string("a letter"), std::string(10000, 'x'), std::string()}) {
    std::ofstream(dir / "t") << bytes;
    EXPECT_THROW(Writer(dir / "t"), Shoal::FileException);
    std::ifstream in(dir / "t");
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == bytes) << bytes.size();
  }
}

// Who kept the number of a change never meets it again for another one.
TEST(WriterLock, AReplacedTableGoesOnWithItsNumbers) {
  Directory dir;
  U64 changes = 0;
  for (int round = 0; round < 4; ++round) {
    Writer writer(dir / "t", {.replace = true, .ringEntries = 16});
    EXPECT_EQ(writer.changes(), changes) << round;
    EXPECT_EQ(writer.size(), 0U);
    for (U64 key = 0; key < 20 * static_cast<U64>(round); ++key) writer.entryIs(record(key, 1));
    changes = writer.changes();
  }
  EXPECT_EQ(Writer(dir / "t").changes(), changes);
  EXPECT_EQ(changes, 120U);
}

// The count of changes is damaged: the newest record says how far the table was.
TEST(WriterLock, AReplacedTableSurvivesItsCountsDamage) {
  Directory dir;
  {
    Writer writer(dir / "t");
    for (U64 key = 0; key < 50; ++key) writer.entryIs(record(key, 1));
  }
  std::fstream file(dir / "t", std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(Shoal::Format::headAt);
  file.write("damaged!", 8);
  file.close();
  EXPECT_EQ(Writer(dir / "t", {.replace = true}).changes(), 50U);
}

}  // namespace
}  // namespace ShoalTest
