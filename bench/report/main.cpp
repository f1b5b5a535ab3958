// SPDX-License-Identifier: Apache-2.0
// Runs the registered benchmarks case by case and size by size, the sides of each in turn.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/report/report.h"
#include "bench/report/table.h"

namespace Bench {
namespace {

struct Options {
  bool json = false;
  bool brief = false;
  std::string filter = ".";
  int repetitions = 9;
  std::vector<std::string> further;  // Google Benchmark's own
};

struct Title {
  std::string title, unit;
};
// Both made before their first use: other files' globals set them.
Title& theTitle() {
  static Title title;
  return title;
}
std::vector<std::function<void()>>& endings() {
  static std::vector<std::function<void()>> all;
  return all;
}
bool isBrief = false;

// What is compared with one another: one case at one size.
struct Match {
  Name name;  // of its first side
  std::vector<std::string> benchmarks;
};

class Gatherer : public benchmark::BenchmarkReporter {
 public:
  explicit Gatherer(Table& table) : table_(table) {}
  bool ReportContext(Context const&) override { return true; }
  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs)
      if (run.run_type == Run::RT_Iteration) gather(run);
  }
  bool failed() const { return failed_; }

 private:
  void gather(Run const& run) {
    Name const name = Name::parsed(run.benchmark_name());
    if (run.error_occurred) {
      table_.note(fmt::format("{}, {}: {}", name.what, name.side, run.error_message));
      failed_ |= !run.error_message.starts_with("skipped:");
      return;
    }
    std::map<std::string, double> figures;
    for (auto const& [key, counter] : run.counters) figures[key] = counter.value;
    double const seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
    figures.try_emplace("ns", seconds * 1e9);
    table_.add(name, figures);
  }

  Table& table_;
  bool failed_ = false;
};

void flagsAre(std::vector<std::string> words) {
  words.insert(words.begin(), "bench");
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  int argc = static_cast<int>(argv.size());
  benchmark::Initialize(&argc, argv.data());
  if (argc > 1)
    throw std::invalid_argument(fmt::format("unknown flag {}; see bench/report/report.h", argv[1]));
}

void prepare(Options const& o) {
  std::vector<std::string> words{"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=1",
                                 fmt::format("--benchmark_min_time={}", o.brief ? "0.001" : "0.1")};
  words.insert(words.end(), o.further.begin(), o.further.end());
  flagsAre(words);
}

std::vector<std::string> namesMatching(std::string const& filter) {
  Table none("", "", "");
  Gatherer gatherer(none);
  std::ostringstream out;
  gatherer.SetOutputStream(&out);
  flagsAre({"--benchmark_list_tests=true"});
  benchmark::RunSpecifiedBenchmarks(&gatherer, filter);
  flagsAre({"--benchmark_list_tests=false"});
  std::vector<std::string> names;
  std::istringstream in(out.str());
  for (std::string name; std::getline(in, name);) names.push_back(name);
  return names;
}

std::vector<Match> matches(std::vector<std::string> const& names) {
  std::vector<Match> all;
  for (std::string const& full : names) {
    Name const name = Name::parsed(full);
    auto const same = [&](Match const& m) { return m.name.what == name.what && m.name.size == name.size; };
    auto at = std::ranges::find_if(all, same);
    if (at == all.end()) at = all.insert(all.end(), Match{name, {}});
    at->benchmarks.push_back(full);
  }
  return all;
}

// By number where sizes are numbers; the first one registered where they are words.
bool smaller(std::string const& a, std::string const& b) {
  return a.find_first_not_of("0123456789") == std::string::npos &&
         (a.size() < b.size() || (a.size() == b.size() && a < b));
}

std::vector<Match> smallest(std::vector<Match> const& all) {
  std::vector<Match> kept;
  for (Match const& m : all) {
    auto const same = [&](Match const& k) { return k.name.what == m.name.what; };
    auto const at = std::ranges::find_if(kept, same);
    if (at == kept.end())
      kept.push_back(m);
    else if (smaller(m.name.size, at->name.size))
      *at = m;
  }
  return kept;
}

std::string exactly(std::vector<std::string> const& names) {
  std::string regex;
  for (std::string const& name : names) {
    regex += regex.empty() ? "^(" : "|";
    for (char const c : name) {
      if (std::string_view(".^$*+?()[]{}|\\").find(c) != std::string_view::npos) regex += '\\';
      regex += c;
    }
  }
  return regex + ")$";
}

void progress(std::string const& text) {
  static bool const terminal = isatty(STDERR_FILENO) == 1;
  if (terminal) fmt::print(stderr, "\r\x1b[K{}", text);
}

// In rounds: what is compared with one another stands beside one another in time.
void run(std::vector<Match> const& all, Gatherer& gatherer, int rounds) {
  for (std::size_t i = 0; i < all.size(); ++i) {
    progress(fmt::format("{} of {}: {}, {}", i + 1, all.size(), all[i].name.what, all[i].name.size));
    std::string const sides = exactly(all[i].benchmarks);
    for (int round = 0; round < rounds; ++round) benchmark::RunSpecifiedBenchmarks(&gatherer, sides);
  }
  progress("");
}

int positive(std::string const& flag, std::string const& text) {
  int value = 0;
  auto const end = std::from_chars(text.data(), text.data() + text.size(), value);
  if (end.ec != std::errc() || end.ptr != text.data() + text.size() || value < 1)
    throw std::invalid_argument(fmt::format("{}: expected a positive number", flag));
  return value;
}

Options parsed(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string const word = argv[i];
    if (word == "--json")
      o.json = true;
    else if (word == "--brief")
      o.brief = true;
    else if (word.starts_with("--filter="))
      o.filter = word.substr(9);
    else if (word.starts_with("--repetitions="))
      o.repetitions = positive(word, word.substr(14));
    else
      o.further.push_back(word);
  }
  return o;
}

std::string groupOf(char const* program) {
  std::string name = std::filesystem::path(program).filename().string();
  if (name.ends_with("_bench")) name.resize(name.size() - 6);
  std::ranges::replace(name, '_', ' ');
  return name;
}

int work(int argc, char** argv) {
  Options const o = parsed(argc, argv);
  isBrief = o.brief;
  prepare(o);
  std::string const group = groupOf(argv[0]);
  Title const& title = theTitle();
  Table table(group, title.title.empty() ? group : title.title,
              title.title.empty() ? "nanoseconds" : title.unit);
  Gatherer gatherer(table);
  std::vector<Match> all = matches(namesMatching(o.filter));
  if (o.brief) all = smallest(all);
  if (all.empty()) throw std::invalid_argument(fmt::format("no benchmark matches --filter={}", o.filter));
  run(all, gatherer, o.brief ? 1 : o.repetitions);
  for (auto const& work : endings()) work();
  std::cout << (o.json ? table.json().dump(2) + '\n' : table.text());
  return gatherer.failed() ? 1 : 0;
}

}  // namespace

bool titleIs(std::string title, std::string unit) {
  theTitle() = {std::move(title), std::move(unit)};
  return true;
}

void atEnd(std::function<void()> work) { endings().push_back(std::move(work)); }

bool brief() { return isBrief; }

}  // namespace Bench

int main(int argc, char** argv) {
  try {
    return Bench::work(argc, argv);
  } catch (std::exception const& e) {
    fmt::print(stderr, "{}: {}\n", argv[0], e.what());
    return 2;
  }
}
