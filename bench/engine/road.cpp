// SPDX-License-Identifier: Apache-2.0
// The road of one key: handleEntry for a key whose record has been written, in every case that a key can be,
// at a thousand to a million entries. What is timed is the engine's part alone, over a batch of keys; writing
// the records and putting things back is not. Keys do not overlap: see keyDone(). The full walk has no such
// fence on either side, and two cases are shown without it too.
//
// traced_bench is this file with the trace file on; engine_bench has it off. mixed_bench is the engine with
// breakMixedRings beside the engine without.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <array>
#include <memory>
#include <span>
#include <string>

#include "bench/engine/floor.h"
#include "bench/engine/ours.h"
#include "bench/engine/timed.h"
#include "bench/report/report.h"
#include "vantrel/fast/state.h"

using namespace Bench;

namespace {

#ifdef BENCH_MIXED
constexpr bool traced = false;
[[maybe_unused]] bool const titled =
    titleIs("The road of one key, breakMixedRings set", "nanoseconds a key; floor: the same, not set");
#elif defined(BENCH_TRACED)
constexpr bool traced = true;
[[maybe_unused]] bool const titled =
    titleIs("The road of one key, trace file on",
            "nanoseconds a key; allocs: without Judy's; bytes: of engine an entry; floor: without a trace");
#else
constexpr bool traced = false;
[[maybe_unused]] bool const titled =
    titleIs("The road of one key", "nanoseconds a key; allocs: without Judy's; bytes: of engine an entry");
#endif

#ifdef BENCH_MIXED
using Ahead = OursMixed;
using Beside = Ours;
#else
using Ahead = Ours;
using Beside = Floor;
#endif

constexpr U32 maxBatch = 100'000;
constexpr std::array<U32, 4> sizes{1'000, 10'000, 100'000, 1'000'000};

// What stands in the hardware, as the producer knows it.
template <class Side>
class World {
 public:
  explicit World(Layout const& layout, Ostra::Ptr<typename Side::Table> table = nullptr)
      : layout_(layout),
        side_(layout.shift(), table ? std::move(table) : Ostra::make<typename Side::Table>()),
        order_(shuffled(layout.entries, 2)),
        action_(layout.entries) {
    for (U32 i = 0; i < layout.entries; ++i) {
      key_.push_back(i);
      position_.push_back(2 * i);
    }
  }

  Side& side() { return side_; }
  Layout const& layout() const { return layout_; }
  EntryKey key(U32 i) const { return keyOf(key_[i]); }
  // The key that takes turns with entry i's own.
  U32 otherKey(U32 i) const {
    return key_[i] < layout_.entries ? key_[i] + layout_.entries : key_[i] - layout_.entries;
  }
  U32& keyIndex(U32 i) { return key_[i]; }
  U32& position(U32 i) { return position_[i]; }
  U16& action(U32 i) { return action_[i]; }

  // From here on records carry a newer version.
  void nextVersion() { ++version_; }
  void want(U32 i) { want(i, key_[i]); }
  void want(U32 i, U32 key) {
    side_.table().entryQuietlyIs(config(layout_, key, i, position_[i], version_, action_[i]));
  }
  void addAll(std::vector<U32> const& order) {
    for (U32 const i : order) want(i);
    for (U32 const i : order) side_.add(key(i));
  }

  // The next entries in a shuffled order.
  std::span<U32 const> batch() {
    U32 const n = std::min(layout_.entries, maxBatch);
    if (next_ + n > order_.size()) next_ = 0;
    next_ += n;
    return {&order_[next_ - n], n};
  }

 private:
  Layout const layout_;
  Side side_;
  std::vector<U32> order_, key_, position_;
  std::vector<U16> action_;
  U64 version_ = 1;
  std::size_t next_ = 0;
};

// The world of the last size asked for, with all its entries: cases leave it as they found it, but for the
// version, the action, the side on which an entry lies and which of its two keys it has.
template <class Side>
World<Side>& standing(Layout const& layout) {
  static std::unique_ptr<World<Side>> world;
  if (!world || world->layout().entries != layout.entries ||
      world->layout().onePriority != layout.onePriority) {
    world = nullptr;
    world = std::make_unique<World<Side>>(layout);
    world->addAll(shuffled(layout.entries));
  }
  world->nextVersion();
  return *world;
}

U32 entriesOf(benchmark::State const& state) { return static_cast<U32>(state.range(0)); }

// What the engine keeps an entry. The pool's records are counted as used, not as bought ahead.
class Bytes {
 public:
  double perEntry(U32 entries) const {
    U64 const poolGrew = (Vantrel::cstatePool().clen - clen_) * record;
    return static_cast<double>(bytesInUse() - before_ - poolGrew) / entries + record;
  }

 private:
  static constexpr U64 record = sizeof(Vantrel::CState_s) + sizeof(Vantrel::CState_s*);
  U64 before_ = bytesInUse();
  U64 clen_ = Vantrel::cstatePool().clen;
};

template <class Side>
class Case {
 public:
  explicit Case(benchmark::State& state, bool fenced = true)
      : state_(state), entries_(entriesOf(state)), fenced_(fenced) {
    if (!traceFileIs(traced)) state.SkipWithError("the trace file cannot be opened");
  }
  ~Case() {
    timed_.countersAre(state_, ours);
    if (ours && bytes_ > 0) state_.counters["bytes"] = bytes_;
  }

  // Calls `act` on a batch of entries, as prepared, and puts back what `restore` puts back.
  template <class Prepare, class Act, class Restore>
  void eachBatch(Layout const& layout, Prepare prepare, Act act, Restore restore) {
    for (auto _ : state_) {
      World<Side>& world = standing<Side>(layout);
      auto const batch = world.batch();
      for (U32 const i : batch) prepare(world, i);
      timed_.run(batch.size(), [&] {
        for (U32 const i : batch) {
          act(world, i);
          if (fenced_) keyDone();
        }
      });
      for (U32 const i : batch) restore(world, i);
    }
  }
  template <class Prepare, class Act>
  void eachBatch(Prepare prepare, Act act) {
    eachBatch(Layout{entries_}, prepare, act, [](World<Side>&, U32) {});
  }

  void add(std::vector<U32> const& order) {
    for (auto _ : state_) {
      World<Side> world(Layout{entries_});
      for (U32 const i : order) world.want(i);
      Bytes const bytes;
      timed_.run(entries_, [&] {
        for (U32 const i : order) {
          world.side().add(keyOf(i));
          keyDone();
        }
      });
      bytes_ = bytes.perEntry(entries_);
    }
  }

  void walk() {
    auto const table = Ostra::make<typename Side::Table>();
    World<Side> producer(Layout{entries_}, table);
    for (U32 const i : shuffled(entries_)) producer.want(i);
    for (auto _ : state_) {
      World<Side> world(Layout{entries_}, table);
      timed_.run(entries_, [&] { world.side().walk(); });
    }
  }

  void rings(U32 size) {
    Layout const layout{entries_, true};
    for (auto _ : state_) {
      World<Side>& world = standing<Side>(layout);
      auto const batch = world.batch();
      for (std::size_t at = 0; at + size <= batch.size(); at += size) turn(world, batch.subspan(at, size));
      U64 const rings = batch.size() / size;
      timed_.run(rings * size, [&] {
        for (std::size_t at = 0; at + size <= batch.size(); at += size) {
          for (U32 const i : batch.subspan(at, size - 1)) {
            world.side().blockMove(world.key(i));
            keyDone();
          }
          world.side().closeRing(world.key(batch[at + size - 1]));
          keyDone();
        }
      });
    }
  }

 private:
  static constexpr bool ours = std::is_same_v<Side, Ahead>;

  // Each entry of the ring is to lie where the next one lies.
  static void turn(World<Side>& world, std::span<U32 const> ring) {
    U32 const first = world.position(ring.front());
    for (std::size_t k = 0; k + 1 < ring.size(); ++k) world.position(ring[k]) = world.position(ring[k + 1]);
    world.position(ring.back()) = first;
    for (U32 const i : ring) world.want(i);
  }

  benchmark::State& state_;
  U32 const entries_;
  bool const fenced_;
  Timed timed_;
  double bytes_ = 0;
};

template <class Side>
void addAscending(benchmark::State& state) {
  Case<Side>(state).add(ascending(entriesOf(state)));
}

template <class Side>
void addRandom(benchmark::State& state) {
  Case<Side>(state).add(shuffled(entriesOf(state)));
}

template <class Side, bool fenced = true>
void update(benchmark::State& state) {
  Case<Side>(state, fenced)
      .eachBatch(
          [](auto& world, U32 i) {
            world.action(i) ^= 1;
            world.want(i);
          },
          [](auto& world, U32 i) { world.side().update(world.key(i)); });
}

template <class Side, bool fenced = true>
void acknowledge(benchmark::State& state) {
  Case<Side>(state, fenced)
      .eachBatch([](auto& world, U32 i) { world.want(i); },
                 [](auto& world, U32 i) { world.side().acknowledge(world.key(i)); });
}

template <class Side>
void move(benchmark::State& state) {
  Case<Side>(state).eachBatch(
      [](auto& world, U32 i) {
        world.position(i) ^= 1;
        world.want(i);
      },
      [](auto& world, U32 i) { world.side().move(world.key(i)); });
}

template <class Side>
void block(benchmark::State& state) {
  Case<Side>(state).eachBatch(
      Layout{entriesOf(state)}, [](auto& world, U32 i) { world.want(i, world.otherKey(i)); },
      [](auto& world, U32 i) { world.side().block(keyOf(world.otherKey(i))); },
      [](auto& world, U32 i) {
        world.side().table().entryQuietlyDel(keyOf(world.otherKey(i)));
        world.side().unblock(keyOf(world.otherKey(i)));
      });
}

template <class Side>
void wake(benchmark::State& state) {
  Case<Side>(state).eachBatch(
      Layout{entriesOf(state)},
      [](auto& world, U32 i) {
        world.want(i, world.otherKey(i));
        world.side().block(keyOf(world.otherKey(i)));
        world.side().table().entryQuietlyDel(world.key(i));
      },
      [](auto& world, U32 i) { world.side().removeWaking(world.key(i)); },
      [](auto& world, U32 i) { world.keyIndex(i) = world.otherKey(i); });
}

template <class Side>
void remove(benchmark::State& state) {
  Case<Side>(state).eachBatch(
      Layout{entriesOf(state)},
      [](auto& world, U32 i) { world.side().table().entryQuietlyDel(world.key(i)); },
      [](auto& world, U32 i) { world.side().remove(world.key(i)); },
      [](auto& world, U32 i) {
        world.want(i);
        world.side().add(world.key(i));
      });
}

template <class Side>
void fullWalk(benchmark::State& state) {
  Case<Side>(state).walk();
}

template <class Side, U32 size>
void ring(benchmark::State& state) {
  Case<Side>(state).rings(size);
}

using Function = void (*)(benchmark::State&);
bool const registered = [] {
  auto const both = [](std::string const& name, Function ours, Function floor) {
    for (U32 const size : sizes) {
      benchmark::RegisterBenchmark((name + "/ours").c_str(), ours)->Arg(size);
      benchmark::RegisterBenchmark((name + "/floor").c_str(), floor)->Arg(size);
    }
  };
  both("add ascending", addAscending<Ahead>, addAscending<Beside>);
  both("add random", addRandom<Ahead>, addRandom<Beside>);
  both("update in place", update<Ahead>, update<Beside>);
  both("no-op acknowledgement", acknowledge<Ahead>, acknowledge<Beside>);
  both("move", move<Ahead>, move<Beside>);
  both("blocked add", block<Ahead>, block<Beside>);
  both("wake-up of a waiter", wake<Ahead>, wake<Beside>);
  both("ring of 2", ring<Ahead, 2>, ring<Beside, 2>);
  both("ring of 10", ring<Ahead, 10>, ring<Beside, 10>);
  both("ring of 1000", ring<Ahead, 1000>, ring<Beside, 1000>);
  both("delete", remove<Ahead>, remove<Beside>);
  both("update in place, keys overlapping", update<Ahead, false>, update<Beside, false>);
  both("no-op acknowledgement, keys overlapping", acknowledge<Ahead, false>, acknowledge<Beside, false>);
  both("full walk", fullWalk<Ahead>, fullWalk<Beside>);
  return true;
}();

}  // namespace
