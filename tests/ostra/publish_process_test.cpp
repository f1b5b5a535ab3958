// SPDX-License-Identifier: Apache-2.0
// Who may do what on the socket, by the kernel's word of the peer, and what a killed agent leaves behind.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>

#include "ostra/mount_ask.h"
#include "ostra/publish.h"
#include "raw_peer.h"
#include "sample.h"
#include "tests/support/temp_dir.h"

namespace OstraTest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class PublishProcessTest : public testing::Test {
 protected:
  void publish(Ostra::Publisher::Options options = {}) {
    publisher_ = std::make_unique<Ostra::Publisher>(path_, options);
    publisher_->exportObject("sample", sample_);
  }
  // What `ask` says in another process, while the publisher works here.
  template <class Ask>
  std::string elsewhere(Ask ask) {
    int ends[2];
    EXPECT_EQ(0, ::pipe(ends));
    pid_t const child = ::fork();
    if (child == 0) {
      std::string const text = ask();
      ::_exit(::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    int status = -1;
    while (::waitpid(child, &status, WNOHANG) == 0) {
      pollfd p{publisher_->fd(), POLLIN, 0};
      ::poll(&p, 1, 5);
      publisher_->dispatch();
    }
    EXPECT_EQ(0, status);
    ::close(ends[1]);
    char text[4096];
    ssize_t const n = ::read(ends[0], text, sizeof text);
    ::close(ends[0]);
    return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  }
  static std::string answer(std::string const& path, std::string const& request) {
    try {
      std::string text;
      Ostra::Asker(path, 10).ask(request, [&](std::string_view line) { text += line; });
      return text;
    } catch (std::exception const& e) {
      return e.what();
    }
  }

  TestSupport::TempDir const dir_;
  std::string const path_ = dir_.path() + "/mgmt.sock";
  Ostra::Ptr<Sample> sample_ = Ostra::make<Sample>("sample");
  std::unique_ptr<Ostra::Publisher> publisher_;
};

constexpr char const* writing = R"({"verb":"write","entity":"sample","attribute":"level","value":7})";
constexpr char const* reading = R"({"verb":"read","entity":"sample","attribute":"level"})";
constexpr char const* invoking = R"({"verb":"invoke","entity":"sample","operation":"add","arguments":[1]})";
constexpr char const* deleting = R"({"verb":"delete","entity":"sample","attribute":"hashed","key":1})";
constexpr char const* refusal = "writing and invoking are for the owner of the agent and for root";

TEST_F(PublishProcessTest, TheOwnerMayWrite) {
  publish();
  EXPECT_THAT(elsewhere([&] { return answer(path_, writing); }), HasSubstr(R"("value":7})"));
  EXPECT_EQ(7, sample_->level());
}

TEST_F(PublishProcessTest, OneOfTheGroupMayReadButNotWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "becoming another user takes root";
  constexpr uid_t nobody = 65534;
  ASSERT_EQ(0, ::chmod(dir_.path().c_str(), 0755));
  publish();
  sample_->hashedIs(1, 1);
  auto const asNobody = [&](std::string const& request) {
    return elsewhere([&] {
      if (::setresuid(nobody, nobody, nobody) != 0) return std::string("setresuid");
      return answer(path_, request);
    });
  };
  EXPECT_THAT(asNobody(reading), HasSubstr(R"("value":0})"));
  for (char const* request : {writing, invoking, deleting}) EXPECT_EQ(refusal, asNobody(request));
  EXPECT_EQ(0, sample_->level());
  EXPECT_EQ(1u, sample_->hashed().size());
}

TEST_F(PublishProcessTest, OthersCannotConnect) {
  if (::geteuid() != 0) GTEST_SKIP() << "becoming another user takes root";
  ASSERT_EQ(0, ::chmod(dir_.path().c_str(), 0755));
  publish();
  std::string const text = elsewhere([&] {
    if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
      return std::string("set");
    return answer(path_, reading);
  });
  EXPECT_THAT(text, StartsWith("cannot reach the agent at "));
  EXPECT_THAT(text, HasSubstr("Permission denied"));
}

TEST_F(PublishProcessTest, AnAgentOfAnotherUserIsNotWrittenByThisOne) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may";
  publish({.owner = ::geteuid() + 1});
  EXPECT_EQ(refusal, elsewhere([&] { return answer(path_, writing); }));
}

TEST_F(PublishProcessTest, WhoeverAsksWaitsForItsTurnToConnect) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 4096) GTEST_SKIP() << "this process may open too few files";
  publish({.mostPeers = 2000});
  std::vector<std::unique_ptr<RawPeer>> crowd;  // connected, and not accepted yet
  do crowd.push_back(std::make_unique<RawPeer>(path_));
  while (crowd.back()->connected() && crowd.size() < 1500);
  ASSERT_FALSE(crowd.back()->connected()) << "there is no more room";
  EXPECT_THAT(elsewhere([&] { return answer(path_, reading); }), HasSubstr(R"("value":0})"));
}

// The child's copy keeps the peer's socket open; its end must not be reported for ever.
TEST_F(PublishProcessTest, AnAgentThatForkedRestsWhenAPeerIsGone) {
  publish();
  RawPeer peer(path_);
  for (int i = 0; i < 100 && publisher_->peers() == 0; ++i) publisher_->dispatch();
  ASSERT_EQ(1u, publisher_->peers());
  pid_t const child = ::fork();
  if (child == 0) {
    ::pause();
    ::_exit(0);
  }
  ::shutdown(peer.fd(), SHUT_RDWR);
  for (int i = 0; i < 100 && publisher_->peers() > 0; ++i) publisher_->dispatch();
  EXPECT_EQ(0u, publisher_->peers());
  pollfd p{publisher_->fd(), POLLIN, 0};
  EXPECT_EQ(0, ::poll(&p, 1, 0)) << "there is nothing to do";
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST_F(PublishProcessTest, TheSocketOfAKilledAgentIsReplaced) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  pid_t const child = ::fork();
  if (child == 0) {
    publish();
    if (::write(ends[1], "x", 1) == 1) ::pause();
    ::_exit(1);
  }
  char ready;
  ASSERT_EQ(1, ::read(ends[0], &ready, 1));
  EXPECT_THROW(publish(), std::runtime_error) << "while it lives";
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(0, ::access(path_.c_str(), F_OK)) << "it left its socket behind";
  publish();
  EXPECT_THAT(elsewhere([&] { return answer(path_, reading); }), HasSubstr(R"("value":0})"));
}

}  // namespace
}  // namespace OstraTest
