// SPDX-License-Identifier: Apache-2.0
// What one key costs: from the table's notification to the hardware client's call, in one process.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>

#include "hw/simulated_tcam.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

using namespace Vantrel;

namespace {

class World {
 public:
  explicit World(Ostra::Ptr<VantrelHelper> hardware)
      : hardware_(std::move(hardware)),
        engine_(Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr, hardware_, 1)),
        frontEnd_(vantrelSmFactory(config_, nullptr, nullptr, nullptr, engine_, nullptr, nullptr)) {}

  // Key k at position 2k or, one aside, 2k + 1, with priorities in the order of the keys.
  void want(U32 k, U32 aside) {
    EntryConfig e(EntryKey(k + 1), OpId(++version_ << 16), k, 0, k);
    e.tableIndexIs(TableKey(0), 2 * k + aside);
    config_->entryIs(e);
  }

 private:
  U64 version_ = 0;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<VantrelHelper> hardware_;
  Ostra::Ptr<FastVantrelImpl> engine_;
  Ostra::Ptr<VantrelSm> frontEnd_;
};

Ostra::Ptr<VantrelHelper> noHardware(U32) { return Ostra::make<VantrelHelper>("none", nullptr); }
Ostra::Ptr<VantrelHelper> checkingHardware(U32 entries) {
  return Ostra::make<Hw::SimulatedTcam>("tcam", nullptr, 2 * entries);
}

template <auto makeHardware>
void add(benchmark::State& state) {
  auto const entries = static_cast<U32>(state.range(0));
  double seconds = 0;
  for (auto _ : state) {
    World world(makeHardware(entries));
    auto const begin = std::chrono::steady_clock::now();
    for (U32 k = 0; k < entries; ++k) world.want(k, 0);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  }
  state.counters["ns"] = seconds * 1e9 / (static_cast<double>(state.iterations()) * entries);
}

template <auto makeHardware>
void move(benchmark::State& state) {
  auto const entries = static_cast<U32>(state.range(0));
  World world(makeHardware(entries));
  for (U32 k = 0; k < entries; ++k) world.want(k, 0);
  U32 k = 0, aside = 1;
  for (auto _ : state) {
    world.want(k, aside);
    if (++k == entries) k = 0, aside = 1 - aside;
  }
}

BENCHMARK(add<noHardware>)->Name("add, no hardware/ours")->Arg(1000)->Arg(100000);
BENCHMARK(add<checkingHardware>)->Name("add, checked/ours")->Arg(1000)->Arg(100000);
BENCHMARK(move<noHardware>)->Name("move, no hardware/ours")->Arg(1000)->Arg(100000);
BENCHMARK(move<checkingHardware>)->Name("move, checked/ours")->Arg(1000)->Arg(100000);

// The engine's trace would be measured along.
[[maybe_unused]] int const quiet = setenv("LUMELOG_DISABLE", "1", 1);

}  // namespace
