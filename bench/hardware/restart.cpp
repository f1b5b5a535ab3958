// SPDX-License-Identifier: Apache-2.0
// How long an agent takes over hardware that holds N entries of an earlier run: their adoption, and then the
// front end's first walk of the producer's table, which has the same entries, or nine in ten of them and a
// tenth changed. The hardware is the simulated row with its file, the table is in memory.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>

#include "bench/engine/layout.h"
#include "bench/report/report.h"
#include "hw/adoption.h"
#include "hw/simulated_tcam.h"
#include "keel/virtual_wheel.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

using namespace Bench;
using namespace Vantrel;

namespace {

// Engine, executor and hardware, as a process has them.
class Agent {
 public:
  Agent(std::string const& file, Layout const& layout, Ostra::Ptr<TableConfig> config)
      : config_(std::move(config)),
        tcam_(Ostra::make<Hw::SimulatedTcam>("hardware", nullptr, layout.positions())) {
    tcam_->contentsFileIs(file);
    executor_ = Ostra::make<Hw::Executor>("executor", status_, *tcam_, Ostra::make<Keel::VirtualWheel>(0.0));
    engine_ = Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr, executor_, 1);
    engine_->prioGrpShiftIs(layout.shift());
    engine_->roomForKeysIs(layout.entries);
  }
  ~Agent() { executor_->detach(); }  // hardware keeps what it has

  void start() {
    auto const adopted = Hw::adopt(*engine_, *executor_, *tcam_, *config_);
    frontEnd_ = vantrelSmFactory(config_, status_, nullptr, nullptr, engine_, nullptr, nullptr);
    for (EntryKey const& key : adopted.unwanted) frontEnd_->handleEntry(key);
  }
  U64 writes() const { return tcam_->writes(); }
  U64 entries() const { return tcam_->entries(); }

 private:
  Ostra::Ptr<TableConfig> const config_;
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> const status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<Hw::SimulatedTcam> const tcam_;
  Ostra::Ptr<Hw::Executor> executor_;
  Ostra::Ptr<FastVantrelImpl> engine_;
  Ostra::Ptr<VantrelSm> frontEnd_;
};

// Every tenth entry has another action in the second table.
void restart(benchmark::State& state, bool isChanged) {
  Layout const layout{static_cast<U32>(state.range(0))};
  char dir[] = "/tmp/restart-bench-XXXXXX";
  if (!::mkdtemp(dir)) return state.SkipWithError("mkdtemp");
  std::string const file = std::string(dir) + "/state";
  auto const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  for (U32 const i : shuffled(layout.entries)) config->entryIs(Bench::config(layout, i, i, 2 * i, 1));
  Agent(file, layout, config).start();
  U16 action = 0;
  double seconds = 0;
  for (auto _ : state) {
    ++action;
    U64 const changed = isChanged ? layout.entries / 10 : 0;
    for (U32 i = 0; i < changed; ++i)
      config->entryIs(Bench::config(layout, i, i, 2 * i, 1U + action, action));
    auto const begin = std::chrono::steady_clock::now();
    Agent agent(file, layout, config);
    agent.start();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (agent.writes() != changed || agent.entries() != layout.entries)
      state.SkipWithError("the hardware was written to more or less than the difference");
    state.counters["writes"] = static_cast<double>(agent.writes());
  }
  state.counters["ns"] = seconds * 1e9 / static_cast<double>(state.iterations()) / layout.entries;
  std::filesystem::remove_all(dir);
}

BENCHMARK_CAPTURE(restart, same, false)
    ->Name("restart, nothing changed/ours")
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Iterations(1);
BENCHMARK_CAPTURE(restart, changed, true)
    ->Name("restart, a tenth changed/ours")
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Iterations(1);

}  // namespace
