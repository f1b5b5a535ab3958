// SPDX-License-Identifier: Apache-2.0
// The agent's log: lines that nobody reads, and lines over the rate limit.
#include "apps/vantreld/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <regex>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include "ostra/clock.h"
#include "pallo/descriptor.h"
#include "tests/support/temp_dir.h"

using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;
using Vantreld::Log;

namespace {

int pipeToFill = -1;  // another process fills it after each poll

void fill(int pipe) {
  Pallo::Descriptor const own(
      open(fmt::format("/proc/self/fd/{}", pipe).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  for (std::array<char, 4096> const page{}; write(own.get(), page.data(), page.size()) > 0;) continue;
}

}  // namespace

// Takes the place of the C library's.
extern "C" int poll(pollfd* fds, nfds_t count, int milliseconds) {
  timespec const time{milliseconds / 1000, milliseconds % 1000 * 1000000L};
  int const ready = ppoll(fds, count, milliseconds < 0 ? nullptr : &time, nullptr);
  if (pipeToFill >= 0) fill(pipeToFill);
  return ready;
}

namespace {

class Standing : public Ostra::Clock {
 public:
  double now() const override { return time; }
  double time = 1000;
};

class LogTest : public testing::Test {
 public:
  LogTest() {
    std::signal(SIGPIPE, SIG_IGN);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    reader = Pallo::Descriptor(ends[0]);
    writer = Pallo::Descriptor(ends[1]);
    fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    before = Ostra::clockIs(&clock);
  }
  ~LogTest() override { Ostra::clockIs(before); }

 protected:
  std::string taken() const {
    std::string text;
    std::array<char, 65536> some;
    for (ssize_t n; (n = read(reader.get(), some.data(), some.size())) > 0;)
      text.append(some.data(), static_cast<std::size_t>(n));
    return text;
  }
  // The sum of all the counts that were written instead of lines.
  static long lostLines(std::string const& text) {
    long sum = 0;
    std::regex const count("([0-9]+) lines could not be written here\n");
    for (std::sregex_iterator i(text.begin(), text.end(), count), end; i != end; ++i)
      sum += std::stol((*i)[1]);
    return sum;
  }
  static long announcements(std::string const& text) {
    std::regex const count("lines could not be written here\n");
    return std::distance(std::sregex_iterator(text.begin(), text.end(), count), {});
  }
  Standing clock;
  Ostra::Clock const* before = nullptr;
  Pallo::Descriptor reader, writer;
};

}  // namespace

TEST_F(LogTest, WritesALine) {
  Log log(writer.get());
  log.say("{} of {}", 1, "2");
  EXPECT_EQ(taken(), "vantreld: 1 of 2\n");
}

TEST_F(LogTest, CutsALineThatIsTooLong) {
  Log log(writer.get());
  log.say("{}", std::string(10000, 'x'));
  std::string const text = taken();
  EXPECT_EQ(text.size(), 4096U);
  EXPECT_THAT(text, EndsWith("x\n"));
}

TEST_F(LogTest, CountsLinesThatAFullPipeDoesNotTake) {
  Log log(writer.get());
  std::string const line(100, 'x');
  for (int i = 0; i < 2000; ++i) log.say("{}", line);  // would block
  std::string text = taken();
  log.catchUp();
  text += taken();
  auto const counted = lostLines(text);
  EXPECT_GT(counted, 100);
  EXPECT_EQ(std::ranges::count(text, '\n'), 2000 - counted + announcements(text));
  log.say("again");
  EXPECT_EQ(taken(), "vantreld: again\n");
}

TEST_F(LogTest, NeedsNoPollBeforeAPipe) {
  Log log(writer.get());
  std::binary_semaphore said(0);
  bool waited = false;
  std::jthread slowReader([&] {
    waited = !said.try_acquire_for(std::chrono::seconds(5));
    if (waited) taken();
  });
  pipeToFill = writer.get();
  log.say("would block");
  pipeToFill = -1;
  said.release();
  slowReader.join();
  EXPECT_FALSE(waited) << "another process filled the pipe after poll, and say() waited for the reader";
}

TEST_F(LogTest, LeavesTheInheritedDescriptionBlocking) {
  Log log(writer.get());
  log.say("a line");
  EXPECT_EQ(fcntl(writer.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LogTest, AppendsToARegularFile) {
  TestSupport::TempDir const dir;
  Pallo::Descriptor const file(open((dir / "log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  Log first(file.get()), second(file.get());
  first.say("one");
  second.say("two");
  std::array<char, 100> text{};
  EXPECT_EQ(pread(file.get(), text.data(), text.size(), 0), 28);
  EXPECT_STREQ(text.data(), "vantreld: one\nvantreld: two\n");
}

TEST_F(LogTest, AFullSocketHoldsNobodyUp) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  Pallo::Descriptor const ours(ends[0]), theirs(ends[1]);
  Log log(ours.get());
  for (int i = 0; i < 20000; ++i) log.say("{}", std::string(100, 'x'));
  std::array<char, 1000> text{};
  EXPECT_EQ(recv(theirs.get(), text.data(), text.size(), MSG_DONTWAIT), 1000);
}

TEST_F(LogTest, SurvivesAReaderThatIsGone) {
  Log log(writer.get());
  reader.reset();
  log.say("to nobody");
  log.catchUp();
}

TEST_F(LogTest, HoldsProvokedLinesBack) {
  Log log(writer.get());
  for (int i = 0; i < 500; ++i) log.provoked("again {}", i);
  std::string const burst = taken();
  EXPECT_EQ(std::ranges::count(burst, '\n'), 10);
  log.catchUp();
  EXPECT_THAT(taken(), IsEmpty()) << "that, too, waits for its time";
  clock.time += 2;
  log.catchUp();
  EXPECT_EQ(taken(), "vantreld: 490 more lines like these came too fast to be said\n");
  log.provoked("again");
  EXPECT_EQ(taken(), "vantreld: again\n");
  log.say("not provoked");
  EXPECT_THAT(taken(), StartsWith("vantreld: not provoked"));
}
