// SPDX-License-Identifier: Apache-2.0
// What an operator asks, and what must not happen unasked.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "producer/geometry.h"
#include "tests/support/site.h"

using namespace TestSupport;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class QuestionTest : public Site {
 protected:
  void expectRefused(std::vector<std::string> arguments, std::string const& why) {
    Ended const ended = run(std::move(arguments));
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.err, HasSubstr(why));
    EXPECT_EQ(1, std::ranges::count(ended.err, '\n')) << ended.err;
  }
  std::string rulesOf(U64 seed, std::size_t rules) {
    std::string const file = dir / ("rules" + std::to_string(++started));
    std::ofstream(file, std::ios::binary) << Acl::textOf(Acl::generateRules(seed, rules));
    return file;
  }
};

}  // namespace

TEST_F(QuestionTest, LoadTakesTheAgentsSize) {
  start({"--size", "4096"});
  run(loading(1, 3000));
  ASSERT_EQ(3000u, held().size());
  EXPECT_LT(held().rbegin()->first, 4096u);
  EXPECT_EQ(0, run(loading(1, 3000)).status);
  EXPECT_EQ(3000u, held().size()) << "a load without --size once put entries beyond the hardware";
  expectSettled();
}

TEST_F(QuestionTest, LoadTakesTheAgentsSizeWhenItIsGone) {
  start({"--size", "4096"});
  end(SIGTERM);
  said({"load", rulesOf(1, 3000)});
  EXPECT_LT(wanted().rbegin()->first, 4096u);
}

TEST_F(QuestionTest, LoadTakesTheAgentsPartitions) {
  start({"--engine", "atcam", "--max-partitions", "8", "--size", "4096"});
  EXPECT_EQ(0, run(loading(1, 1000)).status);
  expectSettled();
}

TEST_F(QuestionTest, LoadRefusesAContradictingFlag) {
  start({"--size", "4096"});
  expectRefused({"load", rulesOf(1, 10), "--size", "131072"}, "--size 131072 contradicts the agent of ");
  expectRefused({"load", rulesOf(1, 10), "--max-partitions", "4"}, "--max-partitions 4 contradicts");
  expectRefused({"load", rulesOf(1, 10), "--prio-grp-shift", "18"}, "which has 19");
  EXPECT_FALSE(std::filesystem::exists(tables() + "/config.shoal"));
}

TEST_F(QuestionTest, PutRefusesAPositionBeyondTheHardware) {
  start({"--size", "64"});
  expectRefused({"put", "--key", "1", "--pg", "0", "--prio", "1", "--ti", "64"},
                "position 64 lies beyond the hardware's 64 positions, 0 to 63");
  EXPECT_EQ(0, run({"put", "--key", "1", "--pg", "0", "--prio", "1", "--ti", "63"}).status);
}

TEST_F(QuestionTest, AgentPublishesItsGeometry) {
  start({"--engine", "atcam", "--max-partitions", "8", "--size", "4096"});
  EXPECT_EQ((Vantrel::Geometry{4096, 16, 8}), Vantrel::Geometry::read(tables()));
  EXPECT_EQ("4096", said({"attr", "get", "agent", "size"}));
  EXPECT_EQ("atcam", said({"attr", "get", "agent", "engine"}));
  EXPECT_EQ("16", said({"attr", "get", "agent", "prioGrpShift"}));
  EXPECT_EQ("8", said({"attr", "get", "agent", "maxPartitions"}));
}

TEST_F(QuestionTest, ADamagedGeometryFileIsNamed) {
  std::ofstream(tables() + "/geometry") << "size many\n";
  expectRefused({"load", rulesOf(1, 10)}, "/geometry: expected a number behind \"size\", found \"many\"");
}

TEST_F(QuestionTest, NoVerbMakesADirectory) {
  for (std::vector<std::string> arguments : std::vector<std::vector<std::string>>{
           {"load", rulesOf(1, 10)}, {"put", "--key", "1", "--pg", "0", "--prio", "1", "--ti", "1"}}) {
    arguments.insert(arguments.begin(), VANTREL_BIN_DIR "/vantrel");
    arguments.insert(arguments.end(), {"--dir", dir / "tabels"});
    Process command(arguments, dir / "out", dir / "err");
    EXPECT_EQ(1, command.wait());
    EXPECT_THAT(command.err(), HasSubstr("there is no directory "));
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "tabels"));
}

namespace {

std::vector<json> linesOf(std::string const& text) {
  std::vector<json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
  return lines;
}

}  // namespace

TEST_F(QuestionTest, DryRunSaysWhatALoadWouldDo) {
  start({"--size", "4096"});
  std::string const file = dir / "mine";
  auto rules = Acl::generateRules(1, 300);
  std::ofstream(file) << "# mine\n" << Acl::textOf(rules);
  ASSERT_EQ(0, run({"load", file, "--wait"}).status);
  auto const before = wanted();
  rules.erase(rules.begin() + 200);
  rules[9].action = {Acl::ActionKind::Mark, 7};
  rules.insert(rules.begin() + 100, Acl::generateRules(77, 1)[0]);
  std::ofstream(file) << "# mine\n" << Acl::textOf(rules);

  std::vector<json> const lines = linesOf(said({"load", file, "--dry-run", "--json"}));
  json const summary = lines.back();
  EXPECT_EQ(1, summary["add"]);
  EXPECT_EQ(1, summary["change"]);
  EXPECT_EQ(1, summary["delete"]);
  EXPECT_EQ(before, wanted()) << "nothing may be written";
  for (json const& line : lines) {
    if (line.value("do", "") == "change") {
      EXPECT_EQ(11, line["line"]);
    }
    if (line.value("do", "") == "add") {
      EXPECT_EQ(102, line["line"]);
    }
  }
  std::string const text = said({"load", file, "--dry-run"});
  EXPECT_THAT(text, HasSubstr("~ line 11 "));
  EXPECT_THAT(text, HasSubstr("+ line 102 "));
  EXPECT_THAT(text, HasSubstr("- delete "));
  EXPECT_THAT(text, HasSubstr("300 rules: 1 to add, 1 to change, "));

  json const done = json::parse(said({"load", file, "--wait", "--json"}));
  for (auto const& [said, did] : std::vector<std::pair<char const*, char const*>>{
           {"add", "added"}, {"change", "updated"}, {"delete", "deleted"}})
    EXPECT_EQ(summary[said], done[did]) << said;
  expectSettled();
}

TEST_F(QuestionTest, DryRunNeedsNoTableAndMakesNone) {
  start({"--size", "4096"});
  EXPECT_THAT(said({"load", rulesOf(1, 20), "--dry-run"}), HasSubstr("20 to add, 0 to change"));
  EXPECT_FALSE(std::filesystem::exists(tables() + "/config.shoal"));
}

TEST_F(QuestionTest, LoadRefusesToDeleteMostOfTheTable) {
  start({"--size", "4096"});
  ASSERT_EQ(0, run(loading(1, 300)).status);
  std::string const few = dir / "few";
  auto rules = Acl::generateRules(1, 300);
  rules.resize(100);
  std::ofstream(few) << Acl::textOf(rules);
  expectRefused({"load", few}, "this load is refused: it would delete 200 of 300 entries (66 %)");
  EXPECT_EQ(300u, wanted().size());
  EXPECT_THAT(said({"load", few, "--dry-run"}), HasSubstr("without --dry-run this is refused: it would "));
  EXPECT_EQ(0, run({"load", few, "--wait", "--force"}).status);
  EXPECT_EQ(100u, wanted().size());
}

TEST_F(QuestionTest, DangerousOperationsAskForConfirmation) {
  start({"--size", "4096"});
  ASSERT_EQ(0, run(putting(5)).status);
  expectRefused({"attr", "invoke", "engine", "doCleanup"}, "deletes every entry from the hardware");
  expectRefused({"attr", "invoke", "executor", "noopAck", "5", "1"}, "give --yes if that is wanted");
  expectRefused({"attr", "invoke", "executor", "delAck", "5"}, "a delete was done");
  EXPECT_EQ(1u, held().size());
  EXPECT_EQ("done", said({"attr", "invoke", "engine", "doCleanup", "--yes"}));
  EXPECT_TRUE(held().empty());
}

TEST_F(QuestionTest, ListedRulesCanBeLoadedAgain) {
  start({"--size", "4096"});
  ASSERT_EQ(0, run(loading(1, 500)).status);
  std::string const listed = dir / "listed";
  std::ofstream(listed) << said({"ls", "rules"}) << "\n";
  json const again = json::parse(said({"load", listed, "--wait", "--json"}));
  EXPECT_EQ(500, again["rules"]);
  EXPECT_EQ(500, again["kept"]);
  for (char const* none : {"added", "updated", "moved", "deleted"}) EXPECT_EQ(0, again[none]) << none;
}

TEST_F(QuestionTest, KeysMapToLinesAndBack) {
  start({"--size", "4096"});
  ASSERT_EQ(0, run(loading(1, 50)).status);
  std::vector<json> const lines = linesOf(said({"ls", "rules", "--json"}));
  ASSERT_EQ(50u, lines.size());
  json const third = lines[2];
  EXPECT_EQ(3, third["line"]);
  std::string const key = third["key"].dump();
  for (std::string const& name : {key, std::string("line:3"), third["rule"].get<std::string>()}) {
    json const why = json::parse(said({"why", name, "--json"}));
    EXPECT_EQ(third["key"], why["key"]) << name;
    EXPECT_EQ(3, why["line"]) << name;
    EXPECT_EQ("it is in hardware as it is wanted, and acknowledged", why["verdict"]);
  }
  expectRefused({"why", "line:51"}, "there is no line 51: the table has 50 rules");
}

TEST_F(QuestionTest, WhyKnowsALineOfAFile) {
  start({"--size", "4096"});
  auto const rules = Acl::generateRules(1, 50);
  std::string const file = dir / "mine";
  std::ofstream(file) << "# mine\n" << Acl::textOf(rules);
  ASSERT_EQ(0, run({"load", file, "--wait"}).status);
  json const why = json::parse(said({"why", file + ":11", "--json"}));
  EXPECT_EQ(Acl::text(rules[9]), why["rule"].get<std::string>());
  expectRefused({"why", file + ":1"}, file + " has no rule in line 1");
  expectRefused({"why", "nonsense"}, "\"nonsense\" names no entry: expected a key, line:N, FILE:N");
}

TEST_F(QuestionTest, WhyNamesWhoHoldsThePosition) {
  start({"--size", "64"});
  auto const put = [this](char const* key, char const* prio, char const* ti) {
    ASSERT_EQ(0, run({"put", "--key", key, "--pg", "0", "--prio", prio, "--ti", ti}).status);
  };
  put("1", "10", "5");
  put("2", "10", "5");
  ASSERT_TRUE(eventually([this] { return said({"attr", "get", "engine", "numPending"}) == "1"; }));
  Ended const why = run({"why", "2"});
  EXPECT_EQ(0, why.status);
  EXPECT_THAT(why.out, StartsWith("key 2: it waits, for "));
  EXPECT_THAT(why.out, HasSubstr("position 5 is held by key 1, priority 10, which is to stay there\n"));
  EXPECT_THAT(why.out, HasSubstr("wanted        at position 5, group 0, priority 10, version "));
  EXPECT_THAT(why.out, HasSubstr("in hardware   nowhere\n"));
  EXPECT_THAT(why.out, HasSubstr("cannot take its position now: it waits ("));
}

TEST_F(QuestionTest, WhyNamesBothPriorities) {
  start({"--size", "64"});
  ASSERT_EQ(0, run(putting(20)).status);
  ASSERT_EQ(0, run({"put", "--key", "9", "--pg", "0", "--prio", "30", "--ti", "7"}).status);
  ASSERT_TRUE(eventually([this] { return said({"attr", "get", "engine", "numPending"}) == "1"; }));
  EXPECT_THAT(said({"why", "9"}),
              HasSubstr("position 7 is free, but key 20 is at position 20 with priority 20, which is to stay "
                        "there: priority 30 may not lie before it\n"));
}

TEST_F(QuestionTest, WhySaysThatNobodyBreaksARing) {
  start({"--size", "64", "--strict"});
  auto const put = [this](char const* key, char const* pg, char const* prio, char const* ti) {
    ASSERT_EQ(0,
              run({"put", "--key", key, "--pg", pg, "--prio", prio, "--ti", ti, "--timeout", "9", "--wait"})
                  .status);
  };
  put("1", "0", "0", "0");
  put("2", "0", "1", "1");
  put("3", "1", "0", "3");
  for (auto const& [key, pg, prio, ti] : std::vector<std::array<char const*, 4>>{
           {"1", "0", "0", "2"}, {"2", "0", "1", "3"}, {"3", "1", "0", "0"}})
    ASSERT_EQ(0, run({"put", "--key", key, "--pg", pg, "--prio", prio, "--ti", ti}).status);
  ASSERT_TRUE(eventually([this] { return said({"attr", "get", "engine", "numPending"}) == "3"; }));
  EXPECT_THAT(said({"why", "1"}),
              HasSubstr("1 -> 2 -> 3 -> 1: a ring that nobody breaks: breakMixedRings is not set"));
  json const why = json::parse(said({"why", "1", "--json"}));
  EXPECT_EQ((json{1, 2, 3, 1}), why["chain"]);
  EXPECT_EQ(true, why["ring"]);
}

TEST_F(QuestionTest, WhySaysWhatTheHardwareRefuses) {
  start({"--size", "64", "--sim-refused", "1"});
  ASSERT_EQ(0, run({"put", "--key", "7", "--pg", "0", "--prio", "1", "--ti", "7"}).status);
  ASSERT_TRUE(eventually([this] { return !said({"attr", "get", "executor", "failed"}).empty(); }));
  EXPECT_THAT(said({"why", "7"}), StartsWith("key 7: the hardware refuses it: "));
}

TEST_F(QuestionTest, WhyKnowsWhatItDoesNotKnow) {
  start({"--size", "64"});
  ASSERT_EQ(0, run(putting(5)).status);
  Ended const unknown = run({"why", "6"});
  EXPECT_EQ(1, unknown.status);
  EXPECT_THAT(unknown.out, StartsWith("key 6: nobody wants it, and nobody has it\n"));
  end(SIGKILL);
  EXPECT_THAT(run({"why", "5", "--timeout", "1"}).out, HasSubstr("was true of the agent that wrote it"));
}

TEST_F(QuestionTest, ShowIsOneScreenOfHealth) {
  start({"--size", "4096"});
  ASSERT_EQ(0, run(loading(1, 300)).status);
  Ended const show = run({"show"});
  EXPECT_EQ(0, show.status) << show.out << show.err;
  EXPECT_THAT(show.out, StartsWith("health        healthy\nagent         serving, process "));
  EXPECT_THAT(show.out, HasSubstr("\nwanted        300 records in the table, with those that are to be "
                                  "deleted\nprogrammed    300 entries, 7.3 % of the "));
  EXPECT_LE(std::ranges::count(show.out, '\n'), 24);
  json const line = json::parse(said({"show", "--json"}));
  EXPECT_EQ(true, line["healthy"]);
  EXPECT_EQ(300, line["programmed"]);
}

TEST_F(QuestionTest, ShowExitsWithOneWhenUnhealthy) {
  expectRefused({"show", "--timeout", "1"}, "cannot reach the agent");
  start({"--size", "64", "--sim-refused", "1"});
  ASSERT_EQ(0, run({"put", "--key", "7", "--pg", "0", "--prio", "1", "--ti", "7"}).status);
  ASSERT_TRUE(eventually([this] { return !said({"attr", "get", "executor", "failed"}).empty(); }));
  Ended const show = run({"show"});
  EXPECT_EQ(1, show.status);
  EXPECT_THAT(show.out, StartsWith("health        NOT HEALTHY: 1 entry is refused by the hardware\n"));
  EXPECT_THAT(show.out, HasSubstr("\n  key 7 "));
}

TEST_F(QuestionTest, ShowNamesHardwareThatDoesNotAnswer) {
  start({"--size", "64", "--sim-dies-at", "1"});
  ASSERT_EQ(0, run({"put", "--key", "7", "--pg", "0", "--prio", "1", "--ti", "7"}).status);
  ASSERT_TRUE(eventually([this] { return said({"attr", "get", "executor", "behind"}) != "0"; }));
  Ended const show = run({"show"});
  EXPECT_EQ(1, show.status);
  EXPECT_THAT(show.out, HasSubstr("NOT HEALTHY: the hardware does not answer, "));
  end(SIGKILL);
}

TEST_F(QuestionTest, ShowCountsEachRefusedEntry) {
  start({"--size", "1024", "--sim-refused", "1"});
  ASSERT_NE(-1, run(loading(1, 300)).status);
  ASSERT_TRUE(eventually([this] {
    return run({"show"}).out.find("refused       300 by the hardware") != std::string::npos;
  })) << run({"show"}).out;
}

TEST_F(QuestionTest, WhatWaitsTooLongIsNamedOnce) {
  start({"--size", "64", "--warn-after", "1"});
  for (char const* key : {"1", "2"})
    ASSERT_EQ(0, run({"put", "--key", key, "--pg", "0", "--prio", "10", "--ti", "5"}).status);
  std::string const reason = "for position 5, held by key 1 with priority 10";
  ASSERT_TRUE(eventually([&] { return agent->err().find(reason) != std::string::npos; }, 20)) << agent->err();
  Ended const show = run({"show"});
  EXPECT_EQ(1, show.status);
  EXPECT_THAT(show.out, HasSubstr("1 entry waits too long\n"));
  EXPECT_THAT(show.out, HasSubstr("  key 2 waits too long " + reason));
  EXPECT_THAT(said({"metrics"}), HasSubstr("vantrel_entries{state=\"overdue\"} 1\n"));
  std::this_thread::sleep_for(std::chrono::seconds(3));
  std::string const log = agent->err();
  EXPECT_EQ(log.find(reason), log.rfind(reason)) << "named once: " << log;
  ASSERT_EQ(0, run({"put", "--key", "2", "--pg", "0", "--prio", "10", "--ti", "6", "--wait"}).status);
  EXPECT_TRUE(eventually([this] { return run({"show"}).status == 0; }, 20));
}

TEST_F(QuestionTest, MetricsCountWhatWasDone) {
  std::string const file = dir / "vantrel.prom";
  start({"--size", "4096", "--metrics", file, "--metrics-interval", "1"});
  ASSERT_EQ(0, run(loading(1, 300)).status);
  auto const expectCounted = [](std::string const& text) {
    for (char const* line :
         {"\nvantrel_entries{state=\"in_table\"} 300\n", "\nvantrel_entries{state=\"programmed\"} 300\n",
          "\nvantrel_operations_total{kind=\"add\"} 300\n", "\n# TYPE vantrel_operations counter\n",
          "\nvantrel_acknowledgement_seconds_bucket{le=\"+Inf\"} ", "\nvantrel_positions 4096\n"})
      EXPECT_THAT(text, HasSubstr(line));
    EXPECT_TRUE(text.ends_with("# EOF\n"));
  };
  std::string const text = said({"metrics"}) + "\n";
  expectCounted(text);
  EXPECT_THAT(text, Not(HasSubstr("acknowledgement_seconds_count 0\n")));
  ASSERT_TRUE(eventually([&] { return contents(file).find("\"in_table\"} 300") != std::string::npos; }));
  expectCounted(contents(file));
  EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(QuestionTest, AgentOutlivesAClosedTerminal) {
  start();
  agent->signal(SIGHUP);
  ASSERT_EQ(0, run(putting(5)).status);
  EXPECT_EQ(0, end(SIGTERM));
}

TEST_F(QuestionTest, StatusOfAnUnknownKeyFails) {
  start();
  ASSERT_EQ(0, run(putting(5)).status);
  EXPECT_EQ(0, run({"status", "5"}).status);
  EXPECT_EQ(1, run({"status", "6"}).status);
}

TEST_F(QuestionTest, DirectoryComesFromTheEnvironment) {
  start();
  ASSERT_EQ(0, setenv("VANTREL_DIR", tables().c_str(), 1));
  Process show({VANTREL_BIN_DIR "/vantrel", "show"}, dir / "out", dir / "err");
  unsetenv("VANTREL_DIR");
  show.wait();
  EXPECT_THAT(show.out(), HasSubstr("waiting, process ")) << show.err();
}

TEST_F(QuestionTest, ProgramsSayTheirVersion) {
  for (std::string const program : {"vantrel", "vantreld"}) {
    Process version({VANTREL_BIN_DIR "/" + program, "--version"}, dir / "out", dir / "err");
    EXPECT_EQ(0, version.wait());
    EXPECT_THAT(version.out(), testing::MatchesRegex(program + " [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  }
}

TEST_F(QuestionTest, WrongFlagsAreAnsweredInASentence) {
  for (auto const& [flag, value, answer] : std::vector<std::array<std::string, 3>>{
           {"--engine", "best", "--engine: expected fast or atcam, found \"best\"; see vantreld --help\n"},
           {"--size", "-1", "--size: expected a number above 0, found \"-1\"; see vantreld --help\n"},
           {"--sim-busy", "2",
            "--sim-busy: expected a share from 0 to 1, found \"2\"; see vantreld --help\n"}}) {
    Process program({VANTREL_BIN_DIR "/vantreld", "--dir", tables(), flag, value}, dir / "out", dir / "err");
    EXPECT_EQ(2, program.wait());
    EXPECT_EQ("vantreld: " + answer, program.err());
  }
}

namespace {

// A page's numbers, times and places are those of one run.
std::string shape(std::string const& line) {
  std::string const text = std::regex_replace(line, std::regex("[0-9]+([.][0-9]+)?"), "N");
  return std::regex_replace(text, std::regex("[^ ]*/Quarry|[\t ]+"), " ");
}

struct Step {
  std::string command;
  std::vector<std::string> answer;
};

std::vector<Step> sessionOf(std::string const& page) {
  std::istringstream in(contents(page));
  std::vector<Step> steps;
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("```"))
      inside = line == "```text";
    else if (inside && line.starts_with("$ "))
      steps.push_back({line.substr(2), {}});
    else if (inside && !steps.empty() && line != "[...]")
      steps.back().answer.push_back(shape(line));
  }
  return steps;
}

}  // namespace

TEST_F(QuestionTest, OperatorsPageIsAnsweredAsWritten) {
  start({"--size", "1024"});
  std::string const session =
      "cd " VANTREL_SOURCE_DIR " && export VANTREL_DIR=" + tables() + " PATH=" VANTREL_BIN_DIR ":$PATH; ";
  std::vector<Step> const steps = sessionOf(VANTREL_SOURCE_DIR "/docs/operator.md");
  ASSERT_GT(steps.size(), 8u);
  for (Step const& step : steps) {
    FILE* const pipe = ::popen((session + step.command + " 2>&1").c_str(), "r");
    std::string out;
    for (int c; (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    ::pclose(pipe);
    std::vector<std::string> said;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) said.push_back(shape(line));
    for (std::string const& line : step.answer)
      EXPECT_NE(said.end(), std::ranges::find(said, line)) << step.command << " says no line " << line << "\n"
                                                           << out;
  }
}

TEST_F(QuestionTest, JournalGetsThePriorityOfEachLine) {
  std::string const out = dir / "out", err = dir / "err";
  std::ofstream(out).flush();
  struct stat file {};
  ASSERT_EQ(0, stat(out.c_str(), &file));
  setenv("JOURNAL_STREAM", (std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino)).c_str(), 1);
  Process daemon({VANTREL_BIN_DIR "/vantreld", "--dir", tables()}, out, err);
  unsetenv("JOURNAL_STREAM");
  awaitReady(daemon);
  EXPECT_THAT(daemon.out(), StartsWith("<6>vantreld: ready in "));
}
