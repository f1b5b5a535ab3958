// SPDX-License-Identifier: Apache-2.0
// Hardware that is late, busy, full, dead, or that refuses: what a producer and an operator see of it.
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <chrono>

#include "tests/support/site.h"

using namespace TestSupport;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

U64 count(std::string const& text, std::string const& what) {
  U64 n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class Failures : public Site {};

}  // namespace

TEST_F(Failures, LoadNamesWhatDoesNotFitAndRetriesIt) {
  start({"--sim-capacity", "100"});
  Ended const full = run(loading(1, 120));
  EXPECT_EQ(full.status, 1);
  EXPECT_THAT(full.out, IsEmpty());
  EXPECT_EQ(count(full.err, "is refused by the hardware: the hardware is full: it holds 100 entries\n"), 20U)
      << full.err;
  EXPECT_THAT(full.err, HasSubstr("\nvantrel: 20 keys are refused by the hardware (keys "));
  EXPECT_EQ(unacknowledged(), 20U) << "the others are awaited";
  said({"attr", "set", "hardware", "capacity", "200"});
  said(loading(1, 120, {"--timeout", "30"}));
  expectSettled();
  EXPECT_THAT(said({"attr", "get", "executor", "failed"}), IsEmpty());
}

// Old entries stay until what takes their place is in hardware.
TEST_F(Failures, LoadKeepsWhatARefusedEntryReplaces) {
  start();
  auto rules = Acl::generateRules(2, 50);
  auto const load = [&] {
    std::ofstream(dir / "mine", std::ios::binary) << Acl::textOf(rules);
    return run({"load", dir / "mine", "--wait", "--timeout", "30"});
  };
  ASSERT_EQ(load().status, 0);
  auto const before = wanted();
  said({"attr", "set", "hardware", "capacity", "50"});
  std::rotate(rules.begin(), rules.begin() + 1, rules.end());  // the first comes last: a new key
  Ended const refused = load();
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("vantrel: 1 key is refused by the hardware (key "));
  EXPECT_EQ(hardware("entries"), "50");
  EXPECT_EQ(wanted().size(), before.size() + 1);
  said({"attr", "set", "hardware", "capacity", "51"});
  EXPECT_EQ(load().status, 0);
  expectSettled();
  EXPECT_EQ(wanted().size(), before.size());
}

TEST_F(Failures, PutHearsOfARefusalAtOnce) {
  start({"--sim-refused", "1"});
  auto const begun = Clock::now();
  Ended const refused = run(putting(7));
  EXPECT_LT(secondsSince(begun), 10);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err,
            "vantrel: key 7 (OpId 65537) is refused by the hardware: the entry cannot be expressed\n"
            "vantrel: 1 key is refused by the hardware (key 7); mend what it says, then load or put again: a "
            "newer version is tried\n");
}

// The first version is listed as refused for as long as the second one is being written.
TEST_F(Failures, PutIgnoresTheRefusalOfAnOlderVersion) {
  start({"--sim-refused", "1"});
  ASSERT_EQ(run(putting(7)).status, 1);
  said({"attr", "set", "hardware", "refusedRate", "0"});
  said({"attr", "set", "hardware", "addLatency", "1500000"});
  auto const put = begin(putting(7));
  ASSERT_TRUE(eventually([&] { return said({"attr", "get", "executor", "behind"}) == "1"; }));
  EXPECT_EQ(said({"attr", "get", "executor", "failedOpId"}).substr(0, 2), "7 ");
  EXPECT_EQ(put->wait(), 0) << put->err();
  EXPECT_THAT(put->err(), Not(HasSubstr("refused")));
  expectSettled();
}

TEST_F(Failures, EveryViewShowsARefusedEntry) {
  start({"--sim-capacity", "1"});
  said(putting(1));
  ASSERT_EQ(run(putting(2)).status, 1);
  std::string const why = "the hardware is full: it holds 1 entries";
  EXPECT_THAT(said({"snapshot"}),
              AllOf(HasSubstr(" 1 programmed "), HasSubstr(" 2 refused "), HasSubstr(why)));
  EXPECT_THAT(said({"snapshot", "--json"}),
              HasSubstr(R"({"position":2,"state":"refused","key":2,"opId":131074,"why":")" + why + "\"}"));
  EXPECT_THAT(said({"ls", "positions"}), AllOf(HasSubstr(" 2 refused "), HasSubstr(why)));
  EXPECT_THAT(said({"ls", "positions", "--json"}),
              HasSubstr(R"({"position":2,"state":"refused","key":2,"opId":131074,"pg":0,"prio":2,"why":")" +
                        why + "\"}"));
  EXPECT_EQ(said({"status", "2"}), "key 2: refused, OpId 0 of 131074: " + why);
  EXPECT_EQ(said({"status", "2", "--json"}),
            R"({"key":2,"opId":0,"wantedOpId":131074,"state":"refused","why":")" + why + "\"}");
  EXPECT_THAT(said({"status", "1"}), StartsWith("key 1: acknowledged"));
  EXPECT_EQ(said({"attr", "get", "executor", "failed", "--key", "2"}), why);
  EXPECT_THAT(said({"attr", "get", "executor", "failed", "--json"}),
              HasSubstr(R"("members":[[2,")" + why + "\"]]"));
  EXPECT_THAT(said({"attr", "list", "executor"}),
              HasSubstr("failed                   collection  U64 -> text"));
  EXPECT_THAT(said({"watch", "executor", "--once"}),
              HasSubstr("failed[2] = " + why + "\nfailedOpId[2] = 131074"));
}

TEST_F(Failures, EverythingArrivesInBusyHardware) {
  start({"--sim-busy", "0.5"});
  said(loading(3, 300, {"--timeout", "120"}));
  expectSettled();
  EXPECT_NE(said({"attr", "get", "executor", "retries"}), "0");
}

TEST_F(Failures, LateLoadNamesHardwareThatIsDead) {
  start({"--sim-dies-at", "50"});
  Ended const late = run(loading(4, 100, {"--timeout", "2"}));
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(
      late.err,
      HasSubstr("vantrel: 51 keys are not acknowledged within 2 s; the hardware is 51 calls behind\n"));
  EXPECT_THAT(late.err, HasSubstr("in this version, and the hardware has not acknowledged it"));
  agent->signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return agent->out().find("waiting for the hardware") != std::string::npos; }));
  EXPECT_EQ(end(SIGTERM), 3);
}

// Without a deadline the progress says it.
TEST_F(Failures, ProgressNamesHardwareThatIsBehind) {
  start({"--sim-dies-at", "1"});
  auto const load = begin(loading(5, 10));
  EXPECT_TRUE(eventually([&] {
    return load->err().find("acknowledged: 0 of 10 (0%); the hardware is 10 calls behind\n") !=
           std::string::npos;
  })) << load->err();
}

TEST_F(Failures, AgentAnswersWhileItsHardwareIsSlow) {
  start({"--hw-latency-us", "1000"});
  auto const load = begin(loading(6, 1000, {"--timeout", "120"}));
  ASSERT_TRUE(eventually([&] { return hardware("entries") != "0"; }));
  int answers = 0;
  double slowest = 0;
  while (hardware("entries") != "1000") {
    auto const asked = Clock::now();
    EXPECT_EQ(said({"attr", "get", "agent", "state"}), "serving");
    slowest = std::max(slowest, secondsSince(asked));
    ++answers;
  }
  EXPECT_GT(answers, 3);
  EXPECT_LT(slowest, 1);
  EXPECT_EQ(load->wait(), 0) << load->err();
  expectSettled();
  auto const asked = Clock::now();
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_LT(secondsSince(asked), 20) << "1000 deletes of a millisecond";
  EXPECT_THAT(agent->out(), HasSubstr("entries left: 0"));
}

// Its own file system, in a mount namespace of this process; the tables are on it.
class FullFileSystem : public Failures {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "needs the right to mount";
    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);  // in a chroot, / is no mount point
    if (mount("tmpfs", tables().c_str(), "tmpfs", 0, "size=64m") != 0)
      GTEST_SKIP() << "no file system may be mounted here";
    isMounted = true;
  }
  void TearDown() override {
    agent = nullptr;
    if (isMounted) umount2(tables().c_str(), MNT_DETACH);
  }
  // Leaves so many bytes.
  void fillBut(U64 bytes) {
    auto const space = std::filesystem::space(tables()).available;
    std::ofstream(tables() + "/filler") << std::string(space - std::min(space, bytes), 'x');
  }
  bool isMounted = false;
};

TEST_F(FullFileSystem, EverythingArrivesWhenSpaceIsFreed) {
  start();
  fillBut(1 << 20);
  auto const load = loading(7, 9000, {"--timeout", "120"});
  Ended const full = run(load);
  EXPECT_EQ(full.status, 1);
  EXPECT_THAT(full.err, HasSubstr("config.shoal"));
  std::filesystem::remove(tables() + "/filler");
  said(load);
  EXPECT_EQ(wanted().size(), 9000U);
  expectSettled();
}
