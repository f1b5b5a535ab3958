// SPDX-License-Identifier: Apache-2.0
// A file system that is really full: a small tmpfs of the test's own, mounted in a process that may. Skipped
// where none may.
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>

#include "shoal/inspect.h"
#include "watching.h"

namespace ShoalTest {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr int cannotMount = 77;

bool mountSmall(std::string const& at) {
  uid_t const user = geteuid();
  gid_t const group = getegid();
  if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
  if (user != 0) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }
  mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
  return mount("none", at.c_str(), "tmpfs", 0, "size=4m") == 0;
}

// In a child process, on a tmpfs of 4 MiB.
void onASmallFileSystem(std::function<void(std::string const&)> const& scenario) {
  Directory dir;
  std::fflush(nullptr);
  pid_t const child = fork();
  if (child == 0) {
    if (!mountSmall(dir.path())) _exit(cannotMount);
    scenario(dir.path());
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == cannotMount) GTEST_SKIP() << "no file system may be mounted here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// The text of the exception that said so.
std::string writeUntilFull(Writer& writer, U64& written) {
  try {
    for (; written < 100000; ++written) writer.entryIs(record(written + 1, 1));
  } catch (Shoal::NoSpaceException const& error) {
    return error.what();
  }
  return "it never was full";
}

void expectWhole(std::string const& path, U64 records) {
  Shoal::Inspection const found = Shoal::inspect(path);
  EXPECT_EQ(found.damage, std::vector<std::string>());
  EXPECT_EQ(found.unfinished, std::vector<std::string>());
  EXPECT_EQ(found.records, records);
}

// Nothing is left on the file system, and all that was reserved can be written, in any order of inserts,
// replaces and removals.
TEST(FullFileSystem, TakesWhatWasReserved) {
  onASmallFileSystem([](std::string const& dir) {
    constexpr U64 records = 2000;
    std::string const path = dir + "/t";
    Writer writer(path);
    writer.reserve(records);
    std::ofstream ballast(dir + "/ballast", std::ios::binary);
    while (ballast.write(std::string(4096, 'x').data(), 4096).flush()) continue;
    for (U64 round = 0; round < 3; ++round) {
      for (U64 key = 1; key <= records; ++key) writer.entryIs(record(key, round));
      for (U64 key = 2; key <= records; key += 2) writer.entryDel(EntryKey(key));
    }
    expectWhole(path, records / 2);
  });
}

TEST(FullFileSystem, SaysWhenItCannotReserve) {
  onASmallFileSystem([](std::string const& dir) {
    Writer writer(dir + "/t");
    EXPECT_THROW(writer.reserve(1000000), Shoal::NoSpaceException);
    writer.entryIs(record(1, 1));
    expectWhole(dir + "/t", 1);
  });
}

TEST(FullFileSystem, RefusesAWriteAndLeavesTheTableAsItWas) {
  onASmallFileSystem([](std::string const& dir) {
    std::string const path = dir + "/t";
    std::ofstream(dir + "/ballast") << std::string(1024 * 1024, 'x');
    Writer writer(path);
    U64 written = 0;
    std::string const text = writeUntilFull(writer, written);
    EXPECT_THAT(text, AllOf(HasSubstr(path), HasSubstr("cannot grow, and is as it was: No space left")));
    EXPECT_GT(written, 1000U);
    EXPECT_EQ(writer.size(), written);
    EXPECT_EQ(contents(writer).size(), written);
    expectWhole(path, written);
    EXPECT_EQ(writeUntilFull(writer, written), text) << "asked again";
    // What needs no space still goes, and one slot that is free takes any record.
    writer.entryDel(EntryKey(1));
    for (U64 version = 2; version < 500; ++version) writer.entryIs(record(2, version));
    EXPECT_EQ(writer.entry(EntryKey(2)), record(2, 499));
    // With space again it grows on.
    std::filesystem::remove(dir + "/ballast");
    U64 const before = written;
    writeUntilFull(writer, written);
    EXPECT_GT(written, before + 500);
    expectWhole(path, written - 1);
  });
}

TEST(FullFileSystem, RefusesANewTableAndLeavesNothingOfIt) {
  onASmallFileSystem([](std::string const& dir) {
    std::ofstream(dir + "/ballast") << std::string(8 * 1024 * 1024, 'x');
    try {
      Writer const writer(dir + "/t");
      ADD_FAILURE() << "there was room";
    } catch (Pallo::Exception const& error) {
      EXPECT_THAT(error.what(), HasSubstr(dir + "/t"));
      EXPECT_THAT(error.what(), HasSubstr("No space left"));
    }
    EXPECT_FALSE(std::filesystem::exists(dir + "/t"));
    EXPECT_FALSE(std::filesystem::exists(dir + "/t.new"));
  });
}

TEST(FullFileSystem, DoesNotEndAReader) {
  onASmallFileSystem([](std::string const& dir) {
    std::string const path = dir + "/t";
    Writer writer(path);
    auto reader = Ostra::make<Reader>(path);
    Watcher watcher;
    watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
    watcher.hasNotificationActiveIs(true);
    U64 written = 0;
    writeUntilFull(writer, written);
    settle(*reader);
    EXPECT_EQ(watcher.seen, contents(writer));
    std::ofstream(dir + "/ballast") << std::string(4 * 1024 * 1024, 'x');
    Reader late(path);
    late.fd();
    late.dispatch();
    EXPECT_EQ(late.entry(EntryKey(1)), record(1, 1)) << "neither reading nor watching needs space";
    EXPECT_EQ(late.corruptions(), 0U) << late.lastCorruption();
    writer.entryDel(EntryKey(1));
    settle(*reader);
    EXPECT_EQ(watcher.seen, contents(writer));
  });
}

// Whoever truncates the page of flags where there is no space to give it back: everybody is woken at each
// change.
TEST(FullFileSystem, CostsNoWakeUp) {
  onASmallFileSystem([](std::string const& dir) {
    Writer writer(dir + "/t");
    Watched w(dir + "/t");
    writer.entryIs(record(1, 1));
    ASSERT_TRUE(w.sees(1, 1, 1500));
    std::filesystem::resize_file(dir + "/t.watch/slots", 0);
    std::ofstream(dir + "/ballast") << std::string(8 * 1024 * 1024, 'x');
    for (U64 version = 2; version < 5; ++version) {
      writer.entryIs(record(1, version));
      EXPECT_TRUE(w.sees(1, version, 1500)) << version;
    }
    std::filesystem::remove(dir + "/ballast");
    writer.entryIs(record(1, 5));
    EXPECT_EQ(std::filesystem::file_size(dir + "/t.watch/slots"), Shoal::Flags::bytes);
    for (int look = 0; look < 2; ++look) w.awaitLook();
    writer.entryIs(record(1, 6));
    EXPECT_TRUE(w.sees(1, 6, 700)) << "it sleeps in the page again";
  });
}

}  // namespace
}  // namespace ShoalTest
