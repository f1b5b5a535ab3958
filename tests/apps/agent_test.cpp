// SPDX-License-Identifier: Apache-2.0
// The reference agent as a process, as a producer and an operator see it, also when either side is killed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <map>
#include <optional>

#include "pallo/descriptor.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "tests/support/agent.h"
#include "vantrel/core/tables.h"

using namespace TestSupport;
using namespace Vantrel;
using testing::HasSubstr;
using testing::IsEmpty;
using ConfigWriter = Shoal::WriterTable<EntryConfig>;
using StatusReader = Shoal::ReaderTable<EntryStatus>;

namespace {

constexpr U64 marker = 0xFFFFFFFFFFFF0000U;

class AgentProcess : public testing::Test {
 protected:
  std::unique_ptr<Process> start(std::vector<std::string> const& flags = {}) {
    std::vector<std::string> argv{VANTREL_BIN_DIR "/vantreld", "--dir", dir.path()};
    argv.insert(argv.end(), flags.begin(), flags.end());
    std::string const n = std::to_string(++started);
    return std::make_unique<Process>(argv, dir / ("out" + n), dir / ("err" + n));
  }
  std::unique_ptr<Process> startReady(std::vector<std::string> const& flags = {}) {
    auto agent = start(flags);
    awaitReady(*agent);
    return agent;
  }
  Ostra::Ptr<ConfigWriter> producer(bool replace = false) {
    return Ostra::make<ConfigWriter>(dir / "config.shoal", Shoal::WriterOptions{.replace = replace});
  }
  EntryConfig entry(U64 key, U32 ti, U32 prio = 10, U16 pg = 0) {
    EntryConfig c(EntryKey(key), OpId(opIds += 0x10001), static_cast<U32>(key), pg, prio);
    c.tableIndexIs(TableKey(0), ti);
    wanted[key] = c.opId().value();
    return c;
  }
  U64 status(U64 key) {
    if (!statuses) statuses = Ostra::make<StatusReader>(dir / "status.shoal");
    return statuses->entry(EntryKey(key)).opId().value();
  }
  bool acknowledged(double seconds = 30) {
    return eventually(
        [this] {
          statuses = nullptr;  // an agent that starts makes a new file
          for (auto const& [key, opId] : wanted)
            if (status(key) != opId) return false;
          return true;
        },
        seconds);
  }
  // What `vantrel` answers; its errors too.
  std::string ask(std::string const& what) {
    std::string const out = dir / ("answer" + std::to_string(++started));
    static_cast<void>(std::system(
        (VANTREL_BIN_DIR "/vantrel " + what + " --dir " + dir.path() + " >" + out + " 2>&1").c_str()));
    return contents(out);
  }
  int stop(Process& agent) {
    agent.signal(SIGTERM);
    return agent.wait();
  }

  TempDir dir;
  int started = 0;
  U64 opIds = 0;
  std::map<U64, U64> wanted;
  Ostra::Ptr<StatusReader> statuses;
};

}  // namespace

// The socket on which a service manager is told.
class ManagerSocket {
 public:
  explicit ManagerSocket(std::string const& path) {
    sockaddr_un at = {};
    at.sun_family = AF_UNIX;
    path.copy(at.sun_path, sizeof at.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&at), sizeof at), 0) << std::strerror(errno);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~ManagerSocket() { ::unsetenv("NOTIFY_SOCKET"); }
  // What was said since the last call.
  std::string heard() {
    char text[1024];
    auto const bytes = ::recv(socket_.get(), text, sizeof text, MSG_DONTWAIT);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(bytes, 0))};
  }

 private:
  Pallo::Descriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST_F(AgentProcess, TellsServiceManagerItsState) {
  ManagerSocket manager(dir / "manager");
  auto const agent = startReady({"--size", "64"});
  std::string heard;
  EXPECT_TRUE(eventually([&] { return !(heard = manager.heard()).empty(); }));
  EXPECT_EQ(heard,
            "READY=1\nSTATUS=engine fast, 64 simulated positions, waiting for a producer's config.shoal");
  agent->signal(SIGTERM);
  EXPECT_EQ(agent->wait(), 0);
  EXPECT_EQ(manager.heard(), "STOPPING=1");
}

TEST_F(AgentProcess, ServesWithoutServiceManager) {
  ::setenv("NOTIFY_SOCKET", (dir / "gone").c_str(), 1);
  auto const agent = startReady();
  ::unsetenv("NOTIFY_SOCKET");
  agent->signal(SIGTERM);
  EXPECT_EQ(agent->wait(), 0) << agent->err();
}

TEST_F(AgentProcess, ProgramsEntriesAndCleansUpOnSigterm) {
  auto const agent = startReady();
  auto const table = producer();
  for (U64 key = 1; key <= 5; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  ASSERT_TRUE(acknowledged()) << agent->err();
  for (U64 key = 1; key <= 5; ++key) table->entryIs(entry(key, static_cast<U32>(key % 5 + 1)));  // a ring
  ASSERT_TRUE(acknowledged()) << agent->err();
  EntryConfig gone = entry(5, 1);
  gone.isDelIs(true);
  table->entryIs(gone);
  wanted[5] = marker;
  ASSERT_TRUE(acknowledged()) << agent->err();
  table->entryDel(EntryKey(5));
  table->entryDel(EntryKey(4));
  wanted = {{1, wanted[1]}, {4, 0}, {5, 0}};
  ASSERT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("0 violations; entries left: 0, statuses left: 0"));
  EXPECT_THAT(agent->out(), HasSubstr("1 deletes to break rings"));
  EXPECT_THAT(agent->err(), IsEmpty());
}

// Three entries of two groups that wait for each other, one of them for the priority order.
class AgentWithMixedRing : public AgentProcess {
 protected:
  void close() {
    table = producer();
    for (EntryConfig const& e : {entry(1, 0, 0, 0), entry(2, 1, 1, 0), entry(3, 3, 0, 1)}) table->entryIs(e);
    ASSERT_TRUE(acknowledged());
    for (EntryConfig const& e : {entry(1, 2, 0, 0), entry(2, 3, 1, 0), entry(3, 0, 0, 1)}) table->entryIs(e);
  }
  Ostra::Ptr<ConfigWriter> table;
};

TEST_F(AgentWithMixedRing, BreaksItAndPublishesThat) {
  auto const agent = startReady();
  close();
  EXPECT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(ask("attr get engine numMixedRings"), "1\n");
  EXPECT_EQ(ask("attr get engine numPending"), "0\n");
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("1 deletes to break rings"));
}

TEST_F(AgentWithMixedRing, LeavesItWhenItIsStrict) {
  auto const agent = startReady({"--strict"});
  close();
  EXPECT_TRUE(eventually([&] { return ask("attr get engine numPending") == "3\n"; })) << agent->err();
  EXPECT_EQ(ask("attr get engine breakMixedRings"), "false\n");
  EXPECT_EQ(ask("attr get engine numMixedRings"), "0\n");
}

TEST_F(AgentProcess, WaitsForAProducerAndSaysWhenItIsReady) {
  auto const agent = startReady();
  EXPECT_THAT(agent->out(), HasSubstr("waiting for a producer's config.shoal"));
  auto const table = producer();
  table->entryIs(entry(7, 3));
  EXPECT_TRUE(acknowledged());
  EXPECT_EQ(std::ranges::count(agent->out(), '\n'), 1);
}

TEST_F(AgentProcess, FindsAProducersEntriesAtItsStart) {
  auto const table = producer();
  for (U64 key = 1; key <= 100; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  auto const agent = startReady();
  EXPECT_THAT(agent->out(), HasSubstr("100 entries wanted"));
  EXPECT_TRUE(acknowledged());
}

// But for a look around once a second.
TEST_F(AgentProcess, AtRestItUsesNoProcessorTime) {
  auto const agent = startReady();
  auto const table = producer();
  for (U64 key = 1; key <= 100; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  ASSERT_TRUE(acknowledged());
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  double const before = agent->cpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_LT(agent->cpuSeconds(), before + 0.01);
}

TEST_F(AgentProcess, ItsMemoryStaysFlatUnderAChurnOfTheSameKeys) {
  auto const agent = startReady();
  auto const table = producer();
  auto const churn = [&](int rounds) {
    for (int round = 0; round < rounds; ++round) {
      for (U64 key = 1; key <= 500; ++key) table->entryIs(entry(key, static_cast<U32>(key * 2 + round % 2)));
      ASSERT_TRUE(acknowledged()) << agent->err();
    }
  };
  churn(20);
  long const before = agent->residentKib();
  churn(60);
  // The trace file's rings are mapped and fill up meanwhile: 17 MiB at most, whatever comes.
  EXPECT_LT(agent->residentKib(), before + 17 * 1024 + 2048);
  churn(120);
  long const later = agent->residentKib();
  churn(60);
  EXPECT_LT(agent->residentKib(), later + 17 * 1024);
}

TEST_F(AgentProcess, SuccessorOfKilledAgentProgramsEveryEntry) {
  constexpr U64 entries = 5000;
  auto const table = producer();
  auto agent = startReady({"--hw-latency-us", "100"});
  for (U64 key = 1; key <= entries; ++key) table->entryIs(entry(key, static_cast<U32>(2 * key)));
  ASSERT_TRUE(eventually([&] { return status(1) != 0; }));
  agent->signal(SIGKILL);
  EXPECT_EQ(agent->wait(), 128 + SIGKILL);
  statuses = nullptr;
  EXPECT_EQ(status(entries), 0U) << "the load was cut short";
  agent = startReady();
  ASSERT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("5000 adds, 0 updates, 0 moves, 5000 deletes"));
  EXPECT_THAT(agent->out(), HasSubstr("0 violations"));
}

TEST_F(AgentProcess, ItsStatusTableStartsEmpty) {
  auto const table = producer();
  table->entryIs(entry(1, 1));
  auto agent = startReady();
  ASSERT_TRUE(acknowledged());
  agent->signal(SIGKILL);
  agent->wait();
  table->entryDel(EntryKey(1));
  agent = startReady();
  statuses = nullptr;
  EXPECT_EQ(status(1), 0U) << "what it has not programmed is not acknowledged";
}

TEST_F(AgentProcess, FollowsANewFileAndWithdrawsWhatIsGone) {
  auto const agent = startReady();
  auto table = producer();
  for (U64 key = 1; key <= 10; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  ASSERT_TRUE(acknowledged());
  table = nullptr;
  table = producer(true);
  for (U64 key = 6; key <= 12; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  for (U64 key = 1; key <= 5; ++key) wanted[key] = 0;
  EXPECT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("0 violations; entries left: 0"));
}

TEST_F(AgentProcess, ASecondAgentIsRefusedWithTheReason) {
  auto const first = startReady();
  auto const second = start();
  EXPECT_EQ(second->wait(), 1);
  EXPECT_EQ(second->err(), "vantreld: another agent serves " + dir.path() + ": process " +
                               std::to_string(first->pid()) + "\n");
}

// Whatever lies where the table is to be: said once, with the reason, and the agent waits on.
TEST_F(AgentProcess, WaitsWhileAnotherFileIsAtTheTablesPath) {
  auto const isSaidOnce = [this](std::string const& what) {
    auto const agent = startReady();
    EXPECT_THAT(agent->out(), HasSubstr("waiting for a table that can be read: " + dir / "config.shoal"))
        << what;
    EXPECT_THAT(agent->out(), testing::Not(HasSubstr("entries wanted"))) << what;
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    EXPECT_THAT(agent->err(), testing::StartsWith("vantreld: " + dir / "config.shoal")) << what;
    EXPECT_EQ(std::ranges::count(agent->err(), '\n'), 1) << what << '\n' << agent->err();
    std::filesystem::remove(dir / "config.shoal");
    std::filesystem::remove_all(dir / "config.shoal.watch");
    producer()->entryIs(entry(7, 3));
    EXPECT_TRUE(acknowledged()) << what;
    EXPECT_THAT(agent->err(), HasSubstr("config.shoal: it can be read again")) << what;
    EXPECT_EQ(stop(*agent), 0) << what;
    std::filesystem::remove(dir / "config.shoal");
    std::filesystem::remove_all(dir / "config.shoal.watch");
  };
  std::ofstream(dir / "config.shoal") << "this is not a table at all, but it has some length to it";
  isSaidOnce("a text");
  std::filesystem::create_directory(dir / "config.shoal");
  isSaidOnce("a directory");
  ASSERT_EQ(mkfifo((dir / "config.shoal").c_str(), 0600), 0);
  isSaidOnce("a FIFO");
  std::filesystem::create_symlink(dir / "elsewhere", dir / "config.shoal");
  isSaidOnce("a link");
  producer()->entryIs(entry(7, 3));
  std::fstream(dir / "config.shoal", std::ios::in | std::ios::out | std::ios::binary).seekp(40) << "!!!!";
  isSaidOnce("a damaged header");
}

TEST_F(AgentProcess, FollowsACopyWrittenOverItsTable) {
  auto const agent = startReady();
  auto table = producer();
  for (U64 key = 1; key <= 50; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  ASSERT_TRUE(acknowledged());
  table = nullptr;
  std::filesystem::copy_file(dir / "config.shoal", dir / "backup");
  auto const then = wanted;
  table = producer();
  for (U64 key = 51; key <= 90; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
  ASSERT_TRUE(acknowledged());
  table = nullptr;
  ASSERT_EQ(std::system(("cp " + dir / "backup" + " " + dir / "config.shoal").c_str()), 0);
  for (U64 key = 51; key <= 90; ++key) wanted[key] = 0;
  EXPECT_TRUE(acknowledged()) << agent->err();
  table = producer();
  table->entryIs(entry(99, 99));
  EXPECT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("0 violations; entries left: 0, statuses left: 0"));
}

TEST_F(AgentProcess, SaysWhenItsStatusTableIsTakenAway) {
  auto const agent = startReady();
  producer()->entryIs(entry(1, 1));
  ASSERT_TRUE(acknowledged());
  std::string const path = dir / "status.shoal";
  auto const said = [&](std::string const& what) {
    return eventually([&] { return agent->err().find(what) != std::string::npos; }, 5);
  };
  std::filesystem::rename(path, dir / "away");
  EXPECT_TRUE(said(path + " was removed: ")) << agent->err();
  EXPECT_THAT(ask("attr get statusTable problem"), HasSubstr("was removed"));
  std::ofstream(path) << "another";
  EXPECT_TRUE(said(path + " was replaced: ")) << agent->err();
  std::filesystem::rename(dir / "away", path);
  EXPECT_TRUE(said(path + " is back")) << agent->err();
  std::this_thread::sleep_for(std::chrono::milliseconds(1300));
  EXPECT_EQ(std::ranges::count(agent->err(), '\n'), 3) << agent->err();
  EXPECT_EQ(ask("attr get statusTable problem"), "\n");
}

// A limit on a file's size stands for the full file system: the statuses cannot all be written. Whether the
// table was there first or the agent, nothing is lost.
TEST_F(AgentProcess, AFullStatusTableDelaysAcknowledgements) {
  constexpr U64 keys = 60000;
  auto const startCramped = [&] {
    std::string const n = std::to_string(++started);
    return std::make_unique<Process>(
        std::vector<std::string>{
            "/bin/sh", "-c", "trap '' XFSZ; ulimit -S -f 2048; LUMELOG_DISABLE=1 exec \"$0\" --dir \"$1\"",
            VANTREL_BIN_DIR "/vantreld", dir.path()},
        dir / ("out" + n), dir / ("err" + n));
  };
  auto const allAcknowledged = [&] {
    return Ostra::make<StatusReader>(dir / "status.shoal")->size() == keys;
  };
  auto agent = startCramped();
  ASSERT_TRUE(eventually([&] { return agent->out().find("waiting for") != std::string::npos; }))
      << agent->err();
  {
    auto const made = Ostra::make<ConfigWriter>(dir / "made", Shoal::WriterOptions{});
    for (U64 key = 1; key <= keys; ++key) made->entryIs(entry(key, static_cast<U32>(key)));
  }
  std::filesystem::rename(dir / "made", dir / "config.shoal");
  for (int turn = 0; turn < 2; ++turn) {
    ASSERT_TRUE(eventually([&] { return agent->err().find("cannot grow") != std::string::npos; }))
        << agent->err();
    EXPECT_TRUE(eventually([&] { return ask("attr get hardware entries") == std::to_string(keys) + "\n"; }))
        << "the engine goes on";
    EXPECT_NE(ask("attr get executor unwritten"), "0\n");
    EXPECT_FALSE(allAcknowledged());
    rlimit const unlimited{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(agent->pid(), RLIMIT_FSIZE, &unlimited, nullptr), 0);
    EXPECT_TRUE(eventually(allAcknowledged, 20));
    EXPECT_EQ(ask("attr get executor unwritten"), "0\n");
    EXPECT_THAT(agent->err(), HasSubstr("no space for a status of each key"));
    EXPECT_THAT(agent->err(), HasSubstr("hardware: acknowledgement of key "));
    EXPECT_EQ(std::ranges::count(agent->err(), '\n'), 2) << "each once: " << agent->err();
    EXPECT_EQ(stop(*agent), 0);
    if (turn == 0) agent = startCramped();
  }
}

TEST_F(AgentProcess, RecordsThatWouldStopTheEngineAreRefused) {
  auto const agent = startReady({"--size", "1000"});
  auto const table = producer();
  table->entryIs(entry(5, 7));
  ASSERT_TRUE(acknowledged());
  EntryConfig two = entry(2, 5);
  two.tableIndexIs(TableKey(1), 6);
  for (EntryConfig const& bad :
       {EntryConfig(EntryKey(1), OpId(0x10001), 1, 0, 5), two, entry(3, 1000), entry(4, 8, 10, 8192)}) {
    table->entryIs(bad);
    std::string const said = "record of key " + std::to_string(bad.key().value()) + ": ";
    EXPECT_TRUE(eventually([&] { return agent->err().find(said) != std::string::npos; }))
        << said << agent->err();
  }
  EXPECT_EQ(status(1) + status(2) + status(3) + status(4), 0U);
  EXPECT_EQ(ask("attr get configTable refusedRecords"), "4\n");
  EXPECT_THAT(ask("attr get configTable refused"), HasSubstr("position 1000: expected one below"));
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("1 adds"));
}

// Bits of the record's data flip in the file. Neither the change nor a walk takes the entry from hardware.
TEST_F(AgentProcess, KeepsAnEntryWhoseRecordIsDamaged) {
  auto const agent = startReady();
  auto table = producer();
  EntryConfig marked = entry(5, 7);
  marked.dataIs(DataKey(0), 0x4B4E554C42);
  table->entryIs(marked);
  table->entryIs(entry(6, 8));
  ASSERT_TRUE(acknowledged());
  std::string const bytes = contents(dir / "config.shoal");
  std::string const data("\x42\x4C\x55\x4E\x4B", 5);
  auto const at = bytes.find(data);
  ASSERT_NE(at, std::string::npos);
  ASSERT_EQ(bytes.find(data, at + 1), std::string::npos);
  std::fstream(dir / "config.shoal", std::ios::in | std::ios::out | std::ios::binary)
          .seekp(static_cast<long>(at))
      << 'D';
  ask("attr invoke frontEnd handleEntryCollNotify");
  EXPECT_TRUE(eventually([&] {
    return agent->err().find("the record of key 5 is damaged") != std::string::npos;
  })) << agent->err();
  EXPECT_NE(status(5), 0U);
  EXPECT_EQ(ask("attr get hardware deletes"), "0\n");
  EXPECT_THAT(ask("attr get configTable refused"), HasSubstr("is damaged"));
  table->entryIs(entry(5, 9));
  EXPECT_TRUE(acknowledged()) << "the next write heals it";
  EXPECT_EQ(ask("attr get configTable refusedRecords"), "0\n");
  EXPECT_EQ(stop(*agent), 0);
}

TEST_F(AgentProcess, SurvivesAnOpIdThatGoesBackWhileItsEntryWaits) {
  auto const agent = startReady();
  auto const table = producer();
  table->entryIs(entry(1, 1));
  ASSERT_TRUE(acknowledged());
  wanted.clear();
  table->entryIs(entry(2, 1));
  EntryConfig back(EntryKey(2), OpId(5), 2, 0, 10);
  back.tableIndexIs(TableKey(0), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  table->entryIs(back);
  wanted.clear();
  table->entryIs(entry(3, 3));
  EXPECT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(stop(*agent), 0);
}

TEST_F(AgentProcess, TheAlgorithmicEngineInterleavesPartitions) {
  auto const agent = startReady({"--engine", "atcam", "--max-partitions", "4", "--size", "4096"});
  auto const table = producer();
  for (U64 key = 1; key <= 400; ++key)
    table->entryIs(entry(key, static_cast<U32>(4 * (key / 4) + key % 4), static_cast<U32>(key),
                         static_cast<U16>(key % 4)));
  ASSERT_TRUE(acknowledged()) << agent->err();
  table->entryIs(entry(500, 1001, 500, 2));  // position 1001 is partition 1's
  wanted.erase(500);
  table->entryIs(entry(501, 1001, 500, 1));
  ASSERT_TRUE(acknowledged()) << agent->err();
  EXPECT_EQ(stop(*agent), 0);
  EXPECT_THAT(agent->out(), HasSubstr("401 adds"));
}

TEST_F(AgentProcess, NullClientLeavesOnlyTheEnginesOwnAcks) {
  auto const agent = startReady({"--hw", "null"});
  auto const table = producer();
  table->entryIs(entry(1, 1));
  EntryConfig again = entry(1, 1);
  EntryConfig same(EntryKey(1), OpId((again.opId().high() << 16) | 1), 1, 0, 10);
  same.tableIndexIs(TableKey(0), 1);
  ASSERT_TRUE(eventually([&] { return ask("attr get engine keyToHandle --key 1") == "1\n"; }));
  EXPECT_EQ(status(1), 0U);
  table->entryIs(same);
  wanted[1] = same.opId().value();
  EXPECT_TRUE(acknowledged()) << "an unchanged configuration is the engine's own to acknowledge";
  EntryConfig unknown(EntryKey(9), OpId(1), 9, 0, 0);
  unknown.isDelIs(true);
  table->entryIs(unknown);
  wanted[9] = marker;
  EXPECT_TRUE(acknowledged());
}

TEST_F(AgentProcess, ItsTraceFileLiesInItsDirectoryAndOutlivesIt) {
  std::string file;
  {
    auto const table = producer();
    table->entryIs(entry(1, 1));
    auto const agent = startReady();
    ASSERT_TRUE(acknowledged());
    file = dir / ("Quarry-mbb-" + std::to_string(agent->pid()) + ".lg");
    agent->signal(SIGKILL);
    agent->wait();
  }
  EXPECT_TRUE(std::filesystem::exists(file)) << file;
}

TEST_F(AgentProcess, WrongFlagsGetUsageAndStatusTwo) {
  for (std::vector<std::string> const& flags : {std::vector<std::string>{"--no-such-flag"},
                                                {"--engine", "atcam"},
                                                {"--max-partitions", "4"},
                                                {"--engine", "best"},
                                                {"--size", "many"},
                                                {"--size", "600000"},
                                                {"--prio-grp-shift", "33"}}) {
    auto const agent = start(flags);
    EXPECT_EQ(agent->wait(), 2) << flags[0];
    EXPECT_THAT(agent->err(), HasSubstr("--help")) << flags[0];
  }
}

class AgentWithoutReader : public AgentProcess {
 protected:
  // Both outputs to `path`. It lives, programs, answers and stops in order.
  void worksSayingInto(
      std::string const& path, std::function<void()> const& onceStarted = [] {}) {
    Process agent({VANTREL_BIN_DIR "/vantreld", "--dir", dir.path(), "--size", "1000"}, path, path);
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(dir / "mgmt.sock"); }));
    onceStarted();
    auto const table = producer();
    for (U64 key = 1; key <= 300; ++key) {
      EntryConfig const bad(EntryKey(1000 + key), OpId(0x10001), 1, 0, 5);
      table->entryIs(bad);
      table->entryIs(entry(key, static_cast<U32>(key)));
      if (key % 30 == 0) {
        EXPECT_TRUE(acknowledged(5)) << key;
      }
    }
    EXPECT_TRUE(acknowledged(5));
    EXPECT_EQ(ask("attr get configTable refusedRecords"), "300\n");
    EXPECT_EQ(stop(agent), 0);
    table->cleanup();
    wanted.clear();
    statuses = nullptr;
  }
};

TEST_F(AgentWithoutReader, WorksOnAFullDevice) { worksSayingInto("/dev/full"); }

TEST_F(AgentWithoutReader, WorksOnAFullPipe) {
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  Pallo::Descriptor const pipe(open((dir / "pipe").c_str(), O_RDWR | O_NONBLOCK));
  for (char const some[4096]{}; write(pipe.get(), some, sizeof some) > 0;) continue;
  worksSayingInto(dir / "pipe");
}

TEST_F(AgentWithoutReader, WorksOnAClosedPipe) {
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  Pallo::Descriptor pipe(open((dir / "pipe").c_str(), O_RDONLY | O_NONBLOCK));
  worksSayingInto(dir / "pipe", [&] { pipe = Pallo::Descriptor(); });
}

class BusyAgent : public AgentProcess {
 protected:
  static constexpr U64 entries = 3000;
  // A pass of three seconds at least, under way.
  std::unique_ptr<Process> walking() {
    table = producer();
    for (U64 key = 1; key <= entries; ++key) table->entryIs(entry(key, static_cast<U32>(key)));
    auto agent = start({"--hw-latency-us", "1000"});
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(dir / "mgmt.sock"); }));
    return agent;
  }
  U64 number(std::string const& what) { return std::strtoull(ask("attr get " + what).c_str(), nullptr, 10); }
  // What a line of the agent says before `what`.
  static U64 said(Process const& agent, std::string const& what) {
    std::string const out = agent.out();
    auto const end = out.find(what);
    if (end == std::string::npos) return 0;
    return std::strtoull(out.c_str() + out.find_last_of(" ", end - 2) + 1, nullptr, 10);
  }
  Ostra::Ptr<ConfigWriter> table;
};

TEST_F(BusyAgent, AnswersInTheMiddleOfTheFirstWalk) {
  auto const agent = walking();
  ASSERT_TRUE(eventually([&] { return number("hardware adds") > 0; }));
  EXPECT_LT(number("hardware adds"), entries);
  EXPECT_THAT(agent->out(), IsEmpty()) << "it was ready before it was asked";
}

TEST_F(BusyAgent, LeavesAWalkWhenItIsAskedToStop) {
  auto const agent = walking();
  ASSERT_TRUE(eventually([&] { return number("hardware adds") > 0; }));
  EXPECT_EQ(stop(*agent), 0);
  U64 const adds = said(*agent, " adds");
  EXPECT_GT(adds, 0U) << agent->out();
  EXPECT_LT(adds, entries) << "it walked to the end";
  EXPECT_EQ(said(*agent, " deletes,"), adds) << agent->out();
  EXPECT_THAT(agent->out(), HasSubstr("entries left: 0, statuses left: 0"));
}

TEST_F(BusyAgent, AnswersWhileKeysThatVanishedAreWithdrawn) {
  auto const agent = walking();
  ASSERT_TRUE(acknowledged()) << agent->err();
  table = nullptr;
  table = producer(true);
  ASSERT_TRUE(eventually([&] { return number("hardware deletes") > 0; }));
  EXPECT_LT(number("hardware deletes"), entries);
}

TEST_F(BusyAgent, AnswersWhileItWithdraws) {
  auto const agent = walking();
  ASSERT_TRUE(acknowledged()) << agent->err();
  agent->signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return ask("attr get agent state") == "withdrawing\n"; }));
  ASSERT_TRUE(eventually([&] { return number("agent left") < entries; }));
  EXPECT_GT(number("agent left"), 0U);
  EXPECT_EQ(agent->wait(), 0);
  EXPECT_THAT(agent->out(), HasSubstr("withdrawing 3000 entries"));
}

TEST_F(BusyAgent, EndsAtOnceAtASecondSignal) {
  auto const agent = walking();
  ASSERT_TRUE(acknowledged()) << agent->err();
  agent->signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return agent->out().find("withdrawing") != std::string::npos; }));
  agent->signal(SIGINT);
  EXPECT_EQ(agent->wait(), 3);
  EXPECT_THAT(agent->err(), HasSubstr("ended by a second signal"));
  EXPECT_THAT(agent->out(), testing::Not(HasSubstr("stopped:")));
  statuses = nullptr;
  EXPECT_NE(status(entries / 2) + status(1) + status(entries), 0U) << "all was withdrawn before";
}
