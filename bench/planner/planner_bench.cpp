// SPDX-License-Identifier: Apache-2.0
// Edits of rule lists in a row of positions that is nearly full: what the planner writes and how long it
// thinks, beside other schemes on the same edits.
//
//   insert    begins with half of the set, and inserts the others at random until the row is filled so far
//   replace   half of the set lies in a row that is filled so far; a random rule goes, and a random one of
//             the others comes
//
// A figure is the time to plan an edit. The other lines count: the writes of an edit (the new entry, moves,
// and two for a rule under a new key; not the delete of what goes), its 99th percentile, and holes.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <random>

#include "bench/planner/sets.h"
#include "bench/report/report.h"

namespace Bench {
namespace {

constexpr U64 all = ~U64{0};

enum class Edit { Insert, Replace };

struct Case {
  std::string set;
  Edit edit;
  double fill;  // 1: one place is free
  MakeScheme scheme;
};

struct Counts {
  double nanoseconds = 0;  // of an edit
  double writes = 0;
  double worst = 0;  // of 100
  U64 holes = 0;
};

// Of this thread, so that what others do on the machine is not in it.
double processorNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

Rules const& rulesOf(std::string const& set) {
  static std::map<std::string, Rules> known;
  auto const at = known.find(set);
  return at != known.end() ? at->second : known.emplace(set, ruleSet(set)).first->second;
}

class Run {
 public:
  Run(Case const& c, bool checked)
      : case_(c), rules_(rulesOf(c.set)), absent_(rules_.size()), row_(rules_, rowSize(c), checked) {
    for (U32 rule = 0; rule < rules_.size(); ++rule) absent_[rule] = rule;
    std::ranges::shuffle(absent_, random_);
    present_.assign(absent_.begin() + static_cast<std::ptrdiff_t>(rules_.size() / 2), absent_.end());
    absent_.resize(rules_.size() / 2);
  }

  // Ends early after so many writes.
  Counts run(U64 edits, U64 mostWrites) {
    std::vector<U32> list = present_;
    std::ranges::sort(list);
    for (U32 const rule : list) row_.wantedIs(rule, true);
    std::unique_ptr<Scheme> const scheme = case_.scheme(rules_, row_);
    scheme->load(list);
    row_.editDone();
    std::vector<U64> writes;
    double const begin = processorNanoseconds();
    for (U64 done = 0; done < mostWrites && writes.size() < edits && !absent_.empty();
         done += writes.back()) {
      one(*scheme);
      writes.push_back(row_.editDone());
    }
    double const took = processorNanoseconds() - begin;
    return counted(writes, took);
  }

 private:
  static U32 rowSize(Case const& c) {
    std::size_t const n = rulesOf(c.set).size();
    std::size_t const most = c.edit == Edit::Insert ? n : n - n / 2;
    std::size_t const size = static_cast<std::size_t>(std::lround(static_cast<double>(most) / c.fill));
    return static_cast<U32>(std::max(size, most + 1));
  }
  void one(Scheme& scheme) {
    std::swap(absent_[random_() % absent_.size()], absent_.back());
    U32 const comes = absent_.back();
    absent_.pop_back();
    if (case_.edit == Edit::Replace) {
      std::swap(present_[random_() % present_.size()], present_.back());
      absent_.push_back(present_.back());
      row_.wantedIs(present_.back(), false);
      scheme.erase(present_.back());
      present_.pop_back();
    }
    row_.wantedIs(comes, true);
    scheme.insert(comes);
    present_.push_back(comes);
  }
  Counts counted(std::vector<U64>& writes, double took) const {
    double const n = static_cast<double>(writes.size());
    std::ranges::sort(writes);
    double sum = 0;
    for (U64 const w : writes) sum += static_cast<double>(w);
    return {took / n, sum / n, static_cast<double>(writes[(writes.size() - 1) * 99 / 100]), row_.holes()};
  }

  Case const& case_;
  Rules const& rules_;
  std::mt19937 random_{1};
  std::vector<U32> absent_;
  std::vector<U32> present_;
  PlanRow row_;
};

// Checking looks at every entry after every write.
constexpr U64 looks = 100000000;

void measure(benchmark::State& state, Case const& c, U64 edits) {
  try {
    if (brief()) edits = std::min<U64>(edits, 50);
    U64 const holes = Run(c, true).run(edits, looks / rulesOf(c.set).size()).holes;
    for (auto _ : state) {
      Counts const counts = Run(c, false).run(edits, all);
      state.counters["ns"] = counts.nanoseconds;
      state.counters["also:writes"] = counts.writes;
      state.counters["also:writes, 99 of 100"] = counts.worst;
      state.counters["also:holes"] = static_cast<double>(holes);
    }
  } catch (std::exception const& error) {
    state.SkipWithError(error.what());
  }
}

struct Peer {
  char const* name;
  MakeScheme make;
  bool replaces;  // it has an answer to deletes
  bool fills;     // fast enough to insert half of the larger set
  U64 edits;      // replacements in which it is measured
};

constexpr U64 replacements = 10000;

void add(std::string const& title, char const* side, Case const& c, U64 edits) {
  std::string const name = title + "/" + side + "/" + c.set;
  benchmark::RegisterBenchmark(name.c_str(), [c, edits](benchmark::State& state) {
    measure(state, c, edits);
  })->Iterations(1);
}

std::string titleOf(Edit edit, double fill) {
  std::string const what = edit == Edit::Insert ? "insert" : "replace";
  if (fill == 1) return what + ", one place free";
  return fmt::format("{}, {:.3g} %", what, fill * 100);
}

bool registered() {
  Peer const peers[] = {{"list order, nearest gap", nearestGap, true, true, 1000},
                        {"chains of overlaps", dependencyChains, true, false, 300},
                        {"one priority a rule, free block at the end", blockAtEnd, false, true, 0},
                        {"levels known beforehand, free block at the end", levelsAndBlock, false, true, 0}};
  char const* const sets[] = {"fw1_1k", "fw1_10k"};
  for (Edit const edit : {Edit::Insert, Edit::Replace})
    for (double const fill : {0.9, 0.98, 0.999, 1.0}) {
      std::string const title = titleOf(edit, fill);
      U64 const edits = edit == Edit::Insert ? all : replacements;
      for (char const* set :
           {"fw1_1k", "fw1_10k", "acl 1000", "acl 10000", "fw 1000", "fw 10000", "ipc 1000", "ipc 10000"})
        add(title, "ours", {set, edit, fill, planned}, edits);
      for (Peer const& peer : peers)
        for (char const* const set : sets)
          if (edit == Edit::Insert ? peer.fills || set == sets[0] : peer.replaces) {
            U64 const few = edit == Edit::Insert ? all : peer.edits;
            add(title + ", " + peer.name, "ours", {set, edit, fill, planned}, few);
            add(title + ", " + peer.name, "peer", {set, edit, fill, peer.make}, few);
          }
    }
  for (char const* set : {"acl 100000", "fw 100000", "ipc 100000"})
    add("replace, 98 %, many rules", "ours", {set, Edit::Replace, 0.98, planned}, 2000);
  return titleIs("Positions for a list of rules", "nanoseconds of planning an edit, or a count");
}

[[maybe_unused]] bool const atStart = registered();

}  // namespace
}  // namespace Bench
