// SPDX-License-Identifier: Apache-2.0
// The command `vantrel replay` as its users run it.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

struct Result {
  int status;
  std::string out;
  std::string err;
};

std::string slurp(std::filesystem::path const& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class Replay : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = std::filesystem::temp_directory_path() / ("replay-" + std::to_string(getpid()));
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  Result run(std::string const& arguments, std::string const& input = "") {
    std::ofstream(directory_ / "input") << input;
    std::string const command = "cd " + directory_.string() + " && " + VANTREL_BIN_DIR + "/vantrel replay " +
                                arguments + " <input >out 2>err";
    int const status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(directory_ / "out"),
            slurp(directory_ / "err")};
  }

  std::filesystem::path directory_;
};

TEST_F(Replay, anEmptyScenarioShowsTheStartAlone) {
  Result const r = run("-");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "{\"event\":\"flush\"}\n");
}

TEST_F(Replay, eachStepIsFollowedByWhatItCaused) {
  Result const r =
      run("-",
          "{\"engine\":\"fast\"}\n"
          "{\"do\":\"put\",\"key\":7,\"opId\":65537,\"hdl\":7,\"prio\":10,\"ti\":[4],\"data\":[1,2]}\n"
          "{\"do\":\"debug\",\"version\":5}\n"
          "{\"do\":\"remove\",\"key\":7,\"quiet\":true}\n"
          "{\"do\":\"walk\"}\n"
          "{\"do\":\"remove\",\"key\":8}\n"
          "{\"do\":\"show\"}\n"
          "{\"do\":\"cleanup\"}");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(
      r.out,
      "{\"event\":\"flush\"}\n"
      "{\"event\":\"input\",\"line\":2}\n"
      "{\"event\":\"add\",\"key\":7,\"opId\":65537,\"hdl\":7,\"pg\":0,\"prio\":10,\"ti\":[4],\"data\":[1,2]}"
      "\n"
      "{\"event\":\"input\",\"line\":3}\n"
      "{\"event\":\"snapshot\",\"version\":5,\"pending\":{},\"pendingOpId\":{},\"status\":{\"4\":7},"
      "\"statusOpId\":{\"7\":65537}}\n"
      "{\"event\":\"input\",\"line\":4}\n"
      "{\"event\":\"input\",\"line\":5}\n"
      "{\"event\":\"flush\"}\n"
      "{\"event\":\"input\",\"line\":6}\n"
      "{\"event\":\"statusDel\",\"key\":8}\n"
      "{\"event\":\"input\",\"line\":7}\n"
      "{\"event\":\"show\",\"tableCounter\":1,\"flushCounter\":1,\"initialFlushed\":true,"
      "\"retryTimerSet\":false,\"failedKey\":[],\"failedDepCnt\":0,\"numPending\":0,\"numDeadlock\":0}\n"
      "{\"event\":\"input\",\"line\":8}\n"
      "{\"event\":\"delete\",\"key\":7,\"opId\":65537,\"hdl\":7,\"pg\":0,\"prio\":10,\"ti\":[4],\"data\":[]}"
      "\n"
      "{\"event\":\"statusDel\",\"key\":7}\n"
      "{\"event\":\"flush\"}\n");
}

TEST_F(Replay, traceRecordsFollowTheOtherLinesOfAStep) {
  Result const r = run("--trace -", "{\"do\":\"put\",\"key\":7,\"opId\":1,\"hdl\":9,\"ti\":[4]}\n");
  EXPECT_EQ(r.out,
            "{\"event\":\"flush\"}\n"
            "{\"event\":\"input\",\"line\":1}\n"
            "{\"event\":\"add\",\"key\":7,\"opId\":1,\"hdl\":9,\"pg\":0,\"prio\":0,\"ti\":[4],\"data\":[]}\n"
            "{\"event\":\"trace\",\"msg\":\"notify on key:\",\"args\":[1,7]}\n"
            "{\"event\":\"trace\",\"msg\":\"handling key:\",\"args\":[1,7,9,1]}\n"
            "{\"event\":\"trace\",\"msg\":\"new entry key:\",\"args\":[1,7,9,1,0]}\n"
            "{\"event\":\"trace\",\"msg\":\"not conflicting key:\",\"args\":[1,7,9,0,1]}\n"
            "{\"event\":\"trace\",\"msg\":\"add key:\",\"args\":[1,7,9]}\n");
}

TEST_F(Replay, leavesNoFileBehind) {
  run("--trace -", "{\"do\":\"walk\"}\n");
  std::size_t files = 0;
  for (auto const& entry : std::filesystem::directory_iterator(directory_)) files += entry.is_regular_file();
  EXPECT_EQ(files, 3U);  // input, out and err are the test's own
}

TEST_F(Replay, failuresAreRetriedWhenTheClockGetsThere) {
  Result const r = run("-",
                       "{\"do\":\"fail\",\"key\":7,\"times\":-1}\n"
                       "{\"do\":\"put\",\"key\":7,\"opId\":1,\"ti\":[4]}\n"
                       "{\"do\":\"fail\",\"key\":7,\"times\":0}\n"
                       "{\"do\":\"advance\",\"seconds\":9.5}\n"
                       "{\"do\":\"advance\",\"seconds\":0.5}\n"
                       "{\"do\":\"show\"}\n");
  EXPECT_THAT(
      r.out,
      HasSubstr("{\"event\":\"input\",\"line\":4}\n{\"event\":\"input\",\"line\":5}\n{\"event\":\"add\""));
  EXPECT_THAT(r.out, HasSubstr("\"failedDepCnt\":1"));
}

TEST_F(Replay, anAttributeIsSetByItsName) {
  Result const r = run("-",
                       "{\"do\":\"set\",\"attr\":\"retryDepsMaxCnt\",\"value\":2}\n"
                       "{\"do\":\"set\",\"attr\":\"retryPeriod\",\"value\":2.5}\n"
                       "{\"do\":\"set\",\"attr\":\"retryPeriod\",\"value\":3,\"on\":\"sm\"}\n"
                       "{\"do\":\"set\",\"attr\":\"deadlockCount\",\"value\":4}\n"
                       "{\"do\":\"show\"}\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("\"numDeadlock\":4"));
}

TEST_F(Replay, anAttributeThatBothHaveIsSetWhereTheStepSays) {
  Result const r = run("-",
                       "{\"do\":\"set\",\"attr\":\"initialized\",\"value\":false,\"on\":\"sm\"}\n"
                       "{\"do\":\"put\",\"key\":1,\"opId\":1,\"ti\":[1]}\n"
                       "{\"do\":\"set\",\"attr\":\"initialized\",\"value\":true,\"on\":\"sm\"}\n"
                       "{\"do\":\"set\",\"attr\":\"initialized\",\"value\":false,\"on\":\"engine\"}\n"
                       "{\"do\":\"walk\"}\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, EndsWith("{\"event\":\"input\",\"line\":4}\n"
                              "{\"event\":\"input\",\"line\":5}\n{\"event\":\"flush\"}\n"));
  EXPECT_THAT(r.out, Not(HasSubstr("add")));
}

TEST_F(Replay, cleansTheAlgorithmicEngineUpByItsOwnMapping) {
  Result const r = run("-",
                       "{\"engine\":\"atcam\",\"maxPartitions\":4}\n"
                       "{\"do\":\"put\",\"key\":1,\"opId\":1,\"pg\":1,\"ti\":[4001]}\n"
                       "{\"do\":\"cleanup\"}\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(
      r.out,
      EndsWith("{\"event\":\"delete\",\"key\":1,\"opId\":1,\"hdl\":0,\"pg\":0,\"prio\":0,\"ti\":[4001],"
               "\"data\":[]}\n{\"event\":\"statusDel\",\"key\":1}\n{\"event\":\"flush\"}\n"));
}

struct Bad {
  char const* line;
  char const* expected;
};

class ReplayRefuses : public Replay, public ::testing::WithParamInterface<Bad> {};

TEST_P(ReplayRefuses, withFileAndLineAndRunsNothingAfterIt) {
  std::ofstream(directory_ / "bad.jsonl") << "{\"do\":\"walk\"}\n"
                                          << GetParam().line << "\n{\"do\":\"walk\"}\n";
  Result const r = run("bad.jsonl");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "{\"event\":\"flush\"}\n{\"event\":\"input\",\"line\":1}\n{\"event\":\"flush\"}\n");
  EXPECT_THAT(r.err, StartsWith("vantrel: bad.jsonl:2: expected "));
  EXPECT_THAT(r.err, HasSubstr(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Each, ReplayRefuses,
    ::testing::Values(
        Bad{"{\"do\":\"jump\"}", "\"do\" one of"}, Bad{"nonsense", "one JSON object"},
        Bad{"", "one JSON object"}, Bad{"{\"engine\":\"fast\"}", "on the first line only"},
        Bad{"{\"do\":\"set\",\"attr\":\"nothing\",\"value\":1}", "a scalar attribute of engine or sm"},
        Bad{"{\"do\":\"set\",\"attr\":\"handleToKey\",\"value\":1}", "a scalar attribute"},
        Bad{"{\"do\":\"set\",\"attr\":\"lgId\",\"value\":1}", "that can be written"},
        Bad{"{\"do\":\"set\",\"attr\":\"retryPeriod\",\"value\":1,\"on\":\"engine\"}", "of engine"},
        Bad{"{\"do\":\"set\",\"attr\":\"initialized\",\"value\":true}", "\"on\" \"engine\" or \"sm\""},
        Bad{"{\"do\":\"set\",\"attr\":\"dirty\",\"value\":1}", "of type bool"}));

// The indented lines that follow `heading` in a page, block by block.
std::vector<std::string> blocksOf(std::string const& page, std::string const& heading) {
  std::istringstream lines(page.substr(page.find(heading)));
  std::vector<std::string> blocks;
  bool inside = false;
  for (std::string line; std::getline(lines, line); inside = line.starts_with("    ")) {
    if (!line.starts_with("    ")) continue;
    if (!inside) blocks.emplace_back();
    blocks.back() += line.substr(4) + "\n";
  }
  return blocks;
}

TEST_F(Replay, theExampleOfTheFormatsPageIsWhatItPrints) {
  std::string const page = slurp(VANTREL_SOURCE_DIR "/docs/formats/scenario.md");
  std::vector<std::string> const blocks = blocksOf(page, "## A worked example");
  ASSERT_EQ(blocks.size(), 2U);
  EXPECT_EQ(run("-", blocks[0]).out, blocks[1]);
}

TEST_F(Replay, nothingMayFollowACleanup) {
  Result const r = run("-", "{\"do\":\"cleanup\"}\n{\"do\":\"show\"}\n");
  EXPECT_EQ(r.status, 2);
  EXPECT_THAT(r.err, HasSubstr("standard input:2: expected nothing after \"cleanup\""));
}

TEST_F(Replay, aFileThatCannotBeReadIsNamed) {
  Result const r = run("missing.jsonl");
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("\"missing.jsonl\""));
  EXPECT_EQ(run(".").status, 1);
}

TEST_F(Replay, flushesOutputBeforeAnAssertionEndsTheProcess) {
  Result const r = run("-",
                       "{\"do\":\"put\",\"key\":1,\"opId\":1,\"ti\":[1]}\n"
                       "{\"do\":\"put\",\"key\":2,\"opId\":1}\n"
                       "{\"do\":\"show\"}\n");
  EXPECT_NE(r.status, 0);
  // Key 2 takes the handle of key 1, which is deleted before the record without a position is looked at.
  EXPECT_THAT(r.out, HasSubstr("{\"event\":\"input\",\"line\":2}\n{\"event\":\"delete\",\"key\":1,"));
  EXPECT_THAT(r.out, Not(HasSubstr("\"line\":3")));
  EXPECT_THAT(r.err, HasSubstr("entry.tableIndexs() == 1"));
}

}  // namespace
