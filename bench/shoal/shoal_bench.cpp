// SPDX-License-Identifier: Apache-2.0
// A shared table beside LMDB and beside its floor: reads, walks, writes.
//
//   read       one at a time: a fence stands between two, on all sides, so that what is measured is what a
//              caller waits. "Read, overlapping" is without the fence: the processor then works on the cache
//              misses of the next reads during this one's, the more the less there is around them. The floor
//              finds the record's slot in the same mapped file by a plain hash probe and copies what is in
//              use into a record: the same bytes to the same object, without a check of anything. "Whole
//              images" has the floor of a table that knows nothing of what is in a record: the probe and a
//              copy of all its 616 bytes. "Bytes alone" has the hardest: the probe and a copy of the 80 bytes
//              in use, whose number the compiler knows. "Watched and validated" is a table that somebody
//              watches, with a validator, as an agent's is.
//   walk       the floor copies as many bytes as a whole image has from every slot, in the order of memory.
//   writes     LMDB commits each, without synchronisation to disk.
//   growing    from an empty table to one of this size, each write timed by itself, the clock's reading
//              included: the mean, and what the slowest cost, which took chunks of the file.
//
// Times are of the processor, in slices so short that most are not interrupted; a slice's median.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <numeric>

#include "bench/report/report.h"
#include "bench/report/table.h"
#include "bench/shoal/world.h"
#ifdef SHOAL_BENCH_LMDB
#include "bench/shoal/lmdb_store.h"
#endif

namespace ShoalBench {
namespace {

constexpr std::size_t inUse = 80;  // bytes of such a record in its slot
constexpr U64 batch = 2000;

double processorNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Nanoseconds an operation.
template <class Work>
double timed(U64 operations, Work work) {
  double const began = processorNanoseconds();
  work();
  return (processorNanoseconds() - began) / static_cast<double>(operations);
}

U64 records(benchmark::State const& state) { return static_cast<U64>(state.range(0)); }
World& toRead(benchmark::State const& state) { return World::of(records(state), World::Use::read); }
World& toWrite(benchmark::State const& state) { return World::of(records(state), World::Use::write); }

#ifdef SHOAL_BENCH_LMDB
LmdbStore& lmdb(benchmark::State const& state) {
  static std::map<U64, std::unique_ptr<LmdbStore>> all;
  auto& store = all[records(state)];
  if (store) return *store;
  store = std::make_unique<LmdbStore>(directory() + "/lmdb" + std::to_string(records(state)), records(state));
  std::vector<Config> filling;
  for (U64 const key : toRead(state).keys) filling.push_back(record(key, 1));
  store->fill(filling);
  return *store;
}
#endif

enum class Manner { oneByOne, overlapping };

template <Manner manner>
void betweenReads() {
#ifdef __x86_64__
  if constexpr (manner == Manner::oneByOne) asm volatile("lfence" : : : "memory");
#else
  if constexpr (manner == Manner::oneByOne) std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

template <Manner manner, class Read>
void reads(benchmark::State& state, std::vector<U64> const& order, Read read) {
  constexpr std::size_t slice = 500;
  std::vector<double> all;
  for (U64 const key : order) read(key);  // once for the caches
  for (auto _ : state)
    for (std::size_t from = 0; from + slice <= order.size(); from += slice)
      all.push_back(timed(slice, [&] {
        for (std::size_t i = from; i < from + slice; ++i) {
          read(order[i]);
          betweenReads<manner>();
        }
      }));
  state.counters["ns"] = Bench::median(std::move(all));
}

template <Manner manner>
void read(benchmark::State& state) {
  World& world = toRead(state);
  reads<manner>(state, world.order, [&](U64 key) {
    Config const r = world.reader.entry(EntryKey(key));
    benchmark::DoNotOptimize(&r);
    benchmark::ClobberMemory();
  });
  state.counters["bytes a record"] =
      static_cast<double>(world.view.mapping().fileBytes()) / static_cast<double>(records(state));
}
template <Manner manner>
void readWatched(benchmark::State& state) {
  World& world = toRead(state);
  reads<manner>(state, world.order, [&](U64 key) {
    Config const r = world.watched->entry(EntryKey(key));
    benchmark::DoNotOptimize(&r);
    benchmark::ClobberMemory();
  });
}
template <Manner manner>
void readFloor(benchmark::State& state) {
  World& world = toRead(state);
  reads<manner>(state, world.order, [&](U64 key) {
    Config const r = decodedSlot(world.plain.find(key));
    benchmark::DoNotOptimize(&r);
    benchmark::ClobberMemory();
  });
}
template <Manner manner, std::size_t bytes>
void readFloorBytes(benchmark::State& state) {
  World& world = toRead(state);
  reads<manner>(state, world.order, [&](U64 key) {
    std::byte copy[bytes];
    std::memcpy(copy, world.plain.find(key), bytes);
    benchmark::DoNotOptimize(&copy);
    benchmark::ClobberMemory();
  });
}

void walk(benchmark::State& state) {
  World& world = toRead(state);
  std::vector<double> all;
  for (auto _ : state)
    all.push_back(timed(records(state), [&] {
      for (auto place = world.reader.first(); place; place = world.reader.next(*place)) {
        Config const r = world.reader.entry(place->key);
        benchmark::DoNotOptimize(&r);
        benchmark::ClobberMemory();
      }
    }));
  state.counters["ns"] = Bench::median(std::move(all));
}
void walkFloor(benchmark::State& state) {
  World& world = toRead(state);
  std::vector<std::byte> copies(records(state) * Traits::bytes);
  std::vector<double> all;
  for (auto _ : state)
    all.push_back(timed(records(state), [&] {
      std::byte* to = copies.data();
      for (std::byte const* slot : world.plain.slots()) {
        std::memcpy(to, slot, Traits::bytes);
        to += Traits::bytes;
      }
      benchmark::ClobberMemory();
    }));
  state.counters["ns"] = Bench::median(std::move(all));
}

U64 freshKey(U64 number) { return number * 0x9E3779B97F4A7C15U; }  // even numbers are never a world's own

template <class Store>
void replaces(benchmark::State& state, World& world, Store& store) {
  std::vector<double> all;
  std::size_t at = 0;
  for (auto _ : state)
    all.push_back(timed(batch, [&] {
      for (U64 i = 0; i < batch; ++i, at = (at + 1) % world.order.size())
        store.entryIs(record(world.order[at], ++world.version));
    }));
  state.counters["ns"] = Bench::median(std::move(all));
}

enum class Half { inserts, removes };

// New records come and go again: one half is what is asked for.
template <class Store, class Remove>
void comings(benchmark::State& state, World& world, Store& store, Remove remove, Half half) {
  std::vector<double> all;
  for (auto _ : state) {
    U64 const first = world.nextKey;
    world.nextKey += 2 * batch;
    double const insert = timed(batch, [&] {
      for (U64 k = first; k < world.nextKey; k += 2) store.entryIs(record(freshKey(k), 1));
    });
    double const removed = timed(batch, [&] {
      for (U64 k = first; k < world.nextKey; k += 2) remove(freshKey(k));
    });
    all.push_back(half == Half::inserts ? insert : removed);
  }
  state.counters["ns"] = Bench::median(std::move(all));
}

void grow(benchmark::State& state) {
  std::string const path = directory() + "/growing";
  std::vector<double> all;
  for (auto _ : state) {
    all.clear();
    Shoal::WriterTable<Config> writer(path, {.replace = true});
    for (U64 k = 0; k < records(state); ++k)
      all.push_back(timed(1, [&] { writer.entryIs(record(freshKey(k), 1)); }));
  }
  std::filesystem::remove_all(path);
  state.counters["ns"] = std::accumulate(all.begin(), all.end(), 0.0) / static_cast<double>(all.size());
  std::ranges::sort(all);
  state.counters["also:p99.9"] = all[all.size() - all.size() / 1000 - 1];
  state.counters["also:longest write"] = all.back();
}

void replace(benchmark::State& state) { replaces(state, toWrite(state), toWrite(state).writer); }
template <Half half>
void coming(benchmark::State& state) {
  World& world = toWrite(state);
  comings(
      state, world, world.writer, [&](U64 key) { world.writer.entryDel(EntryKey(key)); }, half);
}

#ifdef SHOAL_BENCH_LMDB
template <Manner manner>
void lmdbRead(benchmark::State& state) {
  LmdbStore& store = lmdb(state);
  reads<manner>(state, toRead(state).order, [&](U64 key) {
    Config const r = store.entry(key);
    benchmark::DoNotOptimize(&r);
    benchmark::ClobberMemory();
  });
}
void lmdbReplace(benchmark::State& state) { replaces(state, toRead(state), lmdb(state)); }
template <Half half>
void lmdbComing(benchmark::State& state) {
  LmdbStore& store = lmdb(state);
  comings(
      state, toRead(state), store, [&](U64 key) { store.entryDel(key); }, half);
}
#else
void noLmdb(benchmark::State& state) { state.SkipWithError("skipped: LMDB is not installed"); }
template <Manner>
constexpr auto lmdbRead = noLmdb;
constexpr auto lmdbReplace = noLmdb;
template <Half>
constexpr auto lmdbComing = noLmdb;
#endif

void sizes(benchmark::internal::Benchmark* one) { one->Arg(10000)->Arg(100000)->Arg(1000000); }

constexpr Manner oneByOne = Manner::oneByOne;
constexpr Manner overlapping = Manner::overlapping;

BENCHMARK(read<oneByOne>)->Name("read/ours")->Apply(sizes);
BENCHMARK(readFloor<oneByOne>)->Name("read/floor")->Apply(sizes);
BENCHMARK(lmdbRead<oneByOne>)->Name("read/peer")->Apply(sizes);
BENCHMARK(read<oneByOne>)->Name("read, whole images/ours")->Apply(sizes);
BENCHMARK(readFloorBytes<oneByOne, Traits::bytes>)->Name("read, whole images/floor")->Apply(sizes);
BENCHMARK(read<oneByOne>)->Name("read, bytes alone/ours")->Apply(sizes);
BENCHMARK(readFloorBytes<oneByOne, inUse>)->Name("read, bytes alone/floor")->Apply(sizes);
BENCHMARK(read<overlapping>)->Name("read, overlapping/ours")->Apply(sizes);
BENCHMARK(readFloor<overlapping>)->Name("read, overlapping/floor")->Apply(sizes);
BENCHMARK(lmdbRead<overlapping>)->Name("read, overlapping/peer")->Apply(sizes);
BENCHMARK(readWatched<oneByOne>)->Name("read, watched and validated/ours")->Apply(sizes);
BENCHMARK(readFloor<oneByOne>)->Name("read, watched and validated/floor")->Apply(sizes);
BENCHMARK(lmdbRead<oneByOne>)->Name("read, watched and validated/peer")->Apply(sizes);
BENCHMARK(readWatched<overlapping>)->Name("read, overlapping, watched and validated/ours")->Apply(sizes);
BENCHMARK(readFloor<overlapping>)->Name("read, overlapping, watched and validated/floor")->Apply(sizes);
BENCHMARK(lmdbRead<overlapping>)->Name("read, overlapping, watched and validated/peer")->Apply(sizes);
BENCHMARK(read<overlapping>)->Name("read, overlapping, whole images/ours")->Apply(sizes);
BENCHMARK(readFloorBytes<overlapping, Traits::bytes>)
    ->Name("read, overlapping, whole images/floor")
    ->Apply(sizes);
BENCHMARK(read<overlapping>)->Name("read, overlapping, bytes alone/ours")->Apply(sizes);
BENCHMARK(readFloorBytes<overlapping, inUse>)->Name("read, overlapping, bytes alone/floor")->Apply(sizes);
BENCHMARK(walk)->Name("walk/ours")->Apply(sizes);
BENCHMARK(walkFloor)->Name("walk/floor")->Apply(sizes);
BENCHMARK(coming<Half::inserts>)->Name("insert/ours")->Apply(sizes);
BENCHMARK(lmdbComing<Half::inserts>)->Name("insert/peer")->Apply(sizes);
BENCHMARK(grow)->Name("growing/ours")->Apply(sizes)->Iterations(1);
BENCHMARK(replace)->Name("replace/ours")->Apply(sizes);
BENCHMARK(lmdbReplace)->Name("replace/peer")->Apply(sizes);
BENCHMARK(coming<Half::removes>)->Name("remove/ours")->Apply(sizes);
BENCHMARK(lmdbComing<Half::removes>)->Name("remove/peer")->Apply(sizes);

bool const titled = Bench::titleIs(
    "Shared tables: 616-byte records, 1 table index, 4 data words; the peer is LMDB, a transaction each",
    "nanoseconds an operation");

}  // namespace
}  // namespace ShoalBench
