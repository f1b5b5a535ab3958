// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/trace.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "lumelog/reader.h"
#include "tests/lumelog/temp_dir.h"
#include "tests/support/in_child.h"
#include "vantrel/vantrel.h"

namespace Vantrel {
namespace {

using Lumelog::Test::mountSmallDisk;
using Lumelog::Test::readFile;
using Lumelog::Test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

// The trace file is the process's: each test has a process of its own, in a directory of its own.
class TraceFile : public testing::Test {
 protected:
  int inChild(std::function<void()> const& work) {
    return TestSupport::inChild(
        [&] {
          if (chdir(dir_.path().c_str()) != 0 || !freopen("err", "w", stderr)) _exit(99);
          unsetenv("LUMELOGDIR");
          unsetenv("LUMELOG_DISABLE");
          work();
        },
        &pid_);
  }
  std::vector<std::string> messages(std::string const& name) {
    Lumelog::Reader reader(dir_ / name);
    std::vector<std::string> result;
    for (Lumelog::Record record; reader.next(record);)
      result.push_back(fmt::format("[{}] {}", record.identifier(), record.message()));
    return result;
  }
  std::string perProcess() const { return fmt::format("Quarry-mbb-{}.lg", pid_); }

  TempDir dir_;
  pid_t pid_ = 0;
};

TEST_F(TraceFile, IsOpenedOnceAProcess) {
  EXPECT_EQ(inChild([] {
              initLg();
              Lumelog::Log* const first = lg;
              initLg();
              if (!first || lg != first) _exit(1);
              VANTREL_RECORD(9, 3u, "notify on key:", EntryKey(5));
              VANTREL_RECORD(9, 4u, "handling key:", EntryKey(5), " hdl:", 6u, " opId:", OpId(7));
            }),
            0);
  EXPECT_THAT(dir_.names(), ElementsAre(perProcess(), "err"));
  EXPECT_THAT(messages(perProcess()), ElementsAre("[3] notify on key:5", "[4] handling key:5 hdl:6 opId:7"));
  EXPECT_EQ(readFile(dir_ / "err"), "");
  EXPECT_EQ(std::filesystem::file_size(dir_ / perProcess()), 17637376U) << "what its page says";
}

void handleByTwoEngines() {
  auto const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  auto const hardware = Ostra::make<VantrelHelper>("hardware", nullptr);
  for (U32 id : {3, 4})
    Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, hardware, id)->handleEntry(EntryKey(70));
}

TEST_F(TraceFile, IsSharedByTwoEngines) {
  EXPECT_EQ(inChild(handleByTwoEngines), 0);
  EXPECT_THAT(dir_.names(), ElementsAre(perProcess(), "err"));
  std::vector<std::string> const said = messages(perProcess());
  EXPECT_THAT(said, testing::IsSupersetOf({"[3] notify on key:70", "[4] notify on key:70"}));
}

TEST_F(TraceFile, MissingForTwoEnginesIsReportedOnce) {
  EXPECT_EQ(inChild([] {
              setenv("LUMELOGDIR", "/nonexistent", 1);
              handleByTwoEngines();
            }),
            0);
  std::string const said = readFile(dir_ / "err");
  EXPECT_THAT(said, testing::HasSubstr("running without it"));
  EXPECT_EQ(std::ranges::count(said, '\n'), 1);
}

constexpr auto slow = std::chrono::milliseconds(3);

// Both the hardware and the tables that an entry depends on take their time.
class SlowHardware : public VantrelHelper {
 public:
  using VantrelHelper::VantrelHelper;
  void moveEntry(EntryConfig const&) override { std::this_thread::sleep_for(slow); }
};
class SlowDependants : public FastVantrelImpl {
 public:
  using FastVantrelImpl::FastVantrelImpl;
  bool processDependantTables(EntryConfig const& entry, EntryKey const&) override {
    if (entry.tableIndex(TableKey(0)) == 5) std::this_thread::sleep_for(slow);
    return true;
  }
};

// The records of one key share a reading of the clock, except where something took time of its own: key 1
// moves away from the position that key 2 waits for.
TEST_F(TraceFile, ShowsWhatTookTime) {
  EXPECT_EQ(inChild([] {
              auto const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
              auto const hardware = Ostra::make<SlowHardware>("hardware", nullptr);
              auto const engine =
                  Ostra::make<SlowDependants>("engine", config, nullptr, nullptr, hardware, 3u);
              U64 version = 0;
              for (auto const [key, ti] : {std::pair{1U, 4U}, {2U, 4U}, {1U, 5U}}) {
                EntryConfig entry(EntryKey(key), OpId(++version << 16), key, 0, 10);
                entry.tableIndexIs(TableKey(0), ti);
                config->entryIs(entry);
                engine->handleEntry(EntryKey(key));
              }
            }),
            0);
  Lumelog::Reader reader(dir_ / perProcess());
  std::vector<std::string> shared;
  std::vector<std::string> late;
  U64 ticks = 0;
  U64 realNs = 0;
  for (Lumelog::Record record; reader.next(record);) {
    std::string const what = record.message().substr(0, record.message().find(':'));
    if (record.ticks == ticks + 1) shared.push_back(what);
    if (realNs != 0 && record.realNs - realNs >= U64{slow / std::chrono::nanoseconds(1)} * 9 / 10)
      late.push_back(what);
    ticks = record.ticks;
    realNs = record.realNs;
  }
  EXPECT_THAT(shared, testing::IsSupersetOf({"new entry key", "not conflicting key", "add key", "mov key"}));
  EXPECT_THAT(late, testing::IsSupersetOf({"handling key", "adding key"}));
}

TEST_F(TraceFile, HasItsRingSizesAndStringLimit) {
  EXPECT_EQ(inChild([] {
              initLg();
              VANTREL_RECORD(9, 3u, "text:", std::string(200, 'x'));
            }),
            0);
  Lumelog::Reader reader(dir_ / perProcess());
  for (unsigned level = 0; level < 9; ++level) EXPECT_EQ(reader.rings()[level].bytes, 64U * 1024);
  EXPECT_EQ(reader.rings()[9].bytes, 16384U * 1024);
  EXPECT_THAT(messages(perProcess()), ElementsAre("[3] text:" + std::string(80, 'x')));
}

TEST_F(TraceFile, HasNoProcessNumberInLumelogdir) {
  std::filesystem::create_directory(dir_ / "traces");
  EXPECT_EQ(inChild([this] {
              setenv("LUMELOGDIR", (dir_ / "traces").c_str(), 1);
              initLg();
              VANTREL_RECORD(9, 3u, "here");
            }),
            0);
  EXPECT_THAT(messages("traces/Quarry-mbb.lg"), ElementsAre("[3] here"));
}

TEST_F(TraceFile, LiesInTheAgentsDirectoryUnderItsName) {
  std::filesystem::create_directory(dir_ / "agent");
  EXPECT_EQ(inChild([this] {
              Lumelog::directoryIs(dir_ / "agent");
              initLg();
            }),
            0);
  EXPECT_THAT(dir_.names(), ElementsAre("agent", "err"));
  EXPECT_TRUE(std::filesystem::exists(dir_ / "agent/" + perProcess()));
}

TEST_F(TraceFile, RemovesOldOnesBeyondTheNumberThatIsKept) {
  EXPECT_EQ(inChild([] {
              Lumelog::Options options;
              options.keep = 100;
              for (int i = 0; i < 12; ++i) {
                Lumelog::Log* const log = Lumelog::open("Quarry-mbb-%d.lg", options);
                Lumelog::close(log);
              }
              std::filesystem::create_symlink("nowhere", "Quarry-mbb-1.lg");
              if (traceKeep() != 8) _exit(1);
              initLg();
            }),
            0);
  EXPECT_EQ(dir_.names().size(), 8U + 1 + 1 + 1) << "its own, the link, and err";
  EXPECT_EQ(inChild([] {
              traceKeepIs(3);
              initLg();
              traceKeepIs(2);
            }),
            0);
  EXPECT_EQ(dir_.names().size(), 2U + 1 + 1 + 1);
}

TEST_F(TraceFile, IsNotOpenedWhenDisabled) {
  EXPECT_EQ(inChild([] {
              setenv("LUMELOG_DISABLE", "", 1);
              initLg();
              if (lg) _exit(1);
              VANTREL_RECORD(9, 3u, "dropped");
            }),
            0);
  EXPECT_THAT(dir_.names(), ElementsAre("err"));
}

TEST_F(TraceFile, ThatCannotBeOpenedIsReportedOnce) {
  EXPECT_EQ(inChild([] {
              setenv("LUMELOGDIR", "/nonexistent", 1);
              initLg();
              initLg();
              VANTREL_RECORD(9, 3u, "dropped");
            }),
            0);
  EXPECT_EQ(readFile(dir_ / "err"),
            "Lumelog: cannot open the trace file /nonexistent/Quarry-mbb.lg: No such file or directory; "
            "running without "
            "it\n");
}

TEST_F(TraceFile, CallsTheAssertionHookThatWasInstalledBefore) {
  EXPECT_EQ(inChild([] {
              Pallo::assertionHookIs([](Pallo::AssertionFailure const&) { _exit(42); });
              initLg();
              PALLO_ASSERT("VantrelImpl", false);
            }),
            42);
  EXPECT_THAT(messages(perProcess()), testing::SizeIs(1));
}

TEST_F(TraceFile, OnAFullDiskIsReportedOnce) {
  std::filesystem::create_directory(dir_ / "full");
  int const result = inChild([this] {
    if (!mountSmallDisk(dir_ / "full", 1024)) _exit(77);
    setenv("LUMELOGDIR", (dir_ / "full").c_str(), 1);
    initLg();
    initLg();
    if (lg) _exit(1);
    VANTREL_RECORD(9, 3u, "dropped");
  });
  if (result == 77) GTEST_SKIP() << "this process may not mount";
  EXPECT_EQ(result, 0);
  EXPECT_EQ(readFile(dir_ / "err"), "Lumelog: cannot open the trace file " + dir_ / "full/Quarry-mbb.lg" +
                                        ": No space left on device; running without it\n");
}

TEST_F(TraceFile, EndsWithTheAssertionThatEndedTheProcess) {
  EXPECT_EQ(inChild([] {
              initLg();
              for (U64 i = 0; i < 1000; ++i) VANTREL_RECORD(9, 3u, "n:", i);
              U32 const lgId = 0;
              PALLO_ASSERT("VantrelImpl", lgId && "100% missing lgId");
            }),
            -SIGABRT);
  std::string const said = readFile(dir_ / "err");
  EXPECT_THAT(
      said, testing::MatchesRegex("assertion failed: lgId && \"100% missing lgId\", model file VantrelImpl, "
                                  "line [0-9]+, function .*\n"));
  std::vector<std::string> const all = messages(perProcess());
  ASSERT_EQ(all.size(), 1001U);
  EXPECT_EQ("[0] " + said, all.back() + "\n");
}

TEST(Settings, ChangeTheEnvironmentAndEveryLevel) {
  traceSettingIs("Vantrel*/3");
  EXPECT_STREQ(std::getenv("TRACE"), "Vantrel*/3");
  EXPECT_EQ(vantrelSmTrace().level(), 3);
  EXPECT_EQ(vantrelImplTrace().level(), 3);
  EXPECT_EQ(vantrelFastImplTrace().level(), 3);
  traceSettingIs("");
  EXPECT_STREQ(std::getenv("TRACE"), "");
  EXPECT_EQ(vantrelFastImplTrace().level(), 0);
}

TEST(Settings, HandlesHaveTheirNames) {
  EXPECT_STREQ(vantrelSmTrace().name(), "VantrelSm");
  EXPECT_STREQ(vantrelImplTrace().name(), "VantrelImpl");
  EXPECT_STREQ(vantrelFastImplTrace().name(), "VantrelFastImpl");
}

TEST(Settings, EntryTraceShowsSignatureFileLineAndOperation) {
  traceSettingIs("VantrelSm/8");
  testing::internal::CaptureStderr();
  VANTREL_TRACE_ENTRY(vantrelSmTrace(), 8, "Vantrel", "handleEntry");
  EXPECT_THAT(
      testing::internal::GetCapturedStderr(),
      testing::ContainsRegex(" VantrelSm/8 virtual void .*TestBody\\(\\) Vantrel:[0-9]+ handleEntry\n"));
  traceSettingIs("");
}

}  // namespace
}  // namespace Vantrel
