// SPDX-License-Identifier: Apache-2.0
// From the producer's write to the acknowledgement that it sees, with another process at the far end.
//
//   one at a time   both sides sleep in between; the median, and what one write in a hundred, one in a
//                   thousand takes longer than
//   at saturation   up to 4096 writes are under way. With so many the producer waits until half of them are
//                   acknowledged, and polls every tenth of a millisecond, because waking it for each would
//                   cost the far end a wake-up each. The time of one
//   a processor each, one processor: where the two ends run, see road.h
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "bench/between/road.h"
#include "bench/report/report.h"

namespace Bench {
namespace {

using Clock = std::chrono::steady_clock;

enum class Side { vantrel, vantrelTracing, bare, redis };

std::unique_ptr<Road> made(Side side, U64 entries) {
  switch (side) {
    case Side::vantrel:
      return vantrelRoad(entries, false);
    case Side::vantrelTracing:
      return vantrelRoad(entries, true);
    case Side::bare:
      return bareRoad(entries);
    case Side::redis:
      return redisRoad(entries);
  }
  throw std::logic_error("no such side");
}

// Made once: the processes of the sides that are not measured sleep.
std::map<std::pair<Side, U64>, std::unique_ptr<Road>> roads;

Road& road(Side side, U64 entries) {
  auto& place = roads[{side, entries}];
  if (!place) place = made(side, entries);
  return *place;
}

double nanosecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

// The smallest value that at least `share` of all do not exceed.
double quantile(std::vector<double> const& sorted, double share) {
  auto const rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
  return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

class Keys {
 public:
  explicit Keys(U64 entries) : any_(1, entries) {}
  U64 operator()() { return any_(random_); }

 private:
  std::mt19937_64 random_{7};
  std::uniform_int_distribution<U64> any_;
};

void oneAtATime(Road& way, Keys& keys, Change change, benchmark::State& state) {
  std::vector<double> all(brief() ? 200 : 5000);
  for (double& ns : all) {
    U64 const key = keys();
    auto const begin = Clock::now();
    way.write(key, change);
    way.await();
    ns = nanosecondsSince(begin);
  }
  std::ranges::sort(all);
  state.counters["ns"] = quantile(all, 0.5);
  state.counters["also:p99"] = quantile(all, 0.99);
  state.counters["also:p99.9"] = quantile(all, 0.999);
}

// Keys in turn: one that is under way is not written again.
void atSaturation(Road& way, U64 entries, Change change, benchmark::State& state) {
  constexpr U64 window = 4096;
  double const long_ = brief() ? 1e7 : 3e8;
  U64 written = 0, acknowledged = 0;
  auto const begin = Clock::now();
  while (written % 64 != 0 || written < 2 * window || nanosecondsSince(begin) < long_) {
    if (written - acknowledged == window)
      while (written - acknowledged > window / 2) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        acknowledged += way.await();
      }
    way.write(1 + written++ % entries, change);
  }
  while (acknowledged < written) acknowledged += way.await();
  state.counters["ns"] = nanosecondsSince(begin) / static_cast<double>(written);
}

template <class Work>
void guarded(benchmark::State& state, Work const& work) {
  try {
    for (auto _ : state) work();
  } catch (Missing const& what) {
    state.SkipWithError((std::string("skipped: ") + what.what()).c_str());
  } catch (std::exception const& what) {
    state.SkipWithError(what.what());
  }
}

struct Case {
  Side side;
  Change change;
  Place place;
};

Road& roadOf(Case const& c, U64 entries) {
  Road& way = road(c.side, entries);
  way.placeIs(c.place);
  return way;
}

void latency(benchmark::State& state, Case c) {
  auto const entries = static_cast<U64>(state.range(0));
  guarded(state, [&] {
    Keys keys(entries);
    oneAtATime(roadOf(c, entries), keys, c.change, state);
  });
}

void saturation(benchmark::State& state, Case c) {
  auto const entries = static_cast<U64>(state.range(0));
  guarded(state, [&] { atSaturation(roadOf(c, entries), entries, c.change, state); });
}

using Run = void (*)(benchmark::State&, Case);

void add(std::string const& what, char const* name, Run run, Case c) {
  int const few = run == saturation ? 10'000 : 1000;  // more than are under way
  benchmark::RegisterBenchmark((what + "/" + name).c_str(), run, c)->Arg(few)->Arg(100'000)->Iterations(1);
}

void besideOthers(std::string const& what, Run run, Change change, Place place) {
  add(what, "ours", run, {Side::vantrel, change, place});
  add(what, "floor", run, {Side::bare, change, place});
  add(what, "peer", run, {Side::redis, change, place});
}

bool registered() {
  besideOthers("update, a processor each", latency, Change::update, Place::apart);
  besideOthers("update, one processor", latency, Change::update, Place::together);
  besideOthers("move, a processor each", latency, Change::move, Place::apart);
  add("update, a processor each, agent with trace file", "ours", latency,
      {Side::vantrelTracing, Change::update, Place::apart});
  add("update, a processor each, agent with trace file", "floor", latency,
      {Side::bare, Change::update, Place::apart});
  besideOthers("updates at saturation", saturation, Change::update, Place::apart);
  besideOthers("moves at saturation", saturation, Change::move, Place::apart);
  atEnd([] { roads.clear(); });
  return titleIs("From a write to its acknowledgement in another process", "nanoseconds");
}

[[maybe_unused]] bool const atStart = registered();

}  // namespace
}  // namespace Bench
