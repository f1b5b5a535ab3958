// SPDX-License-Identifier: Apache-2.0
// The agent's log: lines that nobody reads, and lines over the rate limit.
#include "apps/vantreld/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "ostra/clock.h"
#include "pallo/descriptor.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Vantreld::Log;

namespace {

class Standing : public Ostra::Clock {
 public:
  double now() const override { return time; }
  double time = 1000;
};

class LogTest : public testing::Test {
 protected:
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
  std::string taken() const {
    std::string text;
    std::array<char, 65536> some;
    for (ssize_t n; (n = read(reader.get(), some.data(), some.size())) > 0;)
      text.append(some.data(), static_cast<std::size_t>(n));
    return text;
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
  for (int i = 0; i < 2000; ++i) log.say("{}", std::string(100, 'x'));  // would block
  std::string const first = taken();
  EXPECT_THAT(first, testing::Not(HasSubstr("could not be written")));
  auto const lines = std::ranges::count(first, '\n');
  EXPECT_GT(lines, 100);
  log.catchUp();
  EXPECT_EQ(taken(), fmt::format("vantreld: {} lines could not be written here\n", 2000 - lines));
  log.say("again");
  EXPECT_EQ(taken(), "vantreld: again\n");
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
