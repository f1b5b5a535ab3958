// SPDX-License-Identifier: Apache-2.0
#include "bench/engine/timed.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include "vantrel/core/trace.h"

namespace Bench {
namespace {

// As an agent opens it; then its name goes.
Lumelog::Log* opened() {
  std::string directory = (std::filesystem::temp_directory_path() / "engine_bench_XXXXXX").string();
  if (!mkdtemp(directory.data())) return nullptr;
  setenv("LUMELOGDIR", directory.c_str(), 1);
  unsetenv("LUMELOG_DISABLE");
  Vantrel::initLg();
  unsetenv("LUMELOGDIR");
  std::filesystem::remove_all(directory);
  return Vantrel::lg;
}

}  // namespace

void Timed::countersAre(benchmark::State& state, bool withAllocations) const {
  state.counters["ns"] = nsPerKey();
  if (!withAllocations) return;
  auto const keys = static_cast<double>(keys_);
  state.counters["allocs"] = static_cast<double>(own_) / keys;
  state.counters["judyAllocs"] = static_cast<double>(judy_) / keys;
}

bool traceFileIs(bool on) {
  static Lumelog::Log* const log = opened();
  Vantrel::lg = on ? log : nullptr;
  setenv("LUMELOG_DISABLE", "1", 1);  // an engine that is made opens none
  return log;
}

}  // namespace Bench
