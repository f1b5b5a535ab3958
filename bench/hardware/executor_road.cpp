// SPDX-License-Identifier: Apache-2.0
// What an executor costs on the road of one key, while hardware does every call at once: the engine's part
// and the acknowledgement, in front of an executor with a driver, and in front of a hardware client that does
// the same. Either has nothing to do, or is the simulated row. The tables are in memory, or are files, as an
// agent has them.
#include <benchmark/benchmark.h>

#include <array>
#include <ctime>
#include <memory>

#include "bench/between/memory_dir.h"
#include "bench/engine/layout.h"
#include "bench/report/report.h"
#include "hw/executor.h"
#include "hw/simulated_tcam.h"
#include "keel/virtual_wheel.h"
#include "shoal/local_table.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/vantrel.h"

using namespace Bench;
using namespace Vantrel;

namespace {

[[maybe_unused]] bool const titled =
    titleIs("Hardware: what an executor costs, and a restart", "nanoseconds a key");
[[maybe_unused]] int const quiet = setenv("LUMELOG_DISABLE", "1", 1);

constexpr U32 mostInABatch = 100'000;

class NoDriver : public Hw::Driver {
 public:
  Hw::Outcome write(EntryConfig const&, U32, U64) override { return {}; }
  Hw::Outcome erase(EntryKey const&, U32, U64) override { return {}; }
};

class Acknowledging : public VantrelHelper {
 public:
  using VantrelHelper::VantrelHelper;
  void addEntry(EntryConfig const& e) override { acknowledge(e); }
  void moveEntry(EntryConfig const& e) override { acknowledge(e); }
  void updateEntry(EntryConfig const& e) override { acknowledge(e); }
  void deleteEntry(EntryConfig const& e) override {
    if (e.opId() == OpId::deleteAcknowledge())
      acknowledge(e);
    else
      tableStatus()->entryDel(e.key());
  }

 private:
  void acknowledge(EntryConfig const& e) { tableStatus()->entryIs(EntryStatus(e.key(), e.opId())); }
};

struct Direct {
  Direct(Ostra::Ptr<TableStatus> status, U32) : client(Ostra::make<Acknowledging>("direct", status)) {}
  Ostra::Ptr<VantrelHelper> client;
};
struct Executed {
  Executed(Ostra::Ptr<TableStatus> status, U32)
      : client(Ostra::make<Hw::Executor>("executor", status, driver, Ostra::make<Keel::VirtualWheel>(0.0))) {}
  NoDriver driver;
  Ostra::Ptr<VantrelHelper> client;
};

struct SimulatedDirect {
  SimulatedDirect(Ostra::Ptr<TableStatus> status, U32 positions)
      : client(Ostra::make<Hw::SimulatedTcam>("direct", status, positions)) {}
  Ostra::Ptr<VantrelHelper> client;
};
struct SimulatedExecuted {
  SimulatedExecuted(Ostra::Ptr<TableStatus> status, U32 positions)
      : driver(Ostra::make<Hw::SimulatedTcam>("driver", nullptr, positions)),
        client(Ostra::make<Hw::Executor>("executor", status, *driver, Ostra::make<Keel::VirtualWheel>(0.0))) {
  }
  Ostra::Ptr<Hw::SimulatedTcam> driver;
  Ostra::Ptr<VantrelHelper> client;
};

struct InMemory {
  Ostra::Ptr<Shoal::Table<EntryConfig>> producer = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<TableConfig const> config = producer;
  Ostra::Ptr<TableStatus> status = Ostra::make<Shoal::LocalTable<EntryStatus>>();
};
struct InFiles {
  MemoryDir dir;
  Ostra::Ptr<Shoal::Table<EntryConfig>> producer =
      Ostra::make<Shoal::WriterTable<EntryConfig>>(dir.path() + "/config");
  Ostra::Ptr<TableConfig const> config = Ostra::make<Shoal::ReaderTable<EntryConfig>>(dir.path() + "/config");
  Ostra::Ptr<TableStatus> status = Ostra::make<Shoal::WriterTable<EntryStatus>>(dir.path() + "/status");
};

// Entry i at position 2i or 2i + 1, all of them in hardware.
template <class Side, class Tables>
class World {
 public:
  explicit World(U32 entries) : layout_{entries}, order_(shuffled(entries)), aside_(entries) {
    engine_->prioGrpShiftIs(layout_.shift());
    engine_->roomForKeysIs(entries);
    for (U32 const i : order_) handle(want(i));
  }

  U32 entries() const { return layout_.entries; }
  EntryKey want(U32 i, U16 action = 0) {
    ++version_;
    tables_.producer->entryIs(
        config(layout_, i, i, 2 * i + (aside_[i] ? 1 : 0), version_, static_cast<U16>(version_ * action)));
    return keyOf(i);
  }
  EntryKey wantAside(U32 i) {
    aside_[i] = !aside_[i];
    return want(i);
  }
  EntryKey dontWant(U32 i) {
    tables_.producer->entryDel(keyOf(i));
    return keyOf(i);
  }
  void handle(EntryKey key) { engine_->handleEntry(key); }
  std::vector<U32> const& order() const { return order_; }

 private:
  Layout const layout_;
  std::vector<U32> const order_;
  std::vector<bool> aside_;
  U64 version_ = 0;
  Tables tables_;
  Side side_{tables_.status, layout_.positions()};
  Ostra::Ptr<FastVantrelImpl> engine_ =
      Ostra::make<FastVantrelImpl>("engine", tables_.config, nullptr, nullptr, side_.client, 1);
};

double threadNs() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// One world at a time: that of the last side and size asked for.
std::shared_ptr<void> standing;
[[maybe_unused]] bool const cleared = (atEnd([] { standing = nullptr; }), true);
template <class W>
W& worldOf(U32 entries) {
  static std::weak_ptr<W> last;
  auto world = last.lock();
  if (!world || world->entries() != entries) {
    world = nullptr;
    standing = nullptr;
    world = std::make_shared<W>(entries);
    standing = world;
    last = world;
  }
  return *world;
}

enum class Case { Update, Move, Delete, Add };

template <class W, Case which>
void road(benchmark::State& state) {
  auto& world = worldOf<W>(static_cast<U32>(state.range(0)));
  U32 const batch = std::min(world.entries(), mostInABatch);
  double ns = 0;
  U64 keys = 0;
  for (auto _ : state) {
    double timed[2] = {0, 0};
    for (int const part : {0, 1}) {  // a delete is followed by an add, and only one of them counts
      bool const isPair = which == Case::Delete || which == Case::Add;
      if (part == 1 && !isPair) break;
      std::vector<EntryKey> keysOfBatch;
      for (U32 n = 0; n < batch; ++n) {
        U32 const i = world.order()[n];
        if (which == Case::Update) keysOfBatch.push_back(world.want(i, 1));
        if (which == Case::Move) keysOfBatch.push_back(world.wantAside(i));
        if (isPair) keysOfBatch.push_back(part == 0 ? world.dontWant(i) : world.want(i));
      }
      double const begin = threadNs();
      for (EntryKey const key : keysOfBatch) {
        world.handle(key);
        __builtin_ia32_lfence();  // keys arrive one by one
      }
      timed[part] = threadNs() - begin;
    }
    ns += timed[which == Case::Add ? 1 : 0];
    keys += batch;
  }
  state.counters["ns"] = ns / static_cast<double>(keys);
}

template <class Ours, class Floor, Case which>
bool roads(std::string const& name) {
  benchmark::RegisterBenchmark((name + "/ours").c_str(), road<Ours, which>)
      ->Arg(10'000)
      ->Arg(100'000)
      ->Arg(1'000'000);
  benchmark::RegisterBenchmark((name + "/floor").c_str(), road<Floor, which>)
      ->Arg(10'000)
      ->Arg(100'000)
      ->Arg(1'000'000);
  return true;
}

template <class Executed, class Direct, class Tables>
bool allRoads(std::string const& hardware) {
  return roads<World<Executed, Tables>, World<Direct, Tables>, Case::Add>(hardware + ", add") &&
         roads<World<Executed, Tables>, World<Direct, Tables>, Case::Update>(hardware +
                                                                             ", update in place") &&
         roads<World<Executed, Tables>, World<Direct, Tables>, Case::Move>(hardware + ", move") &&
         roads<World<Executed, Tables>, World<Direct, Tables>, Case::Delete>(hardware + ", delete");
}
[[maybe_unused]] bool const registered =
    allRoads<Executed, Direct, InMemory>("an executor") &&
    allRoads<Executed, Direct, InFiles>("an executor, tables in files") &&
    allRoads<SimulatedExecuted, SimulatedDirect, InFiles>("the simulated row behind one, tables in files");

}  // namespace
