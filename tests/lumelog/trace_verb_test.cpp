// SPDX-License-Identifier: Apache-2.0
// The command as an operator runs it, on files of this process.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/lumelog/logs.h"
#include "tests/lumelog/temp_dir.h"

namespace Lumelog {
namespace {

using namespace Test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

std::vector<std::string> linesOf(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What stands behind the closing bracket of the identifier.
std::vector<std::string> messagesOf(std::vector<std::string> const& lines) {
  std::vector<std::string> result;
  for (std::string const& line : lines) result.push_back(line.substr(line.rfind("] ") + 2));
  return result;
}

class Verb : public testing::Test {
 protected:
  Verb() : log_(make("a.lg")) {}

  LogPtr make(std::string const& name) { return Lumelog::Test::make(dir_ / name); }
  void recordKeys(Log* log, U64 first, U64 last) {
    for (U64 key = first; key - first <= last - first; ++key) {
      LUMELOG_RECORD(log, 9, 7u, "handling key:", key, " hdl:", 100u);
      if (key == last) break;
    }
  }
  // Lines on stdout; status_ and err_ are set.
  std::vector<std::string> run(std::string const& arguments) {
    std::string const command =
        fmt::format("cd {} && {}/vantrel trace {} >out 2>err", dir_.path(), VANTREL_BIN_DIR, arguments);
    status_ = WEXITSTATUS(std::system(command.c_str()));
    err_ = readFile(dir_ / "err");
    return linesOf(readFile(dir_ / "out"));
  }

  // What another reader shows of the trace that is written of a.lg.
  std::vector<std::string> readBack() {
    run("a.lg --ctf ctf");
    EXPECT_EQ(status_, 0) << err_;
    EXPECT_EQ(std::system("command -v babeltrace2 >/dev/null"), 0) << "babeltrace2 is not installed";
    EXPECT_EQ(std::system(fmt::format("babeltrace2 {0}/ctf >{0}/read 2>{0}/err", dir_.path()).c_str()), 0)
        << readFile(dir_ / "err");
    return linesOf(readFile(dir_ / "read"));
  }

  TempDir dir_;
  LogPtr log_;
  int status_ = -1;
  std::string err_;
};

TEST_F(Verb, ShowsTimeLevelSourceAndMessage) {
  recordKeys(log_.get(), 5, 5);
  std::vector<std::string> const lines = run("a.lg");
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_THAT(lines[0],
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{9}Z 9 "
                           "tests/lumelog/trace_verb_test.cpp:[0-9]+ \\[7\\] handling key:5 hdl:100"));
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
}

TEST_F(Verb, MergesFilesAndLevelsByTime) {
  LogPtr const other = make("b.lg");
  recordKeys(log_.get(), 1, 1);
  usleep(2000);
  LUMELOG_RECORD(other.get(), 2, 8u, "rare");
  usleep(2000);
  recordKeys(log_.get(), 2, 2);
  std::vector<std::string> const lines = run("a.lg b.lg");
  EXPECT_THAT(messagesOf(lines), ElementsAre("handling key:1 hdl:100", "rare", "handling key:2 hdl:100"));
  EXPECT_THAT(lines[1], HasSubstr(fmt::format("[{}] [8] rare", getpid())));
}

TEST_F(Verb, ChoosesByKeyLevelAndText) {
  recordKeys(log_.get(), 1, 20);
  LUMELOG_RECORD(log_.get(), 3, 7u, "doCleanup");
  EXPECT_THAT(messagesOf(run("a.lg --key 3 --key 0x10")),
              ElementsAre("handling key:3 hdl:100", "handling key:16 hdl:100"));
  EXPECT_THAT(run("a.lg --key 100"), IsEmpty());
  EXPECT_THAT(messagesOf(run("a.lg --level 3")), ElementsAre("doCleanup"));
  EXPECT_THAT(messagesOf(run("a.lg --level 0-8")), ElementsAre("doCleanup"));
  EXPECT_THAT(run("a.lg --level 4-9"), SizeIs(20));
  EXPECT_THAT(messagesOf(run("a.lg --match 'key:1[78]|Clean'")),
              ElementsAre("handling key:17 hdl:100", "handling key:18 hdl:100", "doCleanup"));
}

TEST_F(Verb, ShowsSinceATimeOrASpanBeforeTheEnd) {
  recordKeys(log_.get(), 1, 1);
  usleep(300000);
  recordKeys(log_.get(), 2, 3);
  EXPECT_THAT(messagesOf(run("a.lg --since 100ms")),
              ElementsAre("handling key:2 hdl:100", "handling key:3 hdl:100"));
  EXPECT_THAT(run("a.lg --since 1h"), SizeIs(3));
  std::string const time = run("a.lg")[1].substr(0, 30);
  EXPECT_THAT(messagesOf(run("a.lg --since " + time)),
              ElementsAre("handling key:2 hdl:100", "handling key:3 hdl:100"));
  EXPECT_THAT(run("a.lg --since 2001-01-01"), SizeIs(3));
}

TEST_F(Verb, WritesJsonWithExactNumbers) {
  recordKeys(log_.get(), ~U64{0}, ~U64{0});
  std::string const text = "a\"b\n";
  LUMELOG_RECORD(log_.get(), 1, 7u, "text:", text);
  std::vector<std::string> const lines = run("a.lg --json");
  ASSERT_THAT(lines, SizeIs(2));
  nlohmann::json const first = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(first["values"][0].get<U64>(), ~U64{0});
  EXPECT_EQ(first["text"], "handling key:%q hdl:%i");
  EXPECT_EQ(first["id"], 7);
  EXPECT_EQ(first["level"], 9);
  EXPECT_EQ(first["process"], getpid());
  EXPECT_EQ(nlohmann::json::parse(lines[1])["message"], "text:" + text);
}

TEST_F(Verb, CountsRecordsAndBytesASite) {
  recordKeys(log_.get(), 1, 5000);
  LUMELOG_RECORD(log_.get(), 1, 7u, "rare");
  std::vector<nlohmann::json> rings, sites;
  for (std::string const& line : run("a.lg --stats --json")) {
    nlohmann::json const object = nlohmann::json::parse(line);
    (object.contains("text") ? sites : rings).push_back(object);
  }
  ASSERT_THAT(rings, SizeIs(2));
  EXPECT_EQ(rings[0]["wrapped"], 0);
  EXPECT_EQ(rings[1]["level"], 9);
  // 5000 records of 32 bytes, 127 a block, four blocks a ring.
  EXPECT_EQ(rings[1]["wrapped"], ((5000 + 126) / 127 - 1) / 4);
  ASSERT_THAT(sites, SizeIs(2));
  EXPECT_EQ(sites[0]["bytes"].get<U64>(), 32 * sites[0]["records"].get<U64>());
  EXPECT_EQ(sites[0]["records"].get<U64>(), run("a.lg --level 9").size());
  EXPECT_EQ(sites[1]["text"], "rare");
  EXPECT_THAT(readFile(dir_ / "out"), HasSubstr("handling"));
  run("a.lg --stats");
  EXPECT_THAT(readFile(dir_ / "out"), HasSubstr("handling key:%q hdl:%i"));
}

// The writer starts after the reader, records, pauses, records and is killed.
TEST_F(Verb, FollowsALiveProcessToItsEnd) {
  pid_t const child = fork();
  if (child == 0) {
    LogPtr log = make("live.lg");
    for (U64 key = 1; key <= 3; ++key) {
      recordKeys(log.get(), key, key);
      usleep(200000);
    }
    raise(SIGKILL);
  }
  while (access((dir_ / "live.lg").c_str(), F_OK) != 0) usleep(1000);
  EXPECT_THAT(messagesOf(run("live.lg --follow")),
              ElementsAre("handling key:1 hdl:100", "handling key:2 hdl:100", "handling key:3 hdl:100"));
  waitpid(child, nullptr, 0);
}

// As logrotate does with copytruncate, twice: the copies and the file have all records between them.
TEST_F(Verb, ReadsAFileThatWasCopiedAndTruncated) {
  for (U64 i = 0; i < 3; ++i) {
    recordKeys(log_.get(), 10 * i, 10 * i + 5);
    std::filesystem::copy_file(dir_ / "a.lg", dir_ / fmt::format("copy{}", i));
    std::filesystem::resize_file(dir_ / "a.lg", 0);
  }
  recordKeys(log_.get(), 30, 30);
  std::vector<std::string> expected;
  for (U64 i = 0; i < 3; ++i)
    for (U64 key = 10 * i; key <= 10 * i + 5; ++key)
      expected.push_back(fmt::format("handling key:{} hdl:100", key));
  expected.push_back("handling key:30 hdl:100");
  EXPECT_EQ(messagesOf(run("a.lg copy0 copy1 copy2")), expected);
  EXPECT_EQ(err_, "");
}

TEST_F(Verb, FollowsAFileThatIsTruncated) {
  pid_t const child = fork();
  if (child == 0) {
    LogPtr log = make("live.lg");
    for (U64 key = 1; key <= 4; ++key) {
      recordKeys(log.get(), key, key);
      usleep(200000);
      if (key < 4) truncate((dir_ / "live.lg").c_str(), key == 2 ? 270000 : 0);
    }
    raise(SIGKILL);
  }
  while (access((dir_ / "live.lg").c_str(), F_OK) != 0) usleep(1000);
  EXPECT_THAT(messagesOf(run("live.lg --follow")),
              ElementsAre("handling key:1 hdl:100", "handling key:2 hdl:100", "handling key:3 hdl:100",
                          "handling key:4 hdl:100"));
  EXPECT_THAT(err_, HasSubstr("truncations; what was not read until then is lost"));
  waitpid(child, nullptr, 0);
}

TEST_F(Verb, WritesATraceThatOthersRead) {
  recordKeys(log_.get(), ~U64{0} - 1, ~U64{0});
  std::string const text = "with \"quotes\"";
  LUMELOG_RECORD(log_.get(), 1, 7u, "said \"", text, "\" key:", U64{3}, " blocked by key:", U64{4},
                 " prio:", 5u, " prio:", 6u);
  std::vector<std::string> const lines = readBack();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_THAT(lines[0], HasSubstr(fmt::format("process = {}, id = 7, key = 18446744073709551614, hdl = 100",
                                              getpid())));
  EXPECT_THAT(lines[0], HasSubstr("handling key:%q hdl:%i"));
  EXPECT_THAT(lines[1], HasSubstr("key = 18446744073709551615"));
  EXPECT_THAT(lines[2],
              HasSubstr("said = \"with \\\"quotes\\\"\", key = 3, blocked_by_key = 4, prio = 5, prio_2 = 6"));
  // babeltrace2 shows local time; the fraction of the second is the same everywhere.
  std::string const time = run("a.lg")[0].substr(19, 10);
  EXPECT_THAT(lines[0], HasSubstr(time));
  run("a.lg --ctf ctf");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, "vantrel: ctf is not empty, expected a new directory for the CTF trace\n");
}

// Words of the language in which a CTF trace describes itself; what reads one takes them for no names.
TEST_F(Verb, WritesATraceThatOthersReadWhateverALabelSays) {
  U64 n = 0;
#define RECORD_LABEL(word) LUMELOG_RECORD(log_.get(), 9, 7u, "a " word ":", ++n)
  RECORD_LABEL("align");
  RECORD_LABEL("callsite");
  RECORD_LABEL("char");
  RECORD_LABEL("clock");
  RECORD_LABEL("const");
  RECORD_LABEL("double");
  RECORD_LABEL("enum");
  RECORD_LABEL("env");
  RECORD_LABEL("event");
  RECORD_LABEL("float");
  RECORD_LABEL("floating_point");
  RECORD_LABEL("int");
  RECORD_LABEL("integer");
  RECORD_LABEL("long");
  RECORD_LABEL("short");
  RECORD_LABEL("signed");
  RECORD_LABEL("stream");
  RECORD_LABEL("string");
  RECORD_LABEL("struct");
  RECORD_LABEL("trace");
  RECORD_LABEL("typealias");
  RECORD_LABEL("typedef");
  RECORD_LABEL("unsigned");
  RECORD_LABEL("variant");
  RECORD_LABEL("void");
  RECORD_LABEL("_Bool");
  RECORD_LABEL("_Complex");
  RECORD_LABEL("_Imaginary");
#undef RECORD_LABEL
  std::vector<std::string> const lines = readBack();
  ASSERT_THAT(lines, SizeIs(n));
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_THAT(lines[i], HasSubstr(fmt::format(" = {} }}", i + 1)));
}

TEST_F(Verb, ShowsTheRestWhenAFileIsWrong) {
  recordKeys(log_.get(), 1, 1);
  writeFile(dir_ / "not.lg", "hello");
  EXPECT_THAT(run("not.lg absent.lg a.lg"), SizeIs(1));
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "vantrel: not.lg is not a trace file: it has 5 bytes, a header 4096\n"
            "vantrel: cannot open absent.lg: No such file or directory\n");
}

TEST_F(Verb, SaysWhatIsDamaged) {
  recordKeys(log_.get(), 1, 3);
  std::string bytes = readFile(dir_ / "a.lg");
  writeFile(dir_ / "b.lg", bytes.substr(0, bytes.size() - 1000));
  EXPECT_THAT(run("b.lg"), SizeIs(3));
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "vantrel: b.lg: 1000 bytes are missing at the end\n");
}

TEST_F(Verb, RefusesWrongFlags) {
  for (std::string const flags : {"--level 12", "--level 5-2", "--since yesterday", "--since 2026-02-31",
                                  "--match '['", "--key x", ""}) {
    run(flags + (flags.empty() ? "" : " a.lg"));
    EXPECT_EQ(status_, 2) << flags;
    EXPECT_NE(err_ + readFile(dir_ / "out"), "") << flags;
  }
}

}  // namespace
}  // namespace Lumelog
