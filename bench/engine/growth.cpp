// SPDX-License-Identifier: Apache-2.0
// Growth: shapes that are hard for an engine in which entries wait for one another, from a thousand entries
// up. A shape's cost is that of all its keys; `order` is the exponent of the power of N that fits the costs
// up to this size best (1: each key costs the same), and `reads` counts record reads a key.
#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <string>

#include "bench/engine/ours.h"
#include "bench/engine/timed.h"
#include "bench/report/report.h"

using namespace Bench;

namespace {

#ifdef BENCH_MIXED
[[maybe_unused]] bool const titled =
    titleIs("Growth, breakMixedRings set", "nanoseconds an entry; floor: the same, not set");
#else
[[maybe_unused]] bool const titled =
    titleIs("Growth", "nanoseconds an entry; order: of the whole shape's cost; reads: of records, an entry");
#endif

// Positions, groups and priorities as a shape wants them.
class World {
 public:
  World(U32 shift, bool mixed) : side_(shift, table_) { side_.engine().breakMixedRingsIs(mixed); }

  struct Place {
    U32 position;
    U32 prio = 0;
    U16 group = 0;
  };
  void write(U32 i, Place const& place) {
    EntryConfig e(keyOf(i), OpId(++version_ << 16), i + 1, place.group, place.prio);
    e.tableIndexIs(TableKey(0), place.position);
    table_->entryQuietlyIs(e);
  }
  void erase(U32 i) { table_->entryQuietlyDel(keyOf(i)); }
  void handle(U32 i) { side_.engine().handleEntry(keyOf(i)); }
  void put(U32 i, Place const& place) {
    write(i, place);
    handle(i);
  }
  void roomForKeysIs(U32 keys) { side_.engine().roomForKeysIs(keys); }
  U64 reads() const { return table_->reads(); }
  U32 waiting() { return side_.engine().numPending(); }

 private:
  U64 version_ = 0;
  Ostra::Ptr<CountingTable> table_ = Ostra::make<CountingTable>();
  Ours side_;
};

// The costs of a shape so far: per size, the least.
class Fit {
 public:
  void add(double n, double cost) {
    auto const [at, first] = costs_.try_emplace(n, cost);
    if (!first) at->second = std::min(at->second, cost);
  }
  // The slope of the line through (log n, log cost); meaningless for one size.
  double order() const {
    double const count = static_cast<double>(costs_.size());
    double x = 0, y = 0, xx = 0, xy = 0;
    for (auto const& [n, cost] : costs_) {
      x += std::log(n), y += std::log(cost);
      xx += std::log(n) * std::log(n), xy += std::log(n) * std::log(cost);
    }
    return (count * xy - x * y) / (count * xx - x * x);
  }
  bool enough() const { return costs_.size() > 1; }

 private:
  std::map<double, double> costs_;
};

struct Shape {
  std::string name;
  U32 largest;
  U32 shift;  // 0: as many positions as there are entries, and some
  void (*prepare)(World&, U32 n);
  void (*work)(World&, U32 n);
  U32 (*left)(U32 n);  // how many wait afterwards
};

template <bool mixed>
void run(benchmark::State& state, Shape const& shape) {
  static std::map<std::string, Fit> fits;
  if (!traceFileIs(false)) state.SkipWithError("the trace file cannot be opened");
  auto const n = static_cast<U32>(state.range(0));
  Timed timed;
  U64 reads = 0;
  for (auto _ : state) {
    World world(shape.shift ? shape.shift : static_cast<U32>(std::bit_width(2 * n)), mixed);
    shape.prepare(world, n);
    U64 const before = world.reads();
    timed.run(n, [&] { shape.work(world, n); });
    reads += world.reads() - before;
    if (world.waiting() != shape.left(n)) state.SkipWithError("the shape did not come out as it should");
  }
  timed.countersAre(state, false);
  state.counters["reads"] = static_cast<double>(reads) / (static_cast<double>(state.iterations()) * n);
  Fit& fit = fits[shape.name];
  fit.add(n, timed.nsPerKey() * n);
  if (fit.enough()) state.counters["order"] = fit.order();
}

// The longest that any one of n new keys takes: what a container moves when it grows.
template <bool room>
void longestKey(benchmark::State& state) {
  if (!traceFileIs(false)) state.SkipWithError("the trace file cannot be opened");
  auto const n = static_cast<U32>(state.range(0));
  double longest = 0;
  for (auto _ : state) {
    World world(static_cast<U32>(std::bit_width(2 * n)), false);
    for (U32 i = 0; i < n; ++i) world.write(i, {i});
    if (room) world.roomForKeysIs(n);
    for (U32 const i : shuffled(n)) longest = std::max(longest, Timed::nsOf([&] { world.handle(i); }));
  }
  state.counters["ns"] = longest;
}

U32 none(U32) { return 0; }
U32 all(U32 n) { return n; }
U32 oneMore(U32 n) { return n + 1; }

// Entries 0 to n - 1 side by side, and one more behind them that stays. Each is to move to the next position.
void row(World& world, U32 n) {
  for (U32 i = 0; i <= n; ++i) world.put(i, {i});
}
void chain(World& world, U32 n) {
  row(world, n);
  for (U32 i = 0; i < n; ++i) world.write(i, {i + 1});
}
void fromItsEnd(World& world, U32 n) {
  for (U32 i = n; i-- > 0;) world.handle(i);
}
void fromItsStart(World& world, U32 n) {
  for (U32 i = 0; i < n; ++i) world.handle(i);
}
void inAnyOrder(World& world, U32 n) {
  for (U32 const i : shuffled(n)) world.handle(i);
}
void waitingChain(World& world, U32 n) {
  chain(world, n);
  fromItsStart(world, n);
}
void release(World& world, U32 n) {
  world.erase(n);
  world.handle(n);
}

// The same chain beside two entries of another group, of which one waits for the other's priority.
void chainBesideAnother(World& world, U32 n) {
  world.put(n + 1, {n + 4, 1, 1});
  world.put(n + 2, {n + 5, 2, 1});
  world.put(n + 1, {n + 6, 1, 1});
  chain(world, n);
}

// The same chain, all of it waiting; each entry is written once more.
void chainAgain(World& world, U32 n) {
  waitingChain(world, n);
  for (U32 i = 0; i < n; ++i) world.write(i, {i + 1});
}

// Every entry's position is another's.
void permutation(World& world, U32 n) {
  for (U32 i = 0; i < n; ++i) world.put(i, {i});
  std::vector<U32> const target = shuffled(n, 3);
  for (U32 i = 0; i < n; ++i) world.write(i, {target[i]});
}

// Entry n of high priority at position 0 keeps n entries of lower priority from the positions behind it.
void waiters(World& world, U32 n) {
  world.put(n, {0, 2});
  for (U32 const i : shuffled(n)) world.put(i, {i + 1, 1});
}
void moveAcross(World& world, U32 n) { world.put(n, {n + 1, 2}); }
// Each position behind entry n is held by an entry of another group, and claimed by one of its own.
void occupied(World& world, U32 n) {
  world.put(2 * n, {0, 2, 0});
  for (U32 const i : shuffled(n)) world.put(i, {i + 1, 1, 1});
  for (U32 const i : shuffled(n)) world.put(n + i, {i + 1, 1, 0});
}
void moveAcrossInVain(World& world, U32 n) { world.put(2 * n, {n + 1, 2, 0}); }

void written(World& world, U32 n) {
  for (U32 i = 0; i < n; ++i) world.write(i, {i});
}
void standing(World& world, U32 n) {
  written(world, n);
  inAnyOrder(world, n);
  for (U32 i = 0; i < n; ++i) world.erase(i);
}

// n waiters of group 0, and n entries that are each alone in their group.
void loners(World& world, U32 n) {
  world.put(2 * n, {0, 2, 0});
  for (U32 i = 0; i < n; ++i) world.put(n + i, {2 * i + 1, 1, 0});
  for (U32 i = 0; i < n; ++i) world.put(i, {2 * i + 2, 1, static_cast<U16>(i + 1)});
  for (U32 i = 0; i < n; ++i) world.erase(i);
}

std::array const shapes{
    Shape{"chain written from its end", 1'000'000, 0, chain, fromItsEnd, all},
    Shape{"chain written from its start", 1'000'000, 0, chain, fromItsStart, all},
    Shape{"chain written in any order", 1'000'000, 0, chain, inAnyOrder, all},
    Shape{"the same beside one that waits for the order", 1'000'000, 0, chainBesideAnother, inAnyOrder,
          oneMore},
    Shape{"waiting chain written again", 1'000'000, 0, chainAgain, inAnyOrder, all},
    Shape{"waiting chain released", 1'000'000, 0, waitingChain, release, none},
    Shape{"permutation of all positions", 1'000'000, 0, permutation, inAnyOrder, none},
    Shape{"waiters in a range, a move across", 1'000'000, 0, waiters, moveAcross, none},
    Shape{"occupied range, a move across", 1'000'000, 0, occupied, moveAcrossInVain, all},
    Shape{"one priority, added", 1'000'000, 0, written, inAnyOrder, none},
    Shape{"one priority, deleted", 1'000'000, 0, standing, inAnyOrder, none},
    Shape{"lone entries deleted beside waiters", 10'000, 16, loners, inAnyOrder, all},
};

bool const registered = [] {
  for (Shape const& shape : shapes)
    for (U32 const n : {1'000U, 3'000U, 10'000U, 100'000U, 1'000'000U}) {
      if (n > shape.largest) continue;
      auto const side = [&](char const* name, auto run) {
        benchmark::RegisterBenchmark((shape.name + name).c_str(), [&shape, run](benchmark::State& state) {
          run(state, shape);
        })->Arg(n);
      };
#ifdef BENCH_MIXED
      side("/ours", &run<true>);
      side("/floor", &run<false>);
    }
#else
      side("/ours", &run<false>);
    }
  for (U32 const n : {10'000U, 100'000U, 1'000'000U})
    for (bool const room : {false, true})
      benchmark::RegisterBenchmark(
          room ? "longest single key added, room ahead/ours" : "longest single key added/ours",
          room ? &longestKey<true> : &longestKey<false>)
          ->Arg(n)
          ->Iterations(1);
#endif
  return true;
}();

}  // namespace
