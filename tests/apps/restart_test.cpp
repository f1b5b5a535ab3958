// SPDX-License-Identifier: Apache-2.0
// Agents that follow one another at hardware that keeps its entries: what each finds, and what it writes.
#include <gmock/gmock.h>

#include <random>

#include "tests/support/site.h"

using namespace TestSupport;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

class Restart : public Site {
 protected:
  std::string state() const { return dir / "state"; }
  void startAt(std::string const& file, std::vector<std::string> flags = {}) {
    flags.insert(flags.end(), {"--sim-state", file});
    start(flags);
  }
  void startAgain(std::vector<std::string> const& flags = {}) { startAt(state(), flags); }
  // An agent that cannot start.
  Ended startFails(std::string const& file, std::vector<std::string> const& flags = {}) {
    std::vector<std::string> argv{VANTREL_BIN_DIR "/vantreld", "--dir", dir.path(), "--sim-state", file};
    argv.insert(argv.end(), flags.begin(), flags.end());
    Process process(argv, dir / "failing.out", dir / "failing.err");
    int const status = process.wait();
    return {status, process.out(), process.err()};
  }
};

}  // namespace

TEST_F(Restart, WritesNothingWhenNothingHasChanged) {
  startAgain();
  said(loading(1, 1000));
  auto const before = held();
  EXPECT_EQ(end(SIGKILL), 128 + SIGKILL);
  startAgain();
  EXPECT_TRUE(eventually([&] { return unacknowledged() == 0; }));
  EXPECT_EQ(hardware("writes"), "0");
  EXPECT_EQ(held(), before);
  EXPECT_THAT(agent->out(), HasSubstr("adopted 1000 entries that the hardware held\n"));
}

TEST_F(Restart, WritesTheDifference) {
  startAgain();
  for (U64 key = 1; key <= 20; ++key) said(putting(key));
  end(SIGKILL);
  said({"del", "--key", "3"});
  said({"put", "--key", "21", "--pg", "0", "--prio", "21", "--ti", "21"});
  said({"put", "--key", "5", "--pg", "0", "--prio", "5", "--ti", "5", "--data", "7"});
  startAgain();
  EXPECT_TRUE(eventually([&] { return hardware("writes") == "3"; })) << hardware("writes");
  expectSettled();
  EXPECT_EQ(hardware("writes"), "3") << "an erase, an add, an update";
}

TEST_F(Restart, TakesAChangedRuleSet) {
  startAgain();
  auto rules = Acl::generateRules(2, 500);
  std::string const file = dir / "changing";
  auto const write = [&] { std::ofstream(file, std::ios::binary) << Acl::textOf(rules); };
  write();
  said({"load", file, "--wait"});
  end(SIGKILL);
  rules.erase(rules.begin() + 100, rules.begin() + 110);
  write();
  said({"load", file});
  startAgain();
  said({"load", file, "--wait", "--timeout", "60"});
  expectSettled();
  EXPECT_EQ(hardware("writes"), "10");
}

TEST_F(Restart, FindsWhatWasKept) {
  startAgain({"--keep"});
  said(loading(3, 300));
  auto const before = held();
  EXPECT_EQ(end(SIGTERM), 0);
  startAgain();
  expectSettled();
  EXPECT_EQ(hardware("writes"), "0");
  EXPECT_EQ(held(), before);
  EXPECT_EQ(end(SIGTERM), 0) << "this one withdraws";
  EXPECT_THAT(agent->out(), HasSubstr("entries left: 0"));
  std::filesystem::remove(tables() + "/config.shoal");
  startAgain();
  EXPECT_EQ(hardware("entries"), "0");
}

TEST_F(Restart, FinishesALoadThatAKillCutShort) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 8; ++round) {
    int const pause = static_cast<int>(random() % 60);
    SCOPED_TRACE("killed after " + std::to_string(pause) + " ms");
    startAgain({"--hw-latency-us", "50"});
    auto const load = begin(loading(static_cast<U64>(round), 800, {"--timeout", "120", "--force"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    end(SIGKILL);
    startAgain();
    EXPECT_EQ(load->wait(), 0) << load->err();
    expectSettled();
    EXPECT_EQ(held().size(), 800U);
    end(SIGKILL);
  }
}

TEST_F(Restart, ErasesAPositionThatCannotBeRead) {
  startAgain();
  said(putting(7, {"--data", "0x4b4e554c42"}));
  said(putting(8));
  end(SIGKILL);
  std::string const bytes = contents(state());
  std::string const data("\x42\x4C\x55\x4E\x4B", 5);
  auto const at = bytes.find(data);
  ASSERT_NE(at, std::string::npos);
  std::fstream(state(), std::ios::in | std::ios::out | std::ios::binary).seekp(static_cast<long>(at)) << 'D';
  startAgain();
  EXPECT_TRUE(eventually([&] {
    return agent->out().find("1 positions of the hardware are erased") != std::string::npos;
  })) << agent->out();
  expectSettled();
}

TEST_F(Restart, RefusesAStateFileThatIsNone) {
  std::string const garbage = "this is not what any hardware holds, but it has some length to it";
  std::ofstream(state()) << garbage;
  Ended const failed = startFails(state());
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.err,
            "vantreld: --sim-state: " + state() +
                " is not a table file: its first bytes are another's; give the file of an earlier "
                "run, or a name that is not taken\n");
  EXPECT_EQ(contents(state()), garbage);
}

TEST_F(Restart, RefusesAStateFileThatAnotherAgentHas) {
  startAgain();
  Ended const failed = startFails(state());
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.err, "vantreld: --sim-state: " + state() + ": process " + std::to_string(agent->pid()) +
                            " is writing this table, and a table has one writer; give each agent a file of "
                            "its own\n");
  said(putting(1));
  expectSettled();
}

TEST_F(Restart, LosesWhatLiesBeyondASmallerRow) {
  startAgain({"--size", "100"});
  said(putting(10));
  said(putting(90));
  end(SIGKILL);
  startAgain({"--size", "50"});
  EXPECT_THAT(agent->err(), HasSubstr(state() + ": 1 entries lay beyond position 49 and are gone\n"));
  EXPECT_TRUE(eventually([&] { return agent->err().find("record of key 90: ") != std::string::npos; }));
  EXPECT_EQ(held(), (std::map<U32, U64>{{10, 10}}));
  EXPECT_EQ(hardware("violations"), "0");
}

// Group 0 of four partitions has every fourth position: what is elsewhere does not fit.
TEST_F(Restart, ErasesWhatAnotherEngineCannotHold) {
  startAgain();
  for (U64 key = 1; key <= 8; ++key) said(putting(key));
  end(SIGKILL);
  startAgain({"--engine", "atcam", "--max-partitions", "4"});
  EXPECT_TRUE(eventually([&] { return hardware("entries") == "2"; })) << hardware("entries");
  EXPECT_EQ(held(), (std::map<U32, U64>{{4, 4}, {8, 8}}));
  EXPECT_THAT(agent->out(), HasSubstr("adopted 2 entries"));
  EXPECT_THAT(agent->out(), HasSubstr("6 positions of the hardware are erased"));
  EXPECT_EQ(hardware("violations"), "0");
  end(SIGKILL);
  startAgain();
  expectSettled();
}
