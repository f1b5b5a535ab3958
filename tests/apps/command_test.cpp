// SPDX-License-Identifier: Apache-2.0
// The command as a process: what it says, how it ends, and what lies in the tables afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "apps/vantrel/acl/diff.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "tests/apps/acl_generator.h"
#include "tests/support/agent.h"
#include "vantrel/core/tables.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using TestSupport::contents;
using TestSupport::eventually;
using TestSupport::Process;
using TestSupport::TempDir;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;

struct Ended {
  int status;
  std::string out;
  std::string err;
  std::vector<json> lines() const {
    std::vector<json> all;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) all.push_back(json::parse(line));
    return all;
  }
};

class CommandTest : public testing::Test {
 protected:
  CommandTest() { std::filesystem::create_directories(tables()); }
  std::unique_ptr<Process> start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VANTREL_BIN_DIR "/vantrel");
    out_ = dir / ("out" + std::to_string(++started_));
    err_ = dir / ("err" + std::to_string(started_));
    return std::make_unique<Process>(arguments, out_, err_);
  }
  Ended run(std::vector<std::string> arguments) {
    auto const process = start(std::move(arguments));
    int const status = process->wait();
    return {status, process->out(), process->err()};
  }
  // With --dir.
  Ended at(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--dir", tables()});
    return run(std::move(arguments));
  }
  Ended put(std::string const& key, std::string const& opId, std::string const& hdl, std::string const& prio,
            std::string const& ti, std::vector<std::string> more = {}) {
    std::vector<std::string> arguments{"put",  "--key", key,      "--op-id", opId,   "--hdl", hdl,
                                       "--pg", "0",     "--prio", prio,      "--ti", ti};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return at(std::move(arguments));
  }
  std::unique_ptr<Process> agent(std::vector<std::string> const& flags = {}) {
    return startAgent(dir, tables(), flags, "agent" + std::to_string(++started_));
  }
  // No order was ever violated.
  static void stop(Process& process) {
    process.signal(SIGTERM);
    EXPECT_EQ(process.wait(), 0) << process.err();
    EXPECT_THAT(process.out(), HasSubstr(" 0 violations"));
  }

  std::string tables() const { return dir / "tables"; }
  std::string config() const { return tables() + "/config.shoal"; }
  std::string write(std::string const& name, std::string const& text) const {
    std::ofstream(dir / name, std::ios::binary) << text;
    return dir / name;
  }
  std::string writeRules(std::vector<Acl::Rule> const& rules) const {
    return write("rules", Acl::textOf(rules));
  }

  // Every entry is wanted and acknowledged, and left to right they are the rules.
  void expectLoaded(std::vector<Acl::Rule> const& rules) {
    Shoal::ReaderTable<EntryConfig> const configs(config());
    Shoal::ReaderTable<EntryStatus> const statuses(tables() + "/status.shoal");
    std::map<U32, Acl::Rule> row;
    for (auto place = configs.first(); place; place = configs.next(*place)) {
      EntryConfig const entry = configs.entry(place->key);
      ASSERT_EQ(statuses.entry(place->key).opId(), entry.opId()) << "key " << entry.key().value();
      auto const rule = Acl::decode(entry.dataWords().elements());
      ASSERT_TRUE(rule);
      ASSERT_TRUE(row.emplace(entry.tableIndex(Vantrel::TableKey(0)), *rule).second);
    }
    std::vector<Acl::Rule> held;
    for (auto const& [ti, rule] : row) held.push_back(rule);
    ASSERT_EQ(held, rules);
  }

  TempDir dir;

 private:
  int started_ = 0;
  std::string out_;
  std::string err_;
};

TEST_F(CommandTest, EveryVerbShowsAnExample) {
  for (char const* verb : {"load", "put", "del", "ls", "status"}) {
    Ended const help = run({verb, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr(std::string("Example:\n  vantrel ") + verb + " "));
  }
}

TEST_F(CommandTest, WrongFlagNamesHelpAndExitsWithTwo) {
  for (std::vector<std::string> const& arguments : std::vector<std::vector<std::string>>{
           {},
           {"fly"},
           {"put", "--dir", "d", "--key", "1"},
           {"put", "--dir", "d", "--key", "1x", "--pg", "0", "--prio", "1", "--ti", "1"},
           {"put", "--dir", "d", "--key", "-1", "--pg", "0", "--prio", "1", "--ti", "1"},
           {"put", "--dir", "d", "--key", "1", "--pg", "65536", "--prio", "1", "--ti", "1"},
           {"put", "--dir", "d", "--key", "1", "--pg", "0", "--prio", "1", "--ti", "1", "--op-id", "7"},
           {"put", "--dir", "d", "--key", "18446744073709551616", "--pg", "0", "--prio", "1", "--ti", "1"},
           {"ls", "everything", "--dir", "d"},
           {"ls", "config"},
           {"status", "x", "--dir", "d"},
           {"load", "--dir", "d"},
           {"load", "f", "--dir", "d", "--wait", "--timeout", "-1"},
           {"load", "f", "--dir", "d", "--timeout", "1"},
           {"del", "--dir", "d", "--key", "1", "--timeout", "1"},
           {"put", "--dir", "d", "--key", "1", "--pg", "0", "--prio", "1", "--ti", "1", "--timeout", "1"},
           {"load", "f", "--dir", "d", "--max-partitions", "0"},
           {"load", "f", "--dir", "d", "--prio-grp-shift", "33"},
           {"load", "f", "--dir", "d", "--fast"}}) {
    Ended const ended = run(arguments);
    EXPECT_EQ(ended.status, 2) << testing::PrintToString(arguments);
    EXPECT_THAT(ended.err, AllOf(StartsWith("vantrel: "), HasSubstr("; see vantrel"), HasSubstr(" --help\n")))
        << testing::PrintToString(arguments);
    EXPECT_EQ(1, std::ranges::count(ended.err, '\n')) << ended.err;
    EXPECT_THAT(ended.out, IsEmpty());
  }
  EXPECT_FALSE(std::filesystem::exists("d"));
}

// One sentence on stderr that names the file, and 1.
void expectRefused(Ended const& ended, std::string const& name) {
  EXPECT_EQ(ended.status, 1);
  EXPECT_THAT(ended.out, IsEmpty());
  EXPECT_THAT(ended.err, AllOf(StartsWith("vantrel: "), HasSubstr(name)));
  EXPECT_EQ(std::ranges::count(ended.err, '\n'), 1) << ended.err;
}

TEST_F(CommandTest, MissingTableIsReported) {
  expectRefused(at({"ls", "config"}), config());
  expectRefused(at({"ls", "status"}), "status.shoal");
  expectRefused(at({"ls", "positions"}), config());
  expectRefused(at({"status", "1"}), "status.shoal");
  expectRefused(at({"del", "--key", "1"}), config());
  EXPECT_FALSE(std::filesystem::exists(config())) << "none of these makes a table";
}

TEST_F(CommandTest, FileThatIsNoTableIsReported) {
  ASSERT_EQ(put("1", "0x10001", "1", "10", "5").status, 0);
  std::string const good = contents(config());
  std::string otherRecord = good;
  std::string otherVersion = good;
  {
    Shoal::WriterTable<EntryStatus> const statuses(dir / "status.shoal");
    otherRecord = contents(dir / "status.shoal");
  }
  otherVersion[8] = static_cast<char>(otherVersion[8] + 1);
  for (std::string const& bad : {std::string(), std::string("hello\n"), good.substr(0, 100),
                                 good.substr(0, 5000), otherRecord, otherVersion}) {
    std::ofstream(config(), std::ios::binary | std::ios::trunc) << bad;
    expectRefused(at({"ls", "config"}), config());
    expectRefused(put("2", "0x20001", "2", "10", "6"), config());
  }
}

TEST_F(CommandTest, ASecondWriterIsRefusedAndTheFirstIsNamed) {
  ASSERT_EQ(put("1", "0x10001", "1", "10", "5").status, 0);
  Shoal::WriterTable<EntryConfig> const writer(config());
  Ended const ended = put("2", "0x20001", "2", "10", "6");
  expectRefused(ended, config());
  EXPECT_THAT(ended.err, HasSubstr(std::to_string(getpid())));
}

TEST_F(CommandTest, WhatIsPutIsListedExactly) {
  ASSERT_EQ(put("18446744073709551615", "0xFFFFFFFFFFFE0001", "4294967295", "4294967295", "524287",
                {"--data", "0xFFFFFFFFFFFFFFFF,0,12"})
                .status,
            0);
  std::vector<json> const lines = at({"ls", "config", "--json"}).lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0]["key"], 18446744073709551615U);
  EXPECT_EQ(lines[0]["opId"], 0xFFFFFFFFFFFE0001U);
  EXPECT_EQ(lines[0]["hdl"], 4294967295U);
  EXPECT_EQ(lines[0]["prio"], 4294967295U);
  EXPECT_EQ(lines[0]["ti"], 524287U);
  EXPECT_EQ(lines[0]["data"], (json{0xFFFFFFFFFFFFFFFFU, 0U, 12U}));
}

TEST_F(CommandTest, BrokenRuleIsReportedAndNothingWritten) {
  ASSERT_EQ(put("1", "0x10001", "1", "10", "5").status, 0);
  expectRefused(put("1", "0x20001", "1", "11", "5"), "a key keeps its priority");
  expectRefused(put("2", "0x20001", "1", "10", "6"), "a handle belongs to one key");
  expectRefused(put("2", "0x10001", "2", "10", "6"), "OpIds rise across the whole table");
  expectRefused(put("2", "0x20001", "2", "10", "524288"), "inside the engine's mapping");
  expectRefused(put("2", "0x20001", "2", "10", "5", {"--max-partitions", "4"}),
                "inside the engine's mapping");
  std::vector<json> const lines = at({"ls", "config", "--json"}).lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0]["opId"], 0x10001);
}

TEST_F(CommandTest, VersionAndHandleAreChosenWhenNotGiven) {
  for (std::string const key : {"4", "5"})
    ASSERT_EQ(at({"put", "--key", key, "--pg", "0", "--prio", "10", "--ti", key}).status, 0);
  std::vector<json> const lines = at({"ls", "config", "--json"}).lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_LT(lines[0]["opId"], lines[1]["opId"]);
  EXPECT_NE(lines[0]["hdl"], lines[1]["hdl"]);
}

TEST_F(CommandTest, PutShowsAndDeletesAnEntryWithAnAgent) {
  auto const daemon = agent();
  ASSERT_EQ(put("7", "0x10001", "7", "10", "5", {"--data", "1", "--wait", "--timeout", "30"}).status, 0);
  EXPECT_EQ(at({"status", "7", "--json"}).lines().at(0)["opId"], 0x10001);
  EXPECT_EQ(at({"ls", "status", "--json"}).lines(),
            (std::vector<json>{{{"key", 7}, {"opId", 0x10001}, {"deleted", false}}}));
  json const position = at({"ls", "positions", "--json"}).lines().at(0);
  EXPECT_EQ(position["position"], 5);
  EXPECT_EQ(position["key"], 7);
  EXPECT_EQ(position["state"], "programmed");
  ASSERT_EQ(at({"del", "--key", "7", "--ack", "--timeout", "30"}).status, 0);
  EXPECT_THAT(at({"ls", "config", "--json"}).out, IsEmpty());
  expectRefused(at({"del", "--key", "7"}), "no key 7");
  stop(*daemon);
}

TEST_F(CommandTest, StatusSaysThatNoAgentRuns) {
  auto const daemon = agent();
  ASSERT_EQ(put("7", "0x10001", "7", "10", "5", {"--wait", "--timeout", "30"}).status, 0);
  EXPECT_EQ(at({"status", "7"}).status, 0);
  daemon->signal(SIGKILL);
  daemon->wait();
  for (auto const& verb : std::vector<std::vector<std::string>>{{"status", "7"}, {"ls", "status"}}) {
    Ended const ended = at(verb);
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, HasSubstr("what the status table says was true of the agent that wrote it"));
  }
}

// The mark of the first delete stands while the key comes back and goes again: nothing was done meanwhile.
TEST_F(CommandTest, DelWaitsForItsOwnAcknowledgement) {
  ASSERT_EQ(put("7", "0x10001", "7", "10", "5").status, 0);
  {
    Shoal::WriterTable<EntryStatus> statuses(dir / "status.shoal");
    statuses.entryIs({EntryKey(7), Vantrel::OpId::deleteAcknowledge()});
  }
  Ended const ended = at({"del", "--key", "7", "--ack", "--timeout", "0.5"});
  EXPECT_EQ(ended.status, 1);
  EXPECT_THAT(ended.err, HasSubstr("not acknowledged"));
  EXPECT_THAT(at({"ls", "config", "--json"}).out, HasSubstr("\"del\":true"));
}

TEST_F(CommandTest, ALateKeyIsNamedWithTheReason) {
  Ended const alone = put("1", "0x10001", "1", "10", "5", {"--wait", "--timeout", "0.1"});
  EXPECT_EQ(alone.status, 1);
  EXPECT_THAT(alone.err, AllOf(HasSubstr("1 key is not acknowledged within 0.1 s"), HasSubstr("no agent"),
                               HasSubstr("key 1")));
  auto const daemon = agent();
  ASSERT_EQ(put("2", "0x20001", "2", "20", "6", {"--wait", "--timeout", "30"}).status, 0);
  EXPECT_THAT(
      put("3", "0x30001", "3", "10", "5", {"--wait", "--timeout", "0.3"}).err,
      HasSubstr("key 3 (OpId 196609): it waits for position 5, held by key 1, which is to stay there"));
  EXPECT_THAT(
      put("4", "0x40001", "4", "10", "7", {"--wait", "--timeout", "0.3"}).err,
      HasSubstr(
          "key 4 (OpId 262145): it waits for position 7, which is free, but key 2 at position 6 would be on "
          "its wrong side"));
  stop(*daemon);
}

TEST_F(CommandTest, AMalformedFileWritesNothing) {
  std::string const file =
      write("bad.rules", Acl::textOf(Acl::generateRules(1, 50)) + "@1.2.3.4/40 0.0.0.0/0 0 : 1\n");
  expectRefused(at({"load", file}),
                file + ":51:10: expected a source prefix length from 0 to 32, found \"40\"");
  EXPECT_TRUE(std::filesystem::is_empty(tables()));
  expectRefused(at({"load", dir / "absent.rules"}), "absent.rules");
}

TEST_F(CommandTest, MoreRulesThanPositionsAreRefused) {
  std::string const file = writeRules(Acl::generateRules(1, 50));
  expectRefused(at({"load", file, "--size", "49"}), "50 rules do not fit into 49 positions");
}

TEST_F(CommandTest, AFileIsLoadedAndItsChangesAfterIt) {
  auto const daemon = agent({"--size", "4096"});
  std::vector<Acl::Rule> rules = Acl::generateRules(2, 1000);
  auto const load = [&] {
    Ended const ended =
        at({"load", writeRules(rules), "--wait", "--timeout", "120", "--size", "4096", "--json"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    expectLoaded(rules);
    return ended.lines().at(0);
  };
  EXPECT_EQ(load()["added"], 1000);
  json const again = load();
  EXPECT_EQ(again["added"].get<int>() + again["moved"].get<int>() + again["deleted"].get<int>(), 0);
  EXPECT_EQ(again["kept"], 1000);

  rules[500].action.kind = Acl::ActionKind::Mark;
  rules.erase(rules.begin() + 300);
  EXPECT_EQ(load()["updated"], 1);
  std::reverse(rules.begin() + 100, rules.begin() + 200);
  load();
  std::mt19937 random(3);
  std::ranges::shuffle(rules, random);
  load();
  stop(*daemon);
}

TEST_F(CommandTest, WaitingLoadHearsThatTheTableIsFlushed) {
  std::string const rules = writeRules(Acl::generateRules(6, 100));
  std::vector<std::string> const load{"load", rules, "--wait", "--timeout", "60", "--json"};
  auto daemon = agent();
  Ended const ended = at(load);
  EXPECT_EQ(ended.status, 0) << ended.err;
  EXPECT_EQ(ended.lines().at(0)["flushed"], true);

  daemon->signal(SIGKILL);  // leaves the acknowledgements of every entry behind
  daemon->wait();
  Ended const late = at({"load", rules, "--wait", "--timeout", "0.3"});
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.err, HasSubstr("the table is not flushed within 0.3 s; "));
  EXPECT_THAT(late.err, HasSubstr("mgmt.sock: Connection refused"));

  auto const waiting = start({"load", rules, "--wait", "--json", "--dir", tables()});
  daemon = agent();
  EXPECT_EQ(waiting->wait(), 0) << waiting->err();
  EXPECT_EQ(json::parse(waiting->out())["flushed"], true);
  stop(*daemon);
}

// Once a death, and it goes on with whoever takes over. The agents but the last are too slow to finish.
TEST_F(CommandTest, WaitingLoadReportsADeadAgentAndAwaitsTheNext) {
  constexpr auto severalLooks = std::chrono::milliseconds(700);
  std::vector<std::string> const slow{"--hw-latency-us", "20000"};
  auto daemon = agent(slow);
  auto const waiting = start({"load", writeRules(Acl::generateRules(6, 1000)), "--wait", "--dir", tables()});
  auto const said = [&] {
    int times = 0;
    std::istringstream in(waiting->err());
    for (std::string line; std::getline(in, line);) times += line.ends_with("; waiting for it");
    return times;
  };
  auto const kill = [&] {
    daemon->signal(SIGKILL);
    daemon->wait();
  };
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(config()); }));
  std::this_thread::sleep_for(severalLooks);
  EXPECT_EQ(said(), 0) << waiting->err();
  kill();
  ASSERT_TRUE(eventually([&] { return said() == 1; })) << waiting->err();
  std::this_thread::sleep_for(severalLooks);
  EXPECT_EQ(said(), 1) << waiting->err();
  for (int life = 0; life < 20 && said() == 1; ++life) {  // until one lived long enough to be met
    daemon = std::make_unique<Process>(
        std::vector<std::string>{VANTREL_BIN_DIR "/vantreld", "--dir", tables(), slow[0], slow[1]},
        dir / "slow.out", dir / "slow.err");
    std::this_thread::sleep_for(severalLooks);
    kill();
    std::this_thread::sleep_for(severalLooks);
  }
  EXPECT_EQ(said(), 2) << waiting->err();
  daemon = agent();
  EXPECT_EQ(waiting->wait(), 0) << waiting->err();
  EXPECT_EQ(said(), 2) << waiting->err();
  stop(*daemon);
}

TEST_F(CommandTest, LoadIsLateWhenItsAgentDies) {
  std::vector<Acl::Rule> const rules = Acl::generateRules(6, 1000);
  auto daemon = agent({"--hw-latency-us", "20000"});
  auto const waiting = start({"load", writeRules(rules), "--wait", "--timeout", "1", "--dir", tables()});
  Shoal::ReaderTable<EntryStatus> const statuses(tables() + "/status.shoal");
  ASSERT_TRUE(eventually([&] { return statuses.size() > 0; }));
  daemon->signal(SIGKILL);
  daemon->wait();
  EXPECT_EQ(waiting->wait(), 1);
  EXPECT_THAT(waiting->err(), HasSubstr(" keys are not acknowledged within 1 s; cannot reach the agent at "));
  EXPECT_THAT(waiting->out(), IsEmpty());
  daemon = agent();
  EXPECT_EQ(at({"load", dir / "rules", "--wait", "--timeout", "60"}).status, 0);
  expectLoaded(rules);
  stop(*daemon);
}

// The next agent never had the entries that go, and acknowledges that they are gone.
TEST_F(CommandTest, LoadEndsItsDeletesWithTheNextAgent) {
  std::vector<Acl::Rule> rules = Acl::generateRules(6, 300);
  auto daemon = agent({"--hw-latency-us", "5000"});
  ASSERT_EQ(at({"load", writeRules(rules), "--wait", "--timeout", "60"}).status, 0);
  rules.erase(rules.begin(), rules.begin() + 200);
  auto const waiting = start({"load", writeRules(rules), "--wait", "--force", "--dir", tables()});
  Shoal::ReaderTable<EntryConfig> const configs(config());
  auto const marked = [&] {
    U64 n = 0;
    for (auto place = configs.first(); place; place = configs.next(*place))
      n += configs.entry(place->key).isDel();
    return n;
  };
  ASSERT_TRUE(eventually([&] { return marked() > 0; }));
  daemon->signal(SIGKILL);
  daemon->wait();
  ASSERT_GT(marked(), 0U);
  daemon = agent();
  EXPECT_EQ(waiting->wait(), 0) << waiting->err();
  EXPECT_EQ(marked(), 0U);
  expectLoaded(rules);
  stop(*daemon);
}

// Everything is acknowledged by an agent that is gone; only the flush is waited for.
TEST_F(CommandTest, WaitingLoadReportsThatNoAgentIsThere) {
  std::string const rules = writeRules(Acl::generateRules(6, 100));
  auto daemon = agent();
  ASSERT_EQ(at({"load", rules, "--wait", "--timeout", "60"}).status, 0);
  daemon->signal(SIGKILL);
  daemon->wait();
  auto const waiting = start({"load", rules, "--wait", "--dir", tables()});
  ASSERT_TRUE(eventually([&] { return waiting->err().ends_with("; waiting for it\n"); })) << waiting->err();
  EXPECT_THAT(waiting->err(), StartsWith("vantrel: cannot reach the agent at " + tables() + "/mgmt.sock: "));
  daemon = agent();
  EXPECT_EQ(waiting->wait(), 0) << waiting->err();
  EXPECT_THAT(waiting->out(), HasSubstr("and the table flushed"));
  stop(*daemon);
}

TEST_F(CommandTest, WithoutWaitTheAgentFinishesAlone) {
  std::vector<Acl::Rule> const rules = Acl::generateRules(4, 300);
  ASSERT_EQ(at({"load", writeRules(rules)}).status, 0);
  auto const daemon = agent();
  Ended const ended = at({"load", writeRules(rules), "--wait", "--timeout", "60", "--json"});
  EXPECT_EQ(ended.lines().at(0)["added"], 0);
  expectLoaded(rules);
  stop(*daemon);
}

TEST_F(CommandTest, LoadSpreadsRulesOverPartitions) {
  auto const daemon = agent({"--engine", "atcam", "--max-partitions", "8", "--size", "2000"});
  std::vector<Acl::Rule> rules = Acl::generateRules(5, 1500);
  std::vector<std::string> const flags{"--wait", "--timeout",        "120", "--size",
                                       "2000",   "--max-partitions", "8"};
  for (int i = 0; i < 2; ++i) {
    std::vector<std::string> arguments{"load", writeRules(rules)};
    arguments.insert(arguments.end(), flags.begin(), flags.end());
    Ended const ended = at(arguments);
    ASSERT_EQ(ended.status, 0) << ended.err;
    std::rotate(rules.begin(), rules.begin() + 400, rules.end());
  }
  std::map<int, int> perGroup;
  for (json const& line : at({"ls", "config", "--json"}).lines()) {
    EXPECT_EQ(line["ti"].get<U32>() % 8, line["pg"].get<U32>());
    ++perGroup[line["pg"]];
  }
  EXPECT_EQ(perGroup.size(), 8U);
  stop(*daemon);
}

TEST_F(CommandTest, ATableOfAnotherMappingIsLeftAlone) {
  std::string const file = writeRules(Acl::generateRules(6, 20));
  ASSERT_EQ(at({"load", file}).status, 0);
  std::string const before = at({"ls", "config"}).out;
  expectRefused(at({"load", file, "--max-partitions", "4"}), "cannot take over");
  EXPECT_EQ(at({"ls", "config"}).out, before);
}

// Hardware takes its time, so that a load lasts longer than any of the pauses.
TEST_F(CommandTest, AKilledLoaderIsFinishedByTheNext) {
  auto const daemon = agent({"--size", "3000", "--hw-latency-us", "100"});
  std::vector<Acl::Rule> rules = Acl::generateRules(8, 2000);
  std::mt19937 random(9);
  int killed = 0;
  for (int round = 0; round < 12; ++round) {
    auto const loader = start({"load", writeRules(rules), "--wait", "--size", "3000", "--dir", tables()});
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
    loader->signal(SIGKILL);
    killed += loader->wait() == 128 + SIGKILL;
    std::reverse(rules.begin() + static_cast<std::ptrdiff_t>(random() % 1000),
                 rules.begin() + static_cast<std::ptrdiff_t>(1000 + random() % 1000));
  }
  EXPECT_GE(killed, 4) << "the loads were too short to be killed";
  Ended const ended = at({"load", writeRules(rules), "--wait", "--timeout", "120", "--size", "3000"});
  ASSERT_EQ(ended.status, 0) << ended.err;
  expectLoaded(rules);
  stop(*daemon);
}

TEST_F(CommandTest, AnAgentKilledUnderALoadIsFollowedByAnother) {
  std::vector<Acl::Rule> rules = Acl::generateRules(10, 2000);
  for (int load = 0; load < 2; ++load) {
    auto const loader = start({"load", writeRules(rules), "--wait", "--timeout", "120", "--dir", tables()});
    for (int life = 0; life < 3; ++life) {
      auto const daemon = agent({"--hw-latency-us", "100"});
      std::this_thread::sleep_for(std::chrono::milliseconds(70));
      daemon->signal(SIGKILL);
      EXPECT_EQ(daemon->wait(), 128 + SIGKILL);
    }
    auto const daemon = agent();
    EXPECT_EQ(loader->wait(), 0) << loader->err();
    expectLoaded(rules);
    stop(*daemon);
    std::ranges::reverse(rules);
  }
}

// A place from `begin` on where the rule overlaps nobody of the bands around it: it joins its neighbours.
std::ptrdiff_t amongStrangers(std::vector<Acl::Rule> const& rules, Acl::Rule const& rule, std::size_t begin) {
  std::size_t met = begin;
  for (std::size_t at = begin; at < rules.size(); ++at) {
    if (overlap(rules[at], rule)) met = at;
    if (at - met == 2 * Acl::maxBand) return static_cast<std::ptrdiff_t>(at - Acl::maxBand);
  }
  ADD_FAILURE() << "there is no such place";
  return 0;
}

TEST_F(CommandTest, LoadsAHundredThousandEntries) {
  auto const daemon = agent();
  std::vector<Acl::Rule> rules = Acl::generateRules(11, 100000);
  Ended const ended = at({"load", writeRules(rules), "--wait", "--timeout", "200", "--json"});
  ASSERT_EQ(ended.status, 0) << ended.err;
  EXPECT_EQ(ended.lines().at(0)["added"], 100000);
  expectLoaded(rules);
  Acl::Rule host;
  host.source = host.destination = {0xFE010101, 0xFFFFFFFF};
  host.protocol = {0xFD, 0xFF};
  rules.insert(rules.begin() + amongStrangers(rules, host, 50000), host);
  json const one = at({"load", writeRules(rules), "--wait", "--timeout", "200", "--json"}).lines().at(0);
  EXPECT_EQ(one["kept"].get<int>(), 100000) << one;
  EXPECT_EQ(one["added"].get<int>(), 1) << one;
  EXPECT_LT(one["moved"].get<int>(), 100) << one;
  expectLoaded(rules);
  stop(*daemon);
}

}  // namespace
