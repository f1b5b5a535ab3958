// SPDX-License-Identifier: Apache-2.0
// What an edit costs: the calls that the engine makes to the software TCAM, their drains included, beside the
// transactions that do the same to a chain of nftables. No packet goes meanwhile, but in one case.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bench/kernel/nft_chain.h"
#include "bench/kernel/packets.h"
#include "bench/kernel/table.h"
#include "bench/report/report.h"

using namespace Bench;
using Vantrel::EntryKey;

namespace {

constexpr U32 edits = 200;
constexpr U32 peerEdits = 20;

template <class Edit>
double nanosecondsEach(U32 times, Edit edit) {
  auto const begin = std::chrono::steady_clock::now();
  for (U32 i = 0; i < times; ++i) edit(i);
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count() / times;
}

// Rules in turn, a stride apart that shares no factor with most counts.
std::size_t nth(std::size_t count, U32 i) { return i * std::size_t{7919} % count; }

class Ours {
 public:
  explicit Ours(std::vector<Acl::Rule> const& rules) : rules_(rules), tcam_(tableOf(rules)) {
    for (U32 i = 0; i < rules.size(); ++i) at_.push_back(i);
  }

  double changes() {
    return nanosecondsEach(edits, [this](U32 i) {
      auto const key = static_cast<U32>(nth(rules_.size(), i));
      write(*tcam_, rules_[key], key, at_[key], ++version_);
    });
  }
  // To the free position, which its own is after that.
  double moves() {
    return nanosecondsEach(edits, [this](U32 i) {
      auto const key = static_cast<U32>(nth(rules_.size(), i));
      write(*tcam_, rules_[key], key, free_, ++version_);
      tcam_->erase(EntryKey(key), at_[key], 0);
      std::swap(free_, at_[key]);
    });
  }
  Hw::XdpTcam& tcam() { return *tcam_; }

 private:
  std::vector<Acl::Rule> const& rules_;
  std::unique_ptr<Hw::XdpTcam> tcam_;
  std::vector<U32> at_;  // by key
  U32 free_ = static_cast<U32>(rules_.size());
  U64 version_ = 1;
};

// Packets through a table, as many as one processor can send.
class Traffic {
 public:
  Traffic(int program, XdpTest::Bytes frame)
      : thread_([this, program, frame = std::move(frame)] {
          while (!stops_) costOf(program, {frame});
        }) {}
  ~Traffic() {
    stops_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stops_ = false;
  std::thread thread_;
};

double movesUnderTraffic(std::vector<Acl::Rule> const& rules) {
  Ours ours(rules);
  Traffic const traffic(ours.tcam().program().fd(), framesFor(rules).back());
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return ours.moves();
}

class Peer {
 public:
  explicit Peer(std::vector<Acl::Rule> const& rules) : count_(rules.size()) {
    chain_.load(rules);
    chain_.replace(0);
  }
  double changes() {
    return nanosecondsEach(peerEdits, [this](U32 i) { chain_.replace(nth(count_, i)); });
  }
  double moves() {
    return nanosecondsEach(peerEdits, [this](U32 i) { chain_.moveToFront(nth(count_, i + 1)); });
  }

 private:
  std::size_t count_;
  NftChain chain_;
};

double wholeSetOurs(std::vector<Acl::Rule> const& rules) {
  auto const tcam = tableOf(rules);
  return nanosecondsEach(1, [&](U32) {
    for (U32 i = 0; i < rules.size(); ++i) write(*tcam, rules[i], i, i, 2);
  });
}

double wholeSetPeer(std::vector<Acl::Rule> const& rules) {
  NftChain chain;
  chain.load(rules);
  return nanosecondsEach(1, [&](U32) { chain.load(rules); });
}

template <class Cost>
void edit(benchmark::State& state, std::string const& set, Cost cost) try {
  ownNetwork();
  auto const rules = rulesOf(set);
  for (auto _ : state) state.counters["ns"] = cost(rules);
} catch (std::runtime_error const& e) {
  state.SkipWithError(e.what());
}

template <class Cost>
void add(std::string const& name, std::string const& set, Cost cost) {
  benchmark::RegisterBenchmark((name + '/' + set).c_str(), [set, cost](benchmark::State& s) {
    edit(s, set, cost);
  })->Iterations(1);
}

[[maybe_unused]] bool const registered = [] {
  using Rules = std::vector<Acl::Rule>;
  for (std::string const set : {"100", "1000", "10000", "fw1_10k"}) {
    add("change of a rule/ours", set, [](Rules const& r) { return Ours(r).changes(); });
    add("change of a rule/peer", set, [](Rules const& r) { return Peer(r).changes(); });
    add("move of a rule/ours", set, [](Rules const& r) { return Ours(r).moves(); });
    add("move of a rule/peer", set, [](Rules const& r) { return Peer(r).moves(); });
    add("move of a rule under traffic/ours", set, movesUnderTraffic);
    add("the whole set anew/ours", set, wholeSetOurs);
    add("the whole set anew/peer", set, wholeSetPeer);
  }
  return true;
}();

}  // namespace
