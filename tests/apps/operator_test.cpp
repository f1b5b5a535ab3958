// SPDX-License-Identifier: Apache-2.0
// What an operator does to a running agent: the verbs attr, watch and snapshot, and bare lines, good and bad.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "lumelog/lumelog.h"
#include "ostra/mount.h"
#include "ostra/publish.h"
#include "shoal/writer_table.h"
#include "tests/ostra/raw_peer.h"
#include "tests/support/agent.h"
#include "tests/support/in_child.h"
#include "vantrel/diag/wait_status.h"
#include "vantrel/vantrel.h"

using namespace TestSupport;
using namespace Vantrel;
using OstraTest::RawPeer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

struct Ended {
  int status;
  std::string out, err;
};

class OperatorTest : public testing::Test {
 protected:
  void start() { agent = startAgent(dir, dir.path()); }
  void kill() {
    agent->signal(SIGKILL);
    agent->wait();
  }
  void want(U64 key, U32 ti, U32 prio) {
    if (!table)
      table = Ostra::make<Shoal::WriterTable<EntryConfig>>(dir / "config.shoal", Shoal::WriterOptions{});
    EntryConfig c(EntryKey(key), OpId(opIds += 0x10001), static_cast<U32>(key), 0, prio);
    c.tableIndexIs(TableKey(0), ti);
    table->entryIs(c);
  }
  std::unique_ptr<Process> begin(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VANTREL_BIN_DIR "/vantrel");
    arguments.insert(arguments.end(), {"--dir", dir.path()});
    std::string const name = "command" + std::to_string(++commands);
    return std::make_unique<Process>(arguments, dir / (name + ".out"), dir / (name + ".err"));
  }
  Ended run(std::vector<std::string> arguments) {
    auto const process = begin(std::move(arguments));
    int const status = process->wait();
    return {status, process->out(), process->err()};
  }
  // What a verb that succeeds prints.
  std::string said(std::vector<std::string> arguments) {
    Ended const ended = run(std::move(arguments));
    EXPECT_EQ(0, ended.status) << ended.err;
    return ended.out;
  }
  void expectRefused(std::vector<std::string> arguments, std::string const& why) {
    Ended const ended = run(std::move(arguments));
    EXPECT_EQ(1, ended.status);
    EXPECT_EQ("vantrel: " + why + "\n", ended.err);
  }

  TempDir dir;
  std::unique_ptr<Process> agent;
  Ostra::Ptr<Shoal::WriterTable<EntryConfig>> table;
  U64 opIds = 0;
  int commands = 0;
};

}  // namespace

TEST_F(OperatorTest, AttrListsGetsSetsAndInvokes) {
  want(1, 5, 10);
  start();
  std::string const entities = said({"attr", "list"});
  for (char const* entity :
       {"flushStatus", "debugConfig", "debugStatus", "frontEnd", "engine", "executor", "hardware"})
    EXPECT_THAT(entities, HasSubstr(std::string("\n") + entity + " "));
  EXPECT_THAT(said({"attr", "list", "engine"}), HasSubstr("prioGrpShift             scalar      U32"));
  EXPECT_EQ("19\n", said({"attr", "get", "engine", "prioGrpShift"}));
  EXPECT_EQ("1000\n", said({"attr", "get", "engine", "retryDepsMaxCnt"}));
  EXPECT_EQ("7\n", said({"attr", "set", "engine", "retryDepsMaxCnt", "7"}));
  EXPECT_EQ("7\n", said({"attr", "get", "engine", "retryDepsMaxCnt"}));
  EXPECT_EQ("0.5\n", said({"attr", "set", "frontEnd", "retryPeriod", "0.5"}));
  EXPECT_EQ("1\n", said({"attr", "get", "engine", "keyToHandle", "--key", "1"}));
  EXPECT_EQ("done\n", said({"attr", "invoke", "frontEnd", "handleEntryCollNotify"}));
  EXPECT_EQ("2\n", said({"attr", "get", "hardware", "flushes"})) << "one for the first walk, one for this";
  EXPECT_EQ("65537\n", said({"attr", "invoke", "engine", "currentOpId", "1"}));
  EXPECT_EQ("0\n", said({"attr", "invoke", "engine", "currentOpId", "2"}));
  EXPECT_EQ("1\n", said({"attr", "get", "flushStatus", "flushCounter"}));
}

TEST_F(OperatorTest, AttrSaysWhatIsWrong) {
  want(1, 5, 10);
  start();
  expectRefused(
      {"attr", "get", "engin", "prioGrpShift"},
      "no entity is named \"engin\"; there are: agent, configTable, debugConfig, debugStatus, engine, "
      "executor, flushStatus, frontEnd, hardware, metrics, statusTable, trace, waitStatus, waiting");
  EXPECT_THAT(run({"attr", "get", "engine", "prio"}).err,
              StartsWith("vantrel: Vantrel::FastVantrelImpl has no attribute \"prio\"; it has: "));
  expectRefused({"attr", "set", "engine", "debugEnabled", "yes"}, "expected true or false, got \"yes\"");
  expectRefused({"attr", "set", "engine", "retryDepsMaxCnt", "many"}, "expected a U32, got \"many\"");
  expectRefused({"attr", "set", "engine", "retryDepsMaxCnt", "4294967296"},
                "retryDepsMaxCnt expects a value of type U32, got 4294967296");
  expectRefused({"attr", "set", "engine", "lgId", "2"}, "lgId of Vantrel::FastVantrelImpl cannot be written");
  expectRefused({"attr", "invoke", "frontEnd", "handleEntry"}, "handleEntry takes 1 arguments, got 0");
}

TEST_F(OperatorTest, WhatWouldBreakARunningEngineIsRefused) {
  want(1, 5, 10);
  start();
  std::string const cannot = " of Vantrel::FastVantrelImpl cannot be written: ";
  expectRefused({"attr", "set", "engine", "prioGrpShift", "18"},
                "prioGrpShift" + cannot + "entries are programmed or waiting under the present mapping");
  expectRefused({"attr", "set", "engine", "state", "x"},
                "state" + cannot + "it is all that the engine knows of its entries");
  expectRefused(
      {"attr", "set", "engine", "initialized", "false"},
      "initialized" + cannot + "a running engine that is not initialized would drop every key it is told of");
  EXPECT_THAT(run({"attr", "set", "frontEnd", "initialized", "false"}).err, HasSubstr("cannot be written: "));
  expectRefused({"attr", "invoke", "engine", "keyToHandleDelAll"},
                "keyToHandleDelAll of Vantrel::FastVantrelImpl cannot be invoked: the engine keeps who owns "
                "which handle itself");
  EXPECT_EQ("1\n", said({"attr", "get", "engine", "keyToHandle", "--key", "1"}));
  expectRefused({"attr", "invoke", "debugStatus", "statusDelAll"},
                "statusDelAll of Vantrel::DebugStatus cannot be invoked: the engine writes it");
  EXPECT_EQ("true\n", said({"attr", "get", "engine", "initialized"}));
  EXPECT_EQ("true\n", said({"attr", "get", "frontEnd", "initialized"}));
}

TEST_F(OperatorTest, ReportsARecordOutsideASetMappingAndGoesOn) {
  table = Ostra::make<Shoal::WriterTable<EntryConfig>>(dir / "config.shoal", Shoal::WriterOptions{});
  start();
  said({"attr", "set", "engine", "prioGrpShift", "4"});
  want(7, 100, 10);
  want(8, 3, 10);
  EXPECT_TRUE(eventually([&] {
    return said({"snapshot", "--json"}).find("\"key\":8") != std::string::npos;
  }));
  EXPECT_THAT(said({"snapshot", "--json"}), testing::Not(HasSubstr("\"key\":7")));
  EXPECT_THAT(agent->err(), HasSubstr("record of key 7: position 100 is not below 2^4"));
}

TEST_F(OperatorTest, TraceLevelsAreReadAtTheStart) {
  want(1, 5, 10);
  agent =
      std::make_unique<Process>(std::vector<std::string>{"/usr/bin/env", "TRACE=Vantrel*/x,VantrelImpl/9",
                                                         VANTREL_BIN_DIR "/vantreld", "--dir", dir.path()},
                                dir / "out", dir / "err");
  ASSERT_TRUE(eventually([&] {
    return agent->err().find("VantrelImpl/9 Finished notify on key=1\n") != std::string::npos;
  })) << agent->err();
  EXPECT_THAT(agent->err(), StartsWith("TRACE: cannot read \"Vantrel*/x\": expected NAME/LEVEL"));
  EXPECT_EQ("Vantrel*/x,VantrelImpl/9\n", said({"attr", "get", "trace", "settings"}));
}

TEST_F(OperatorTest, TraceLevelsOfARunningAgentAreSwitched) {
  want(1, 5, 10);
  start();
  EXPECT_EQ("", agent->err());
  std::string const file = dir / "traces";
  EXPECT_EQ("VantrelImpl/9,VantrelSm/8 >" + file + "\n",
            said({"attr", "set", "trace", "settings", "VantrelImpl/9,VantrelSm/8 >" + file}));
  want(2, 6, 20);
  ASSERT_TRUE(
      eventually([&] { return contents(file).find("Finished notify on key=2") != std::string::npos; }));
  EXPECT_THAT(contents(file), HasSubstr("VantrelSm/8 virtual void Vantrel::VantrelSm::handleEntry("));
  EXPECT_THAT(contents(file), HasSubstr("VantrelImpl/9 Notify on key=2\n"));
  EXPECT_EQ("\n", said({"attr", "set", "trace", "settings", ""}));
  std::string const before = contents(file);
  want(3, 7, 30);
  ASSERT_TRUE(eventually([&] { return said({"attr", "get", "hardware", "entries"}) == "3\n"; }));
  EXPECT_EQ(before, contents(file));
  expectRefused({"attr", "set", "trace", "settings", "nonsense"},
                "settings: expected NAME/LEVEL with a level from 0 to 9, or >FILE, found \"nonsense\"");
  EXPECT_EQ("\n", said({"attr", "get", "trace", "settings"})) << "the levels stay as they were";
}

TEST_F(OperatorTest, KeepsTheSetNumberOfDeadAgentsTraceFiles) {
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(0, inChild([&] {
                Lumelog::Options options;
                options.kib.fill(4);
                options.keep = 100;
                if (!Lumelog::open(dir / "Quarry-mbb-%d.lg", options)) _exit(1);
              }));
  auto const traceFiles = [&] {
    return std::ranges::count_if(std::filesystem::directory_iterator(dir.path()),
                                 [](auto const& entry) { return entry.path().extension() == ".lg"; });
  };
  want(1, 10, 5);
  start();
  EXPECT_EQ(8 + 1, traceFiles());
  EXPECT_EQ("8\n", said({"attr", "get", "trace", "keep"}));
  EXPECT_EQ("3\n", said({"attr", "set", "trace", "keep", "3"}));
  EXPECT_EQ(3 + 1, traceFiles());
  for (std::string const nonsense : {"0", "1001"})
    expectRefused({"attr", "set", "trace", "keep", nonsense},
                  "keep: expected a number of trace files from 1 to 1000, got " + nonsense);
  expectRefused({"attr", "set", "trace", "keep", "-1"}, "expected a U32, got \"-1\"");
  EXPECT_EQ("3\n", said({"attr", "get", "trace", "keep"}));
  EXPECT_EQ(3 + 1, traceFiles());
}

TEST_F(OperatorTest, SnapshotSaysThatThereIsNoAgent) {
  want(1, 5, 10);
  Ended const never = run({"snapshot"});
  EXPECT_EQ(1, never.status);
  EXPECT_EQ("vantrel: no agent listens on " + dir / "mgmt.sock\n", never.err);
  start();
  kill();
  Ended const gone = run({"snapshot", "--timeout", "0.2"});
  EXPECT_EQ(1, gone.status);
  EXPECT_THAT(gone.err, HasSubstr("mgmt.sock: Connection refused\n"));
}

TEST_F(OperatorTest, WatchRefusesAnAbsentNameAndFollowsASuccessor) {
  start();
  Ended const early = run({"watch", "motor"});
  EXPECT_EQ(1, early.status);
  EXPECT_THAT(early.err, StartsWith("vantrel: no entity is named \"motor\"; there are: "));

  want(1, 5, 10);
  ASSERT_TRUE(eventually([&] { return said({"attr", "get", "engine", "keyToHandle"}).find("1") == 0; }));
  auto const watch = begin({"watch", "engine"});
  ASSERT_TRUE(eventually([&] { return watch->out().find("\nlive\n") != std::string::npos; })) << watch->err();
  EXPECT_THAT(watch->out(), HasSubstr("keyToHandle[1] = 1\n"));

  kill();
  ASSERT_TRUE(eventually([&] { return watch->err().find("; waiting for it\n") != std::string::npos; }));
  table = nullptr;
  std::filesystem::remove(dir / "config.shoal");
  start();
  ASSERT_TRUE(
      eventually([&] { return watch->err().find("vantrel: the agent is back\n") != std::string::npos; }));
  want(2, 6, 20);
  ASSERT_TRUE(eventually([&] { return watch->out().find("keyToHandle[2] = 2\n") != std::string::npos; }))
      << watch->out() << watch->err();
  want(3, 7, 30);
  ASSERT_TRUE(eventually([&] { return watch->out().find("keyToHandle[3] = 3\n") != std::string::npos; }));
}

// Two keys wait for position 6, which is free: one is too low for what lies before it, the other too high for
// what lies behind; a third waits for a position that is held.
TEST_F(OperatorTest, SnapshotNamesTheNeighbourOnTheWrongSide) {
  want(1, 5, 10);
  want(2, 8, 20);
  start();
  want(3, 6, 5);
  want(4, 7, 25);
  want(5, 5, 10);
  auto const lines = [&] { return said({"snapshot", "--json"}); };
  ASSERT_TRUE(eventually([&] {
    std::string const text = lines();
    return std::ranges::count(text, '\n') == 5;
  })) << lines();
  std::vector<std::string> rows;
  std::istringstream in(lines());
  for (std::string line; std::getline(in, line);) rows.push_back(line);
  EXPECT_THAT(
      rows,
      ElementsAre(
          R"({"position":5,"state":"programmed","key":1,"opId":65537})",
          AllOf(StartsWith(R"({"position":5,"state":"waiting","key":5,"opId":327685,"heldBy":1,)"),
                HasSubstr(R"("why":"it waits for position 5, held by key 1, which is to stay there, for )")),
          AllOf(StartsWith(R"({"position":6,"state":"waiting","key":3,"opId":196611,"wrongSideOf":1,)"),
                HasSubstr(R"("why":"it waits for position 6, which is free, but key 1 at position 5 would )"
                          R"(be on its wrong side, for )")),
          AllOf(StartsWith(R"({"position":7,"state":"waiting","key":4,"opId":262148,"wrongSideOf":2,)"),
                HasSubstr(R"("why":"it waits for position 7, which is free, but key 2 at position 8 would )"
                          R"(be on its wrong side, for )")),
          R"({"position":8,"state":"programmed","key":2,"opId":131074})"));
  EXPECT_THAT(
      said({"snapshot"}),
      HasSubstr("         6 waiting                       3               196611  it waits for "
                "position 6, which is free, but key 1 at position 5 would be on its wrong side, for "));
}

// The agent stands still while it is asked, and never answers; the one that takes its place does.
TEST_F(OperatorTest, SuccessorAnswersASnapshotAskedOfADyingAgent) {
  want(1, 5, 10);
  start();
  agent->signal(SIGSTOP);
  auto const asking = begin({"snapshot", "--json"});
  auto const connected = [&] {
    std::error_code ignored;
    for (auto const& fd :
         std::filesystem::directory_iterator("/proc/" + std::to_string(asking->pid()) + "/fd", ignored))
      if (std::filesystem::read_symlink(fd, ignored).string().starts_with("socket:")) return true;
    return false;
  };
  ASSERT_TRUE(eventually(connected));
  kill();
  want(2, 6, 20);
  start();
  EXPECT_EQ(0, asking->wait()) << asking->err();
  EXPECT_EQ(
      "{\"position\":5,\"state\":\"programmed\",\"key\":1,\"opId\":65537}\n"
      "{\"position\":6,\"state\":\"programmed\",\"key\":2,\"opId\":131074}\n",
      asking->out());
}

TEST_F(OperatorTest, ExplainsASnapshotAskedBeforeTheTable) {
  start();
  Ostra::Mounter mounter(dir / "mgmt.sock");
  auto const config = mounter.mount<DebugConfig>();
  auto const waits = mounter.mount<WaitStatus>();
  ASSERT_TRUE(mounter.dispatchUntil([&] { return mounter.live(*config) && mounter.live(*waits); }, 10));
  auto const asked = mounter.invoke(*config, "versionInc", {U64{1}});
  ASSERT_TRUE(mounter.dispatchUntil([&] { return asked->result.has_value(); }, 10));
  EXPECT_EQ(waits->version(), 0U);
  want(1, 5, 10);
  EXPECT_TRUE(mounter.dispatchUntil([&] { return waits->version() == 1; }, 10));
}

// This one takes the question and goes before it answers. Its successor knows of no question.
TEST_F(OperatorTest, SuccessorAnswersASnapshotItsAgentHadBegun) {
  want(1, 5, 10);
  auto const config = debugConfigFactory("debugConfig");
  auto owing = std::make_unique<Ostra::Publisher>(dir / "mgmt.sock");
  owing->exportObject("debugConfig", config);
  owing->exportObject("debugStatus", debugStatusFactory("debugStatus"));
  owing->exportObject("waitStatus", Ostra::make<WaitStatus>("waitStatus"));
  auto const asking = begin({"snapshot", "--json"});
  ASSERT_TRUE(eventually([&] {
    owing->dispatch();
    return config->version() == 1;
  }));
  owing.reset();
  start();
  EXPECT_EQ(0, asking->wait()) << asking->err();
  EXPECT_EQ("{\"position\":5,\"state\":\"programmed\",\"key\":1,\"opId\":65537}\n", asking->out());
}

TEST_F(OperatorTest, WatchSaysThatAnEntityCannotBeWatched) {
  want(1, 5, 10);
  start();
  for (char const* entity : {"frontEnd", "configTable", "statusTable"}) {
    Ended const ended = run({"watch", entity});
    EXPECT_EQ(1, ended.status);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ("vantrel: " + std::string(entity) +
                  " does not tell its changes and cannot be mounted; read it instead\n",
              ended.err);
  }
}

TEST_F(OperatorTest, AgentSurvivesBadLines) {
  want(1, 5, 10);
  start();
  std::string const socket = dir / "mgmt.sock";
  auto const answerTo = [&](std::string const& line) {
    RawPeer peer(socket);
    EXPECT_TRUE(peer.connected());
    peer.write(line + '\n');
    EXPECT_TRUE(eventually([&] {
      peer.read();
      return !peer.lines().empty() || peer.closed();
    }));
    return peer.lines().empty() ? std::string("closed") : peer.lines().front();
  };
  for (std::string const& line :
       {std::string("good morning"), std::string("[1,2]"), std::string("{\"verb\":"), std::string("{}"),
        std::string(R"({"verb":"fly"})"), std::string(R"({"verb":["read"]})"),
        std::string(R"({"verb":"read","entity":3})"), std::string(R"({"verb":"invoke","entity":"engine"})"),
        std::string(R"({"verb":"write","entity":"engine","attribute":"dirty","value":{"a":1}})"),
        std::string(60000, '['), std::string(200, '\0'), std::string("\xff\xfe{\"verb\"")})
    EXPECT_THAT(answerTo(line), MatchesRegex("\\{\"error\":\".+\"\\}")) << line.substr(0, 80);

  std::vector<std::unique_ptr<RawPeer>> halves;  // begin a line and go
  for (int i = 0; i < 200; ++i) {
    halves.push_back(std::make_unique<RawPeer>(socket));
    ASSERT_TRUE(halves.back()->connected());
    halves.back()->write(R"({"verb":"invoke","entity":"engine","operation":"dumpSt)");
  }
  halves.clear();

  long const before = agent->residentKib();
  RawPeer endless(socket);
  ASSERT_TRUE(endless.connected());
  std::string const piece(1 << 20, 'x');
  std::size_t sent = 0;
  EXPECT_TRUE(eventually([&] {
    sent += endless.write(piece);
    endless.read();
    return sent >= 100u << 20 || endless.closed();
  }));
  endless.read();  // what came before the end
  EXPECT_THAT(endless.lines(), ElementsAre(R"({"error":"a line is longer than 65536 bytes"})"));
  EXPECT_LT(agent->residentKib(), before + 16 * 1024);
  EXPECT_EQ("1\n", said({"attr", "get", "hardware", "entries"}));
  agent->signal(SIGTERM);
  EXPECT_EQ(0, agent->wait()) << agent->err();
}
