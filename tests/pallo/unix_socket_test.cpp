// SPDX-License-Identifier: Apache-2.0
// Lines over a socket, and the descriptors by which a service wakes itself.
#include "pallo/unix_socket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "pallo/events.h"

namespace Pallo {
namespace {

class LineSocketTest : public testing::Test {
 protected:
  LineSocketTest() {
    int ends[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    socket_ = LineSocket(Descriptor(ends[0]), 100);
    other_ = Descriptor(ends[1]);
  }
  void arrives(std::string const& bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::write(other_.get(), bytes.data(), bytes.size()));
    socket_.receive();
  }
  std::string line() { return std::string(socket_.line().value_or("none")); }

  LineSocket socket_{{}, 0};
  Descriptor other_;
};

TEST_F(LineSocketTest, CutsLinesWhereverBytesAreCut) {
  arrives("one\ntw");
  EXPECT_TRUE(socket_.hasLine());
  EXPECT_EQ("one", line());
  EXPECT_FALSE(socket_.hasLine());
  EXPECT_EQ("none", line());
  arrives("o\n\nthree");
  EXPECT_EQ("two", line());
  EXPECT_EQ("", line());
  EXPECT_EQ("none", line());
  arrives("\n");
  EXPECT_EQ("three", line());
}

TEST_F(LineSocketTest, ReceivesNoMoreThanItIsToldTo) {
  EXPECT_EQ(9, ::write(other_.get(), "one\ntwo\n\n", 9));
  socket_.receive(5);
  EXPECT_EQ("one", line());
  EXPECT_EQ("none", line());
  socket_.receive(3);
  EXPECT_EQ("two", line());
}

TEST_F(LineSocketTest, NoticesUnfinishedLineThatIsTooLong) {
  arrives(std::string(100, 'x'));
  EXPECT_EQ("none", line());
  EXPECT_FALSE(socket_.overlong());
  EXPECT_EQ("", socket_.ended());
  arrives("x");
  EXPECT_TRUE(socket_.overlong());
  EXPECT_EQ("sent a line that is too long", socket_.ended());
}

TEST_F(LineSocketTest, TellsItsEndBehindLastLine) {
  arrives("last\n");
  other_.reset();
  socket_.receive();
  EXPECT_TRUE(socket_.heardAll());
  EXPECT_EQ("last", line());
  EXPECT_EQ("closed the connection", socket_.ended());
  EXPECT_EQ(0, socket_.error());
}

TEST_F(LineSocketTest, SendsRestWhenThereIsRoom) {
  std::string const all(4 << 20, 'x');
  socket_.out() = all;
  ASSERT_TRUE(socket_.send());
  EXPECT_TRUE(socket_.blocked());
  EXPECT_GT(socket_.unread(), 0);
  std::string arrived(all.size(), ' ');
  std::size_t n = 0;
  while (n < all.size()) {
    ssize_t const got = ::read(other_.get(), arrived.data() + n, arrived.size() - n);
    n += got > 0 ? static_cast<std::size_t>(got) : 0;
    ASSERT_TRUE(socket_.send());
    ASSERT_EQ(all.size(), socket_.sent() + socket_.out().size());
  }
  EXPECT_EQ(all, arrived);
  EXPECT_FALSE(socket_.blocked());
  EXPECT_FALSE(socket_.sending());
  EXPECT_EQ(0, socket_.unread());
}

TEST_F(LineSocketTest, SaysThatNobodyWillRead) {
  other_.reset();
  socket_.out() = "lost\n";
  EXPECT_FALSE(socket_.send());
  EXPECT_FALSE(socket_.sending());
}

TEST(UnixSocket, ConnectsToNobody) {
  EXPECT_FALSE(connectTo("/nonexistent/socket"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_THROW(connectTo(std::string(200, 'x')), std::runtime_error);
}

bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1;
}

TEST(Doorbell, IsReadableWhileItRings) {
  Doorbell bell;
  EXPECT_FALSE(readable(bell.fd()));
  bell.ringsIs(true);
  bell.ringsIs(true);
  EXPECT_TRUE(readable(bell.fd()));
  bell.ringsIs(false);
  EXPECT_FALSE(readable(bell.fd()));
}

TEST(Timer, RunsOutOnceEachPeriod) {
  Timer timer;
  EXPECT_FALSE(timer.runsOut());
  timer.startIs(0.001, 1000);
  pollfd p{timer.fd(), POLLIN, 0};
  ASSERT_EQ(1, ::poll(&p, 1, 10000));
  EXPECT_TRUE(timer.runsOut());
  EXPECT_FALSE(timer.runsOut());
  timer.startIs(1000, 0.001);
  EXPECT_FALSE(readable(timer.fd()));
  timer.startIs(0);
  EXPECT_FALSE(readable(timer.fd()));
}

}  // namespace
}  // namespace Pallo
