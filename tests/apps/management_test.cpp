// SPDX-License-Identifier: Apache-2.0
// The agent's entities in other processes: mounted, watched by many, and when one side stops or dies.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "ostra/mount.h"
#include "ostra/mount_ask.h"
#include "ostra/piecewise_map.h"
#include "shoal/writer_table.h"
#include "tests/support/agent.h"
#include "vantrel/vantrel.h"

using namespace TestSupport;
using namespace Vantrel;
using Ostra::Mounter;
using testing::HasSubstr;
using ConfigWriter = Shoal::WriterTable<EntryConfig>;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool sanitized = true;  // everything takes several times as long
#else
constexpr bool sanitized = false;
#endif

class ManagementTest : public testing::Test {
 protected:
  void start() { agent = startAgent(dir, dir.path()); }
  void want(U64 key, U32 ti, U32 prio) {
    if (!table) table = Ostra::make<ConfigWriter>(dir / "config.shoal", Shoal::WriterOptions{});
    EntryConfig c(EntryKey(key), OpId(opIds += 0x10001), static_cast<U32>(key), 0, prio);
    c.tableIndexIs(TableKey(0), ti);
    table->entryIs(c);
  }
  // The engine knows the key.
  bool hasTaken(U64 key) const {
    try {
      Ostra::Asker(socket()).ask(
          fmt::format(R"({{"verb":"read","entity":"engine","attribute":"keyToHandle","key":{}}})", key),
          [](std::string_view) {});
      return true;
    } catch (std::runtime_error const&) {
      return false;
    }
  }
  std::string socket() const { return dir / "mgmt.sock"; }

  TempDir dir;
  std::unique_ptr<Process> agent;
  Ostra::Ptr<ConfigWriter> table;
  U64 opIds = 0;
};

// Asks for snapshots through its own mounts, as an object beside the engine would.
struct Requester {
  explicit Requester(std::string const& path) : mounter(path, 0.05) {
    config = mounter.mount<DebugConfig>();
    status = mounter.mount<DebugStatus>();
    flush = mounter.mount<VantrelFlushStatus>();
  }
  bool live(double seconds = 30) {
    return mounter.dispatchUntil(
        [this] { return mounter.live(*config) && mounter.live(*status) && mounter.live(*flush); }, seconds);
  }
  bool snapshot(double seconds = 30) {
    ask();
    return answered(seconds);
  }
  void ask() { asked = mounter.invoke(*config, "versionInc", {U64{1}}); }
  bool answered(double seconds = 30) {
    return mounter.dispatchUntil(
        [this] {
          if (!mounter.live(*config) || !mounter.live(*status)) return false;
          if (asked->lost) ask();  // another agent took its place
          return asked->result && status->answers(std::get<U64>(*asked->result));
        },
        seconds);
  }
  bool seen(U32 version, double seconds = 60) {
    return mounter.dispatchUntil([this, version] { return status->version() >= version; }, seconds);
  }

  Mounter mounter;
  Ostra::Ptr<DebugConfig> config;
  Ostra::Ptr<DebugStatus> status;
  Ostra::Ptr<VantrelFlushStatus> flush;
  std::shared_ptr<Ostra::Invocation const> asked;
};

class CountsFlushes : public VantrelFlushStatus::Notifiee {
 public:
  void onTableCounter() override { ++tables; }
  void onFlushCounter() override { ++flushes; }
  int tables = 0, flushes = 0;
};

// Forked children that must leave without the test's own endings.
class Child {
 public:
  template <class Work>
  explicit Child(Work work) : pid_(::fork()) {
    if (pid_ == 0) ::_exit(work());
  }
  ~Child() {
    if (!ended_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  void signal(int number) const { ::kill(pid_, number); }
  // The exit status when it has ended, -1 when it has not.
  int ended() {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return -1;
    ended_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  }

 private:
  pid_t pid_;
  bool ended_ = false;
};

}  // namespace

TEST_F(ManagementTest, TheFlushStatusFiresInAnotherProcess) {
  start();
  Requester requester(socket());
  ASSERT_TRUE(requester.live());
  EXPECT_EQ(0, requester.flush->tableCounter());
  CountsFlushes counts;
  counts.notifierIs(Ostra::Ptr<VantrelFlushStatus const>(requester.flush));
  want(1, 1, 10);
  ASSERT_TRUE(requester.mounter.dispatchUntil([&] { return requester.flush->flushCounter() == 1; }, 30));
  EXPECT_EQ(1, requester.flush->tableCounter());
  EXPECT_EQ(1, counts.tables);
  EXPECT_EQ(1, counts.flushes);
}

TEST_F(ManagementTest, SnapshotProtocolWorksAcrossProcesses) {
  start();
  Requester one(socket()), other(socket());
  ASSERT_TRUE(one.live());
  ASSERT_TRUE(other.live());
  want(1, 5, 10);
  want(2, 6, 20);
  ASSERT_TRUE(one.mounter.dispatchUntil([&] { return one.flush->flushCounter() == 1; }, 30));
  want(3, 6, 15);
  ASSERT_TRUE(eventually([&] { return one.snapshot() && one.status->pending().size() == 1; }));
  EXPECT_THAT(one.status->status(), testing::SizeIs(2));
  EXPECT_EQ(EntryKey(2), one.status->status().at(6));
  EXPECT_EQ(OpId(0x20002), one.status->statusOpId().at(EntryKey(2)));
  EXPECT_EQ(EntryKey(3), one.status->pending().at(6));
  EXPECT_EQ(OpId(0x30003), one.status->pendingOpId().at(EntryKey(3)));
  ASSERT_TRUE(other.seen(one.status->version()));
  EXPECT_TRUE(std::ranges::equal(one.status->status(), other.status->status()));
  want(4, 9, 30);
  U64 const asked = std::get<U64>(*one.asked->result);  // its own mount may not have heard of it yet
  ASSERT_TRUE(other.mounter.dispatchUntil([&] { return other.config->version() == asked; }, 30));
  ASSERT_TRUE(eventually([&] { return other.snapshot() && other.status->status().size() == 3; }));
  Ostra::Asker(socket()).ask(R"({"verb":"write","entity":"debugConfig","attribute":"version","value":0})",
                             [](std::string_view) {});  // a request for version 0 only empties
  ASSERT_TRUE(one.mounter.dispatchUntil([&] { return one.status->version() == 0; }, 30));
  EXPECT_TRUE(one.status->status().empty());
  EXPECT_TRUE(one.status->pending().empty());
}

// The second's mount has not heard of the first's request when it asks.
TEST_F(ManagementTest, EachRequesterGetsASnapshotOfItsOwnMoment) {
  want(1, 1, 10);
  start();
  Requester one(socket()), other(socket());
  ASSERT_TRUE(one.live());
  ASSERT_TRUE(other.live());
  ASSERT_TRUE(one.mounter.dispatchUntil([&] { return one.flush->flushCounter() == 1; }, 30));
  ASSERT_TRUE(one.snapshot());
  EXPECT_THAT(one.status->status(), testing::SizeIs(1));
  EXPECT_EQ(1u, one.status->version());
  want(2, 2, 10);
  ASSERT_TRUE(eventually([&] { return hasTaken(2); }));
  ASSERT_EQ(0u, other.config->version());
  ASSERT_TRUE(other.snapshot());
  EXPECT_EQ(2u, other.status->status().size() + other.status->pending().size());
}

// How long anything takes is the machine's affair, with a hundred processes that all read; `patience` only
// ends a test that hangs. What must hold while one of them stands still: everybody else sees every request
// answered before it goes on, what the agent keeps for it does not grow, and waiting for it costs nothing.
TEST_F(ManagementTest, StoppedWatcherOfAHundredDisturbsNobody) {
  constexpr std::size_t watchers = 100, stopped = 50;
  constexpr U32 filled = sanitized ? 6 : 15;  // by then all that is kept for the stopped one is full
  constexpr U32 snapshots = sanitized ? 10 : 40;
  constexpr U64 keys = sanitized ? 200 : 2000;
  constexpr double patience = 240;
  for (U64 key = 1; key <= keys; ++key) want(key, static_cast<U32>(key), 10);
  start();
  std::string const path = socket();
  std::vector<std::unique_ptr<Child>> children;
  for (std::size_t i = 0; i < watchers; ++i)
    children.push_back(std::make_unique<Child>([path] {
      Requester watcher(path);
      return watcher.seen(snapshots, patience) && watcher.status->status().size() == keys ? 0 : 1;
    }));
  Requester requester(path), other(path);
  ASSERT_TRUE(requester.live());
  ASSERT_TRUE(other.live());
  ASSERT_TRUE(requester.snapshot(patience));
  children[stopped]->signal(SIGSTOP);
  long resident = 0;
  for (U32 n = 2; n <= snapshots; ++n) {
    U64 const key = keys - n % 2;  // something differs each time
    table->entryDel(EntryKey(key));
    want(key, static_cast<U32>(key), 10);
    ASSERT_TRUE(requester.snapshot(patience)) << n;
    ASSERT_EQ(n, requester.status->version());
    ASSERT_TRUE(other.seen(n, patience)) << n;
    if (n == filled) resident = agent->residentKib();
  }
  if (!sanitized) {
    EXPECT_LT(agent->residentKib(), resident + 2048) << "KiB; " << resident << " before";
  }
  for (std::size_t i = 0; i < watchers; ++i) {
    if (i == stopped) continue;
    int status = -1;
    EXPECT_TRUE(eventually([&] { return (status = children[i]->ended()) >= 0; }, patience));
    EXPECT_EQ(0, status) << "watcher " << i;
  }
  EXPECT_EQ(-1, children[stopped]->ended()) << "all that was before it went on";
  double const before = agent->cpuSeconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LT(agent->cpuSeconds() - before, 0.1) << "seconds of processor time, with nobody who reads";
  children[stopped]->signal(SIGCONT);
  int status = -1;
  EXPECT_TRUE(eventually([&] { return (status = children[stopped]->ended()) >= 0; }, patience));
  EXPECT_EQ(0, status) << "it catches up when it goes on";
}

TEST_F(ManagementTest, AKilledAgentIsReportedAndItsSuccessorFound) {
  want(1, 1, 10);
  start();
  Requester requester(socket());
  ASSERT_TRUE(requester.live());
  ASSERT_TRUE(requester.snapshot());
  agent->signal(SIGKILL);
  ASSERT_TRUE(requester.mounter.dispatchUntil([&] { return !requester.mounter.connected(); }, 30));
  EXPECT_FALSE(requester.mounter.live(*requester.status));
  agent->wait();
  want(2, 2, 10);
  start();  // in the place of the dead one's socket
  ASSERT_TRUE(requester.live());
  EXPECT_EQ(0u, requester.status->version()) << "the new agent's, not the old one's";
  EXPECT_TRUE(requester.status->status().empty());
  ASSERT_TRUE(requester.snapshot());
  EXPECT_EQ(2u, requester.status->status().size());
}

// It was asked, stood still and died; whoever asked has forgotten neither its mounts nor its question.
TEST_F(ManagementTest, SuccessorAnswersWhatADyingAgentOwed) {
  want(1, 1, 10);
  start();
  Requester requester(socket());
  ASSERT_TRUE(requester.live());
  ASSERT_TRUE(requester.snapshot());
  agent->signal(SIGSTOP);
  EXPECT_FALSE(requester.snapshot(0.2));
  EXPECT_EQ(1u, requester.status->version());
  agent->signal(SIGKILL);
  agent->wait();
  want(2, 2, 10);
  start();
  ASSERT_TRUE(requester.answered());
  EXPECT_EQ(1u, requester.status->version()) << "the first that the new agent was asked for";
  EXPECT_EQ(2u, requester.status->status().size());
}

TEST_F(ManagementTest, ASecondAgentIsRefusedAndTheFirstGoesOn) {
  want(1, 1, 10);
  start();
  Process second({VANTREL_BIN_DIR "/vantreld", "--dir", dir.path()}, dir / "out2", dir / "err2");
  EXPECT_EQ(1, second.wait());
  Requester requester(socket());
  EXPECT_TRUE(requester.live());
  EXPECT_TRUE(requester.snapshot());
}

TEST_F(ManagementTest, WatchSurvivesTheAgent) {
  want(1, 1, 10);
  start();
  Process watch({VANTREL_BIN_DIR "/vantrel", "watch", "flushStatus", "--dir", dir.path()}, dir / "watch",
                dir / "watcherr");
  ASSERT_TRUE(eventually([&] { return watch.out().find("live") != std::string::npos; })) << watch.err();
  EXPECT_EQ("snapshot\ntableCounter = 1\nflushCounter = 1\nlive\n", watch.out());
  agent->signal(SIGKILL);
  ASSERT_TRUE(eventually([&] { return watch.err().find("waiting for it") != std::string::npos; }));
  agent->wait();
  start();
  ASSERT_TRUE(eventually([&] { return watch.out().find("live\nsnapshot\n") != std::string::npos; }));
  EXPECT_THAT(watch.err(), HasSubstr("vantrel: the agent is back\n"));
}
