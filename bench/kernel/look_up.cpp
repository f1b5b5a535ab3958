// SPDX-License-Identifier: Apache-2.0
// What a packet costs that is looked up in the software TCAM, and one that passes a chain of nftables with
// the same rules; each net of what the same packet costs where there are no rules.
#include <benchmark/benchmark.h>

#include "bench/kernel/nft_chain.h"
#include "bench/kernel/packets.h"
#include "bench/kernel/table.h"
#include "bench/report/report.h"

using namespace Bench;

namespace {

[[maybe_unused]] bool const titled = titleIs("A table in the kernel", "nanoseconds");

double ours(std::vector<Acl::Rule> const& rules) {
  auto const tcam = tableOf(rules);
  auto const frames = framesFor(rules);
  double const cost = costOf(tcam->program().fd(), frames) - costOf(passingProgram(), frames);
  if (tcam->undecided(noEntryMatches) != 0) throw std::runtime_error("a packet met no rule");
  return cost;
}

double peer(std::vector<Acl::Rule> const& rules) {
  NftChain chain;
  auto const frames = framesFor(rules);
  chain.load({});
  double const empty = costInStack(frames);
  chain.load(rules);
  return costInStack(frames) - empty;
}

template <class Cost>
void lookUp(benchmark::State& state, std::string const& set, Cost cost) try {
  ownNetwork();
  auto const rules = rulesOf(set);
  for (auto _ : state) state.counters["ns"] = cost(rules);
} catch (std::runtime_error const& e) {
  state.SkipWithError(e.what());
}

[[maybe_unused]] bool const registered = [] {
  for (std::string const set : {"100", "1000", "10000", "65536", "fw1_1k", "fw1_10k"}) {
    benchmark::RegisterBenchmark(("a look-up/ours/" + set).c_str(), [set](benchmark::State& s) {
      lookUp(s, set, ours);
    })->Iterations(1);
    benchmark::RegisterBenchmark(("a look-up/peer/" + set).c_str(), [set](benchmark::State& s) {
      lookUp(s, set, peer);
    })->Iterations(1);
  }
  return true;
}();

}  // namespace
