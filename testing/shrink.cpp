// SPDX-License-Identifier: Apache-2.0
#include "testing/shrink.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace Testing {

namespace {

Scenario without(Scenario const& scenario, std::size_t from, std::size_t count) {
  Scenario rest = scenario;
  auto const at = rest.steps.begin() + static_cast<std::ptrdiff_t>(from);
  rest.steps.erase(at, at + static_cast<std::ptrdiff_t>(std::min(count, scenario.steps.size() - from)));
  return rest;
}

// Makes one pass over the scenario. Returns whether a piece could be removed.
bool takeOut(Scenario& scenario, std::size_t piece, std::function<bool(Scenario const&)> const& fails) {
  bool any = false;
  for (std::size_t from = 0; from < scenario.steps.size();) {
    Scenario rest = without(scenario, from, piece);
    if (fails(rest)) {
      scenario = std::move(rest);
      any = true;
    } else {
      from += piece;
    }
  }
  return any;
}

}  // namespace

Scenario shrink(Scenario scenario, std::function<bool(Scenario const&)> const& fails) {
  for (std::size_t piece = scenario.steps.size() / 2 + 1; piece > 0;) {
    bool const any = takeOut(scenario, piece, fails);
    if (!any || piece > 1) piece /= 2;
  }
  return scenario;
}

bool failsApart(std::function<bool()> const& check) {
  std::fflush(nullptr);
  pid_t const child = fork();
  if (child == 0) {
    std::freopen("/dev/null", "w", stderr);
    _exit(check() ? 1 : 0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return true;
  return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
}

std::string keep(Scenario const& scenario, std::string const& name) {
  char const* const wanted = std::getenv("VANTREL_FAILURES");
  std::filesystem::path const directory = wanted ? wanted : std::filesystem::temp_directory_path().string();
  std::filesystem::create_directories(directory);
  std::filesystem::path const path = directory / (name + ".jsonl");
  std::ofstream(path) << print(scenario);
  return path.string();
}

}  // namespace Testing
