// SPDX-License-Identifier: Apache-2.0
// The table verbs on real files, good and bad: what they say, where, and how they end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "shoal/reader_table.h"
#include "shoal/table_writer.h"
#include "shoal/writer_table.h"
#include "tests/support/process.h"
#include "vantrel/core/tables.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using TestSupport::contents;
using TestSupport::Process;
using TestSupport::TempDir;
using Vantrel::DataKey;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;
using Vantrel::TableKey;
using Configs = Shoal::WriterTable<EntryConfig>;

EntryConfig record(U64 key) {
  EntryConfig r(EntryKey{key}, OpId{key << 16}, static_cast<U32>(key), static_cast<U16>(key % 5), 1000);
  for (unsigned i = 0; i <= key % 17; ++i) r.tableIndexIs(TableKey(i), static_cast<U32>(key + i));
  for (unsigned i = 0; i < key % 65; ++i) r.dataIs(DataKey(i), ~key - i);
  r.isDelIs(key % 7 == 0);
  return r;
}

struct Ended {
  int status;
  std::string out;
  std::string err;
  json object() const { return json::parse(out); }
};

class TableVerbs : public testing::Test {
 protected:
  Ended run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "table");
    return command(std::move(arguments));
  }
  Ended command(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VANTREL_BIN_DIR "/vantrel");
    Process process(arguments, dir / "out", dir / "err");
    int const status = process.wait();
    return {status, process.out(), process.err()};
  }
  std::string filled(std::string const& name, U64 records) {
    Configs table(dir / name);
    for (U64 key = 1; key <= records; ++key) table.entryIs(record(key));
    return dir / name;
  }
  std::string file(std::string const& name, std::string const& text) {
    std::ofstream(dir / name, std::ios::binary) << text;
    return dir / name;
  }
  // The file with one byte of the first copy of `key`'s record changed.
  void damage(std::string const& path, U64 key) {
    std::string bytes = contents(path);
    U64 const opId = key << 16;
    std::string const image(reinterpret_cast<char const*>(&key), sizeof key);
    std::size_t const at = bytes.find(image + std::string(reinterpret_cast<char const*>(&opId), sizeof opId));
    ASSERT_NE(at, std::string::npos);
    bytes[at + 24] ^= 1;  // its prio
    std::ofstream(path, std::ios::binary) << bytes;
  }
  // What must be so of every error: status 1, one sentence on the standard error that names the file, nothing
  // else.
  void expectRefused(Ended const& ended, std::string const& path, std::string const& why) {
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.out, IsEmpty());
    EXPECT_THAT(ended.err, AllOf(StartsWith("vantrel: "), HasSubstr(path), HasSubstr(why)));
    EXPECT_EQ(std::ranges::count(ended.err, '\n'), 1);
  }

  TempDir dir;
};

TEST_F(TableVerbs, InfoSaysWhatTheHeaderHolds) {
  std::string const path = filled("t", 300);
  Ended const text = run({"info", path});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.out,
              AllOf(HasSubstr("recordType        EntryConfig\n"), HasSubstr("records           300\n"),
                    HasSubstr("changes           300\n"), HasSubstr("slotBytes         640\n")));
  json const info = run({"info", path, "--json"}).object();
  EXPECT_EQ(info["records"], 300);
  EXPECT_EQ(info["imageBytes"], 616);
  EXPECT_EQ(info["bytes"], std::filesystem::file_size(path));
  EXPECT_GE(info["buckets"].get<U64>() * 3, 300U);
}

TEST_F(TableVerbs, AnIntactFilePassesTheCheck) {
  std::string const path = filled("t", 300);
  Ended const text = run({"check", path});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.err, IsEmpty());
  EXPECT_THAT(text.out, HasSubstr("damaged           0\n"));
  EXPECT_EQ(run({"check", path, "--json"}).object(), (json{{"file", path},
                                                           {"records", 300},
                                                           {"damaged", 0},
                                                           {"halfDone", 0},
                                                           {"damage", json::array()},
                                                           {"unfinished", json::array()}}));
}

TEST_F(TableVerbs, DamagedRecordFailsCheckAndIsNotDumped) {
  std::string const path = filled("t", 300);
  damage(path, 123);
  Ended const text = run({"check", path});
  EXPECT_EQ(text.status, 1);
  EXPECT_THAT(text.out, AllOf(StartsWith("damaged: bucket "), HasSubstr("is damaged\n"),
                              HasSubstr("damaged           1\n")));
  Ended const object = run({"check", path, "--json"});
  EXPECT_EQ(object.status, 1);
  EXPECT_EQ(object.object()["damaged"], 1);
  EXPECT_EQ(object.object()["damage"].size(), 1U);
  EXPECT_EQ(object.object()["records"], 299);

  Ended const dump = run({"dump", path});
  EXPECT_EQ(dump.status, 1);
  EXPECT_THAT(dump.err, AllOf(StartsWith("vantrel: "), HasSubstr("the record of key 123 is damaged")));
  EXPECT_EQ(std::ranges::count(dump.out, '\n'), 299);
  EXPECT_THAT(dump.out, testing::Not(HasSubstr("\"key\":123,")));
}

TEST_F(TableVerbs, ListingNamesDamageAndShowsTheRest) {
  damage(filled("config.shoal", 300), 123);
  for (char const* const what : {"config", "positions"}) {
    Ended const ended = command({"ls", what, "--dir", dir.path(), "--json"});
    EXPECT_EQ(ended.status, 1) << what;
    EXPECT_THAT(ended.out, AllOf(HasSubstr("\"key\":122,"), HasSubstr("\"key\":124,"))) << what;
    EXPECT_THAT(ended.out, testing::Not(HasSubstr("\"key\":123,"))) << what;
    EXPECT_THAT(
        ended.err,
        AllOf(HasSubstr("config.shoal: the record of key 123 is damaged, its checksum does not agree\n"),
              HasSubstr("what is damaged is not listed\n")));
  }
}

// Whole by its checksum, and yet no record of its type.
TEST_F(TableVerbs, ARecordThatMakesNoSenseFailsTheCheck) {
  using Traits = Shoal::RecordTraits<EntryConfig>;
  std::string const path = dir / "t";
  {
    Shoal::TableWriter writer(path, Shoal::shapeOf<EntryConfig>(), {});
    std::array<U64, Traits::bytes / 8> image{};
    auto* const bytes = reinterpret_cast<std::byte*>(image.data());
    auto const extent = Traits::encode(EntryConfig(EntryKey(6), OpId(1), 1, 1, 1), bytes);
    writer.put(6, image.data(), extent);
    U32 const tooMany = 65;
    std::memcpy(bytes + 100, &tooMany, sizeof tooMany);
    image[0] = 7;
    writer.put(7, image.data(), extent);
  }
  Ended const object = run({"check", path, "--json"});
  EXPECT_EQ(object.status, 1);
  auto const damage = object.object()["damage"].get<std::vector<std::string>>();
  EXPECT_THAT(damage, ElementsAre(AllOf(StartsWith("the record of key 7: "), HasSubstr("65"))));
}

TEST_F(TableVerbs, ARecordOfZeroesIsDumpedToo) {
  std::string const path = dir / "t";
  { Shoal::WriterTable<EntryConfig>(path).entryIs(EntryConfig()); }
  EXPECT_THAT(run({"dump", path}).out, StartsWith("{\"key\":0,\"opId\":0,"));
}

TEST_F(TableVerbs, WhatIsNoTableIsRefusedByEveryVerb) {
  std::string const whole = contents(filled("t", 300));
  std::string const cut = file("cut", whole.substr(0, whole.size() - 300000));
  std::string const text = file("text", "ten lines of text\n");
  std::string const empty = file("empty", "");
  for (std::string const verb : {"info", "check", "dump"}) {
    expectRefused(run({verb, cut}), cut, "is cut short");
    expectRefused(run({verb, text}), text, "is not a table file");
    expectRefused(run({verb, empty}), empty, "is empty, expected a table");
    expectRefused(run({verb, dir / "none"}), dir / "none", "there is no such file, expected a table");
    EXPECT_EQ(run({verb}).status, 2);  // no FILE
  }
  std::string const lines = file("lines", "");
  expectRefused(run({"load", text, "--from", lines}), text, "is not a table file");
}

TEST_F(TableVerbs, AStatusTableIsShownButNotLoaded) {
  std::string const path = dir / "status";
  {
    Shoal::WriterTable<EntryStatus> table(path);
    table.entryIs(EntryStatus(EntryKey(5), OpId::deleteAcknowledge()));
  }
  EXPECT_EQ(run({"info", path, "--json"}).object()["recordType"], "EntryStatus");
  EXPECT_EQ(run({"dump", path}).out, "{\"key\":5,\"opId\":18446744073709486080}\n");
  expectRefused(run({"load", path, "--from", file("lines", "")}), path,
                "holds EntryStatus records of version 1, expected EntryConfig of version 1");
}

TEST_F(TableVerbs, ATableOfUnknownRecordsIsCheckedButNotDumped) {
  std::string const path = dir / "other";
  { Shoal::TableWriter const writer(path, {"Parcel", 3, 104, 13}, {}); }
  EXPECT_EQ(run({"check", path}).status, 0);
  expectRefused(run({"dump", path}), path, "holds Parcel records, which cannot be shown as text");
}

TEST_F(TableVerbs, ADumpLoadsToTheSameTable) {
  std::string const path = filled("t", 300);
  Ended const dump = run({"dump", path});
  EXPECT_EQ(dump.status, 0);
  Ended const load = run({"load", dir / "copy", "--from", file("lines", dump.out), "--json"});
  EXPECT_EQ(load.status, 0) << load.err;
  EXPECT_EQ(load.object(), (json{{"file", dir / "copy"}, {"written", 300}, {"records", 300}}));
  Shoal::ReaderTable<EntryConfig> const copy(dir / "copy");
  for (U64 key = 1; key <= 300; ++key) ASSERT_EQ(copy.entry(EntryKey(key)), record(key)) << key;
  EXPECT_EQ(run({"check", dir / "copy"}).status, 0);
}

// Long enough to be written in pieces, and short enough not to be.
TEST_F(TableVerbs, ADumpThatCouldNotBeWrittenSaysSo) {
  for (U64 const records : {1, 300}) {
    std::string const path = filled("t" + std::to_string(records), records);
    Process process({VANTREL_BIN_DIR "/vantrel", "table", "dump", path}, "/dev/full", dir / "err");
    EXPECT_EQ(process.wait(), 1) << records;
    EXPECT_THAT(process.err(), AllOf(StartsWith("vantrel: "), HasSubstr("No space left on device")));
    EXPECT_EQ(std::ranges::count(process.err(), '\n'), 1) << process.err();
  }
}

TEST_F(TableVerbs, LoadReadsStdinAndReplacesWhatIsThere) {
  std::string const path = filled("t", 10);
  file("lines", "{\"key\":3,\"opId\":9,\"hdl\":1,\"pg\":2,\"prio\":3}\n\n");
  Process shell({"/bin/sh", "-c", VANTREL_BIN_DIR "/vantrel table load " + path + " <" + (dir / "lines")},
                dir / "out", dir / "err");
  EXPECT_EQ(shell.wait(), 0) << shell.err();
  EXPECT_THAT(shell.out(), AllOf(HasSubstr("written           1\n"), HasSubstr("records           10\n")));
  Shoal::ReaderTable<EntryConfig> const table(path);
  EXPECT_EQ(table.entry(EntryKey(3)), EntryConfig(EntryKey(3), OpId(9), 1, 2, 3));
  EXPECT_EQ(table.entry(EntryKey(4)), record(4));
}

TEST_F(TableVerbs, ALineThatIsNoRecordLoadsNothing) {
  std::string const good = "{\"key\":1,\"opId\":1,\"hdl\":1,\"pg\":1,\"prio\":1}\n";
  struct Case {
    std::string line;
    std::string why;
  };
  for (auto const& [line, why] : {Case{"{", "parse error"}, Case{"[1]", "expected an object"},
                                  Case{"{\"key\":2}", "\"opId\" is missing"},
                                  Case{"{\"key\":-2,\"opId\":1,\"hdl\":1,\"pg\":1,\"prio\":1}",
                                       "\"key\" is -2, expected a number from 0 to 18446744073709551615"},
                                  Case{"{\"key\":2,\"opId\":1,\"hdl\":1,\"pg\":65536,\"prio\":1}",
                                       "\"pg\" is 65536, expected a number from 0 to 65535"},
                                  Case{"{\"key\":2,\"opId\":1,\"hdl\":1,\"pg\":1,\"prio\":1,\"ti\":"
                                       "[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]}",
                                       "\"ti\" is not a list of at most 17 numbers"},
                                  Case{"{\"key\":2,\"opId\":1,\"hdl\":1,\"pg\":1,\"prio\":1,\"dta\":[1]}",
                                       "a record has no \"dta\""}}) {
    std::string const lines = file("lines", good + line + "\n");
    Ended const ended = run({"load", dir / "t", "--from", lines});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, AllOf(StartsWith("vantrel: " + lines + ":2: "), HasSubstr(why),
                                 HasSubstr("; nothing was written")));
    EXPECT_FALSE(std::filesystem::exists(dir / "t"));
  }
  Ended const none = run({"load", dir / "t", "--from", dir / "none"});
  expectRefused(none, dir / "none", "cannot be read, expected JSON lines");
  std::string const folder = dir / "folder";
  std::filesystem::create_directory(folder);
  expectRefused(run({"load", dir / "t", "--from", folder}), folder, "cannot be read; nothing was written");
  EXPECT_FALSE(std::filesystem::exists(dir / "t"));
}

TEST_F(TableVerbs, ATableThatIsBeingWrittenIsNotLoaded) {
  Configs const writer(dir / "t");
  Ended const ended = run({"load", dir / "t", "--from", file("lines", "")});
  expectRefused(ended, dir / "t", std::to_string(::getpid()));
}

}  // namespace
