// SPDX-License-Identifier: Apache-2.0
// A process that aborts in the middle of a load of a million keys: what its trace file tells last is what the
// engine did last, in order, as the hardware client's own list has it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "hw/recorder.h"
#include "lumelog/reader.h"
#include "tests/lumelog/temp_dir.h"
#include "vantrel/core/trace.h"
#include "vantrel/vantrel.h"

namespace Vantrel {
namespace {

using Lumelog::Test::TempDir;
using Ostra::make;
using Ostra::Ptr;

constexpr U64 keys = 1000000;
constexpr U32 abortAtCall = 840000;

// Memory that the parent still has when the child is gone: what the recorder wrote, ended by zeros.
class SharedText : public std::streambuf {
 public:
  SharedText() {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    text_ = static_cast<char*>(memory);
    setp(text_, text_ + bytes - 1);
  }
  ~SharedText() override { munmap(text_, bytes); }
  std::string text() const { return text_; }

 private:
  static constexpr std::size_t bytes = std::size_t{64} << 20;
  char* text_;
};

class AbortingRecorder : public Hw::Recorder {
 public:
  explicit AbortingRecorder(std::ostream* out) : Recorder("hw", out) {}
  void addEntry(EntryConfig const& entry) override {
    Recorder::addEntry(entry);
    count();
  }
  void moveEntry(EntryConfig const& entry) override {
    Recorder::moveEntry(entry);
    count();
  }
  void updateEntry(EntryConfig const& entry) override {
    Recorder::updateEntry(entry);
    count();
  }
  void deleteEntry(EntryConfig const& entry) override {
    Recorder::deleteEntry(entry);
    count();
  }
  void noopAck(EntryKey const&, OpId const&) override {}
  void delAck(EntryKey const&) override {}
  void delStatus(EntryKey const&) override {}

 private:
  void count() {
    if (++calls_ == abortAtCall) std::abort();
  }
  U32 calls_ = 0;
};

EntryConfig entry(U64 key, U64 opId, U32 ti) {
  EntryConfig config(EntryKey(key), OpId(opId), static_cast<U32>(key), 1, 5);
  config.tableIndexIs(TableKey(0), ti);
  return config;
}

// Every third key is then updated, every fifth moved, every seventh deleted.
[[noreturn]] void load(std::ostream& out) {
  initLg();
  auto const table = make<Shoal::LocalTable<EntryConfig>>("config");
  auto const status = make<Shoal::LocalTable<EntryStatus>>("status");
  auto const debugConfig = debugConfigFactory("debugConfig");
  auto const debugStatus = debugStatusFactory("debugStatus");
  auto const engine = make<FastVantrelImpl>("engine", table, debugConfig, debugStatus,
                                            Ptr<VantrelHelper>(make<AbortingRecorder>(&out)), 1U);
  engine->prioGrpShiftIs(24);
  auto const frontEnd = vantrelSmFactory(table, status, debugConfig, debugStatus, engine, nullptr, nullptr);
  for (U64 key = 1; key <= keys; ++key) {
    auto const ti = static_cast<U32>(2 * key);
    table->entryIs(entry(key, 65536, ti));
    if (key % 3 == 0) table->entryIs(entry(key, 2 * 65536 + 1, ti));
    if (key % 5 == 0) table->entryIs(entry(key, 3 * 65536 + (key % 3 == 0 ? 1 : 0), ti + 1));
    if (key % 7 == 0) table->entryDel(EntryKey(key));
  }
  _exit(0);
}

// "add 5" for each call.
std::vector<std::string> callsOf(std::string const& text) {
  std::vector<std::string> calls;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::size_t const key = line.find(" key:");
    if (key != std::string::npos)
      calls.push_back(line.substr(0, key) + " " + line.substr(key + 5, line.find(' ', key + 5) - key - 5));
  }
  return calls;
}

// What the trace says that the hardware was asked for.
std::vector<std::string> actionsIn(Lumelog::Reader& reader) {
  std::vector<std::string> actions;
  for (Lumelog::Record record; reader.next(record);) {
    std::string const& label = record.site->labels.front();
    std::string const action = label == "add key:"          ? "add"
                               : label == "mov key:"        ? "move"
                               : label == "update key:"     ? "update"
                               : label == "del helper key:" ? "delete"
                                                            : "";
    if (!action.empty()) actions.push_back(action + " " + std::to_string(record.values[1].number));
  }
  return actions;
}

TEST(Crash, TheLastRecordsAreTheLastActions) {
  TempDir dir;
  SharedText text;
  pid_t const child = fork();
  if (child == 0) {
    setenv("LUMELOGDIR", dir.path().c_str(), 1);
    unsetenv("LUMELOG_DISABLE");
    std::ostream out(&text);
    load(out);
  }
  int status;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_EQ(WTERMSIG(status), SIGABRT);

  std::vector<std::string> const calls = callsOf(text.text());
  Lumelog::Reader reader(dir / "Quarry-mbb.lg");
  std::vector<std::string> const actions = actionsIn(reader);
  EXPECT_EQ(calls.size(), abortAtCall);
  EXPECT_FALSE(reader.damage().any());
  // The ring holds the newest of them: enough to be worth the night.
  EXPECT_GT(actions.size(), 30000U);
  ASSERT_LE(actions.size(), calls.size());
  EXPECT_TRUE(std::equal(actions.rbegin(), actions.rend(), calls.rbegin()));
  EXPECT_GT(reader.rings()[9].written, reader.rings()[9].subBuffers);
}

}  // namespace
}  // namespace Vantrel
