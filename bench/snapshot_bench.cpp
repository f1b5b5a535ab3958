// SPDX-License-Identifier: Apache-2.0
// How long the agent's event loop is held while a snapshot of the engine is taken and sent to another
// process, while keys arrive. The pass is the dispatch in which the engine fills the snapshot; a slice is one
// of the others, which send it. Times are of the wall clock; the processor's time beside them does not grow
// on a busy machine.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "bench/report/report.h"
#include "ostra/mount.h"
#include "ostra/piecewise_map.h"
#include "ostra/publish.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

using namespace Vantrel;

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

double processorMilliseconds() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

// The other process: asks for one snapshot and waits until it has all of it.
int request(std::string const& socket, std::size_t entries) {
  Ostra::Mounter mounter(socket);
  auto const config = mounter.mount<DebugConfig>();
  auto const status = mounter.mount<DebugStatus>();
  if (!mounter.dispatchUntil([&] { return mounter.live(*config) && mounter.live(*status); }, 60)) return 1;
  auto const asked = mounter.invoke(*config, "versionInc", {U64{1}});
  auto const answered = [&] {
    return mounter.live(*status) && asked->result && status->answers(std::get<U64>(*asked->result));
  };
  if (!mounter.dispatchUntil(answered, 300)) return 1;
  return status->status().size() == entries ? 0 : 1;
}

class Agent {
 public:
  explicit Agent(std::string const& socket) : publisher_(socket) {
    engine_->prioGrpShiftIs(20);  // a million positions
    publisher_.exportObject("debugConfig", debugConfig_);
    publisher_.exportObject("debugStatus", debugStatus_);
  }
  void want(U32 k) {
    EntryConfig e(EntryKey(k + 1), OpId(++version_ << 16), k, 0, k);
    e.tableIndexIs(TableKey(0), k);
    config_->entryIs(e);
  }
  // One turn of an event loop: what the socket asks for, and a key.
  void turn(U32 k) {
    pollfd p{publisher_.fd(), POLLIN, 0};
    ::poll(&p, 1, 0);
    U32 const before = debugStatus_->version();
    auto const dispatched = Clock::now();
    double const cpu = processorMilliseconds();
    publisher_.dispatch();
    double const took = millisecondsSince(dispatched), tookCpu = processorMilliseconds() - cpu;
    if (debugStatus_->version() == before) {
      longestSlice = std::max(longestSlice, took);
      longestSliceCpu = std::max(longestSliceCpu, tookCpu);
    } else {
      pass = took;
      passCpu = tookCpu;
    }
    auto const handled = Clock::now();
    want(k);
    longestKey = std::max(longestKey, millisecondsSince(handled));
  }

  double pass = 0, passCpu = 0, longestSlice = 0, longestSliceCpu = 0, longestKey = 0;

 private:
  U64 version_ = 0;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<DebugConfig> debugConfig_ = debugConfigFactory("debugConfig");
  Ostra::Ptr<DebugStatus> debugStatus_ = debugStatusFactory("debugStatus");
  Ostra::Ptr<FastVantrelImpl> engine_ = Ostra::make<FastVantrelImpl>(
      "engine", config_, debugConfig_, debugStatus_, Ostra::make<VantrelHelper>("none", nullptr), 1);
  Ostra::Ptr<VantrelSm> frontEnd_ =
      vantrelSmFactory(config_, nullptr, debugConfig_, debugStatus_, engine_, nullptr, nullptr);
  Ostra::Publisher publisher_;
};

// Until the child has its snapshot; false when it did not get it.
bool serve(Agent& agent, pid_t child, U32 entries) {
  for (U32 k = 0;; k = (k + 1) % entries) {
    agent.turn(k);
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) == child) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
}

void snapshot(benchmark::State& state) {
  auto const entries = static_cast<U32>(state.range(0));
  char dir[] = "/tmp/snapshot-bench-XXXXXX";
  if (!::mkdtemp(dir)) return state.SkipWithError("mkdtemp");
  std::string const socket = std::string(dir) + "/mgmt.sock";
  for (auto _ : state) {
    Agent agent(socket);
    for (U32 k = 0; k < entries; ++k) agent.want(k);
    pid_t const child = ::fork();
    if (child == 0) ::_exit(request(socket, entries));
    if (!serve(agent, child, entries)) state.SkipWithError("the other process did not get its snapshot");
    state.counters["ns"] = agent.pass * 1e6;
    state.counters["also:processor's part"] = agent.passCpu * 1e6;
    state.counters["also:longest slice of sending"] = agent.longestSlice * 1e6;
    state.counters["also:longest slice of sending, processor's part"] = agent.longestSliceCpu * 1e6;
    state.counters["also:longest time of a key meanwhile"] = agent.longestKey * 1e6;
  }
  std::filesystem::remove_all(dir);
}

BENCHMARK(snapshot)
    ->Name("the pass that takes a snapshot/ours")
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Iterations(1);

bool const titled = Bench::titleIs("How long a snapshot holds the agent", "nanoseconds");

// The engine's trace would be measured along.
[[maybe_unused]] int const quiet = setenv("LUMELOG_DISABLE", "1", 1);

}  // namespace
