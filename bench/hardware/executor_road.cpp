// SPDX-License-Identifier: Apache-2.0
// What an executor costs on the road of one key, while hardware does every call at once: the engine's part
// and the acknowledgement, in front of an executor with a driver that has nothing to do, and in front of a
// hardware client that only acknowledges.
#include <benchmark/benchmark.h>

#include <array>
#include <ctime>
#include <memory>

#include "bench/engine/layout.h"
#include "bench/report/report.h"
#include "hw/executor.h"
#include "keel/virtual_wheel.h"
#include "shoal/local_table.h"
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
  explicit Direct(Ostra::Ptr<TableStatus> status) : client(Ostra::make<Acknowledging>("direct", status)) {}
  Ostra::Ptr<VantrelHelper> client;
};
struct Executed {
  explicit Executed(Ostra::Ptr<TableStatus> status)
      : client(Ostra::make<Hw::Executor>("executor", status, driver, Ostra::make<Keel::VirtualWheel>(0.0))) {}
  NoDriver driver;
  Ostra::Ptr<VantrelHelper> client;
};

// Entry i at position 2i or 2i + 1, all of them in hardware.
template <class Side>
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
    config_->entryQuietlyIs(
        config(layout_, i, i, 2 * i + (aside_[i] ? 1 : 0), version_, static_cast<U16>(version_ * action)));
    return keyOf(i);
  }
  EntryKey wantAside(U32 i) {
    aside_[i] = !aside_[i];
    return want(i);
  }
  EntryKey dontWant(U32 i) {
    config_->entryQuietlyDel(keyOf(i));
    return keyOf(i);
  }
  void handle(EntryKey key) { engine_->handleEntry(key); }
  std::vector<U32> const& order() const { return order_; }

 private:
  Layout const layout_;
  std::vector<U32> const order_;
  std::vector<bool> aside_;
  U64 version_ = 0;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Side side_{status_};
  Ostra::Ptr<FastVantrelImpl> engine_ =
      Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr, side_.client, 1);
};

double threadNs() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// One world at a time: that of the last side and size asked for.
std::shared_ptr<void> standing;
[[maybe_unused]] bool const cleared = (atEnd([] { standing = nullptr; }), true);
template <class Side>
World<Side>& worldOf(U32 entries) {
  static std::weak_ptr<World<Side>> last;
  auto world = last.lock();
  if (!world || world->entries() != entries) {
    world = nullptr;
    standing = nullptr;
    world = std::make_shared<World<Side>>(entries);
    standing = world;
    last = world;
  }
  return *world;
}

enum class Case { Update, Move, Delete, Add };

template <class Side, Case which>
void road(benchmark::State& state) {
  auto& world = worldOf<Side>(static_cast<U32>(state.range(0)));
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

template <Case which>
bool roads(std::string const& name) {
  benchmark::RegisterBenchmark((name + "/ours").c_str(), road<Executed, which>)
      ->Arg(10'000)
      ->Arg(100'000)
      ->Arg(1'000'000);
  benchmark::RegisterBenchmark((name + "/floor").c_str(), road<Direct, which>)
      ->Arg(10'000)
      ->Arg(100'000)
      ->Arg(1'000'000);
  return true;
}

[[maybe_unused]] bool const registered = roads<Case::Add>("through an executor, add") &&
                                         roads<Case::Update>("through an executor, update in place") &&
                                         roads<Case::Move>("through an executor, move") &&
                                         roads<Case::Delete>("through an executor, delete");

}  // namespace
