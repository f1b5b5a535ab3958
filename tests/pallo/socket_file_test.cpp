// SPDX-License-Identifier: Apache-2.0
// The socket's file in a directory that another user may write to: what was planted there is refused or
// replaced, never followed, and no file elsewhere changes.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include "pallo/socket_file.h"
#include "pallo/unix_socket.h"

namespace Pallo {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

constexpr uid_t nobody = 65534;

std::string temporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "socket-file-XXXXXX").string();
  return ::mkdtemp(name.data());
}

class SocketFileTest : public testing::Test {
 protected:
  SocketFileTest() {
    std::ofstream(victim_) << "mine";
    ::chmod(victim_.c_str(), 0600);
  }
  ~SocketFileTest() override {
    std::filesystem::remove_all(dir_);
    std::filesystem::remove_all(elsewhere_);
  }
  // Why there is no socket, or "".
  std::string refusal() const {
    try {
      SocketFile const socket(path_);
      return {};
    } catch (std::runtime_error const& e) {
      return e.what();
    }
  }
  static unsigned modeOf(std::string const& path) {
    struct stat s {};
    return ::stat(path.c_str(), &s) == 0 ? s.st_mode & 07777u : ~0u;
  }
  static bool exists(std::string const& path) {
    struct stat s {};
    return ::lstat(path.c_str(), &s) == 0;
  }

  std::string const dir_ = temporaryDirectory();
  std::string const elsewhere_ = temporaryDirectory();
  std::string const path_ = dir_ + "/mgmt.sock";
  std::string const lock_ = path_ + ".lock";
  std::string const private_ = path_ + ".private";
  std::string const victim_ = elsewhere_ + "/victim";
};

constexpr char const* lockRule =
    "mgmt.sock.lock beside it must be a regular file of this user, with one name";
constexpr char const* directoryRule =
    "mgmt.sock.private beside it must be a directory of this user, with mode 0700";

TEST_F(SocketFileTest, LeavesNothingButSocketAndLock) {
  SocketFile const socket(path_);
  EXPECT_TRUE(exists(path_));
  EXPECT_TRUE(exists(lock_));
  EXPECT_FALSE(exists(private_));
}

TEST_F(SocketFileTest, RefusesLockFileThatIsLink) {
  ASSERT_EQ(0, ::symlink(victim_.c_str(), lock_.c_str()));
  EXPECT_THAT(refusal(), HasSubstr("cannot open the lock file beside it"));
}

TEST_F(SocketFileTest, RefusesLockFileWithSecondName) {
  ASSERT_EQ(0, ::link(victim_.c_str(), lock_.c_str()));
  EXPECT_THAT(refusal(), EndsWith(lockRule));
}

TEST_F(SocketFileTest, RefusesLockFileThatIsFifo) {
  ASSERT_EQ(0, ::mkfifo(lock_.c_str(), 0600));
  EXPECT_THAT(refusal(), EndsWith(lockRule));
}

TEST_F(SocketFileTest, RefusesLockFileThatIsDirectory) {
  ASSERT_EQ(0, ::mkdir(lock_.c_str(), 0700));
  EXPECT_THAT(refusal(), HasSubstr("cannot open the lock file beside it"));
}

TEST_F(SocketFileTest, RefusesLockFileOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving files away takes root";
  std::ofstream(lock_) << "";
  ASSERT_EQ(0, ::chown(lock_.c_str(), nobody, nobody));
  EXPECT_THAT(refusal(), EndsWith(lockRule));
}

TEST_F(SocketFileTest, RefusesPrivateDirectoryThatIsLink) {
  std::string const other = elsewhere_ + "/private";
  ASSERT_EQ(0, ::mkdir(other.c_str(), 0700));
  ASSERT_EQ(0, ::symlink(other.c_str(), private_.c_str()));
  EXPECT_THAT(refusal(), EndsWith(directoryRule));
  EXPECT_EQ(0, ::rmdir(other.c_str())) << "it is empty";
}

TEST_F(SocketFileTest, RefusesPrivateDirectoryOpenToOthers) {
  ASSERT_EQ(0, ::mkdir(private_.c_str(), 0700));
  ASSERT_EQ(0, ::chmod(private_.c_str(), 0770));
  EXPECT_THAT(refusal(), EndsWith(directoryRule));
  EXPECT_EQ(0770u, modeOf(private_));
}

TEST_F(SocketFileTest, RefusesPrivateDirectoryOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving files away takes root";
  ASSERT_EQ(0, ::mkdir(private_.c_str(), 0700));
  ASSERT_EQ(0, ::chown(private_.c_str(), nobody, nobody));
  EXPECT_THAT(refusal(), EndsWith(directoryRule));
}

TEST_F(SocketFileTest, RefusesFileForPrivateDirectory) {
  ASSERT_EQ(0, ::rename(victim_.c_str(), private_.c_str()));
  EXPECT_THAT(refusal(), EndsWith(directoryRule));
  EXPECT_EQ(0600u, modeOf(private_));
}

TEST_F(SocketFileTest, TakesOverDirectoryOfDeadAgent) {
  ASSERT_EQ(0, ::mkdir(private_.c_str(), 0700));
  std::ofstream(private_ + "/socket") << "";
  EXPECT_EQ("", refusal());
  EXPECT_FALSE(exists(private_));
}

TEST_F(SocketFileTest, RefusesSocketPathThatIsLink) {
  ASSERT_EQ(0, ::symlink(victim_.c_str(), path_.c_str()));
  EXPECT_THAT(refusal(), EndsWith("mgmt.sock: the path exists and is not a socket"));
  EXPECT_EQ(0600u, modeOf(victim_));
}

TEST_F(SocketFileTest, SetsItsModeUnderAnyUmask) {
  for (mode_t const mask : {0000u, 0022u, 0077u}) {
    mode_t const before = ::umask(mask);
    {
      SocketFile const socket(path_);
      EXPECT_EQ(0660u, modeOf(path_)) << mask;
    }
    ::umask(before);
  }
}

TEST_F(SocketFileTest, TakesGroupThatDirectoryHandsDown) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving files away takes root";
  ASSERT_EQ(0, ::chown(dir_.c_str(), 0, nobody));
  ASSERT_EQ(0, ::chmod(dir_.c_str(), 02770));
  SocketFile const socket(path_);
  struct stat s {};
  ASSERT_EQ(0, ::stat(path_.c_str(), &s));
  EXPECT_EQ(nobody, s.st_gid);
}

// A live agent that has no room for one more connection, and whose lock file was removed, is alive.
TEST_F(SocketFileTest, RefusesSocketOfLiveAgentWithoutLock) {
  SocketFile const socket(path_);
  std::vector<Descriptor> crowd;  // connected, and not accepted
  do crowd.push_back(connectTo(path_));
  while (crowd.back() && crowd.size() < 900);
  ASSERT_FALSE(crowd.back()) << "there is no more room";
  ASSERT_EQ(0, ::unlink(lock_.c_str()));
  EXPECT_THAT(refusal(), EndsWith("a live agent serves it already"));
}

// Puts a link to `victim` in the place of `name`, again and again, and now and then a directory, or what is
// there away.
[[noreturn]] void plant(std::string const& name, std::string const& victim) {
  std::string const link = name + ".link", away = name + ".away";
  for (U64 n = 0;; ++n) {
    static_cast<void>(::symlink(victim.c_str(), link.c_str()));
    ::rename(link.c_str(), name.c_str());
    if (n % 4 == 0) ::rename(name.c_str(), away.c_str());
    ::unlink(name.c_str());
    if (n % 8 == 0 && ::mkdir(name.c_str(), 0700) == 0) ::rmdir(name.c_str());
  }
}

// The race that a producer would run: between the making of the socket and the setting of its mode.
TEST_F(SocketFileTest, KeepsModesElsewhereWhileLinksArePlanted) {
  ASSERT_EQ(0, ::chmod(dir_.c_str(), 0777));
  ASSERT_EQ(0, ::chmod(elsewhere_.c_str(), 0755));
  int served = 0;
  for (std::string const& name : {path_ + ".new", private_, path_}) {
    pid_t const planter = ::fork();
    if (planter == 0) {
      if (::geteuid() == 0 && ::setresuid(nobody, nobody, nobody) != 0) ::_exit(1);
      plant(name, victim_);
    }
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (modeOf(victim_) == 0600 && std::chrono::steady_clock::now() < end) {
      served += refusal().empty();
      if (::unlink(path_.c_str()) != 0) ::rmdir(path_.c_str());  // what stands in the way, so that it goes on
      if (::unlink(private_.c_str()) != 0) ::rmdir(private_.c_str());
    }
    ::kill(planter, SIGKILL);
    ::waitpid(planter, nullptr, 0);
    EXPECT_EQ(0600u, modeOf(victim_)) << name;
  }
  EXPECT_GT(served, 0) << "the planter was not always faster";
  std::string content;
  std::ifstream(victim_) >> content;
  EXPECT_EQ("mine", content);
}

}  // namespace
}  // namespace Pallo
