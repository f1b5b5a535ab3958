// SPDX-License-Identifier: Apache-2.0
// What a user would write without Vantrel, and Vantrel, on the same edits of the same rule sets: the
// computing time of a write, and what the hardware sees. The size is the name of the rule set.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "bench/peers/workload.h"
#include "bench/report/report.h"

namespace Bench {
namespace {

using Make = std::unique_ptr<Programmer> (*)(Row&);

Workload const& workloadOf(std::string const& path) {
  static std::map<std::string, Workload> made;
  auto const at = made.find(path);
  return at != made.end() ? at->second : made.emplace(path, workload(path)).first->second;
}

// Of this thread, so that what others do on the machine is not in it.
double processorNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double nanosecondsOfAWrite(Workload const& work, Make make) {
  Row row(work.size);
  auto const programmer = make(row);
  double const begin = processorNanoseconds();
  work.run(*programmer, row, false);
  return (processorNanoseconds() - begin) / static_cast<double>(work.writes());
}

// What the hardware sees; always the same, so counted once.
using Counts = std::map<std::string, double>;

Counts counted(Workload const& work, Make make) {
  Row row(work.size, true);
  auto const programmer = make(row);
  work.run(*programmer, row, true);
  if (row.contents() != work.final) throw std::logic_error("the final table is not the one that is wanted");
  return {{"also:hardware operations", static_cast<double>(row.operations())},
          {"also:operations with a rule absent", static_cast<double>(row.gaps())},
          {"also:rules absent, summed over operations", static_cast<double>(row.absences())},
          {"also:rules absent at once", static_cast<double>(row.mostAbsent())},
          {"also:operations that broke the order", static_cast<double>(row.disorders())}};
}

Counts const& countsOf(std::string const& path, Make make) {
  static std::map<std::pair<std::string, Make>, Counts> known;
  auto const at = known.find({path, make});
  if (at != known.end()) return at->second;
  return known.emplace(std::pair(path, make), counted(workloadOf(path), make)).first->second;
}

void programming(benchmark::State& state, std::string const& path, Make make) {
  if (std::filesystem::path const file(path); !std::filesystem::exists(file))
    return state.SkipWithError(
        ("skipped: no " + file.filename().string() + " in ../shared/data/acl").c_str());
  try {
    Workload const& work = workloadOf(path);
    for (auto _ : state) state.counters["ns"] = nanosecondsOfAWrite(work, make);
    for (auto const& [name, value] : countsOf(path, make)) state.counters[name] = value;
  } catch (std::exception const& error) {
    state.SkipWithError(error.what());
  }
}

void add(std::string const& what, char const* side, std::string const& name, std::string const& path,
         Make make) {
  std::string const full = what + "/" + side + "/" + name;
  benchmark::RegisterBenchmark(full.c_str(), [path, make](benchmark::State& state) {
    programming(state, path, make);
  })->Iterations(1);
}

bool registered() {
  setenv("LUMELOG_DISABLE", "1", 1);
  std::pair<char const*, Make> const peers[] = {
      {"a write, beside rescanning", &rescanProgrammer},
      {"a write, beside deleting then adding", &breakMakeProgrammer}};
  for (auto const& [what, peer] : peers)
    for (auto const& [name, path] : ruleSets()) {
      add(what, "ours", name, path, vantrelProgrammer);
      add(what, "peer", name, path, peer);
    }
  return titleIs("Naive peers on the same edits of a rule set",
                 "nanoseconds of computing a write, or a count");
}

[[maybe_unused]] bool const atStart = registered();

}  // namespace
}  // namespace Bench
