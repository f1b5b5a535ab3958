// SPDX-License-Identifier: Apache-2.0
// What tracing costs: a record of two values beside its floor, which reads the same clock and copies the same
// bytes, and beside the same message through spdlog to a file and through a tracepoint of LTTng-UST; a
// facility trace that is off beside the empty loop.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include "bench/report/report.h"
#include "bench/trace/lttng.h"
#include "lumelog/lumelog.h"
#include "vantrel/core/entry.h"
#include "vantrel/core/trace.h"

namespace {

using Vantrel::EntryKey;
using Vantrel::vantrelFastImplTrace;

constexpr std::size_t ringBytes = 16384 * 1024;
constexpr std::size_t recordBytes = 32;  // of the message below

class TempDir {
 public:
  TempDir() : path_((std::filesystem::temp_directory_path() / "trace-bench-XXXXXX").string()) {
    if (!mkdtemp(path_.data())) throw std::system_error(errno, std::generic_category(), path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// A log with the ring sizes of the library, its file's pages touched once, as after the ring's first turn.
class WarmLog {
 public:
  WarmLog() {
    Lumelog::Options options;
    options.kib.fill(64);
    options.kib[9] = ringBytes / 1024;
    log_ = Lumelog::open(dir_ / "a.lg", options);
    for (std::size_t i = 0; log_ && i < ringBytes / recordBytes; ++i) record(i);
  }
  ~WarmLog() { Lumelog::close(log_); }
  void record(U64 i) { LUMELOG_RECORD(log_, 9, 1u, "key:", EntryKey(i), " hdl:", static_cast<U32>(i)); }
  bool ok() const { return log_; }

 private:
  TempDir dir_;
  Lumelog::Log* log_ = nullptr;
};

// Reading the clock and copying as many bytes, through as much memory.
class Floor {
 public:
  void copy(U64 i) {
    U64 const record[4] = {ticks_.now(), i, i, i};
    static_assert(sizeof record == recordBytes);
    std::memcpy(memory_.data() + at_, record, sizeof record);
    benchmark::ClobberMemory();
    at_ = (at_ + recordBytes) % ringBytes;
  }

 private:
  Lumelog::Ticks ticks_;
  std::vector<std::byte> memory_ = std::vector<std::byte>(ringBytes);
  std::size_t at_ = 0;
};

void record(benchmark::State& state) {
  WarmLog log;
  if (!log.ok()) return state.SkipWithError("the trace file cannot be opened");
  U64 i = 0;
  for (auto _ : state) log.record(i++);
}

void copy(benchmark::State& state) {
  Floor floor;
  for (std::size_t i = 0; i < ringBytes / recordBytes; ++i) floor.copy(i);
  U64 i = 0;
  for (auto _ : state) floor.copy(i++);
}

void spdlogToAFile(benchmark::State& state) {
  TempDir dir;
  auto const sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(dir / "a.log");
  spdlog::logger logger("bench", sink);
  U64 i = 0;
  for (auto _ : state) {
    logger.info("key:{} hdl:{}", i, static_cast<U32>(i));
    ++i;
  }
}

void lttng(benchmark::State& state) {
  TempDir dir;
  for (auto _ : state) {
    auto const ns = TraceBench::lttngNanoseconds(dir.path());
    if (std::holds_alternative<double>(ns))
      state.counters["ns"] = std::get<double>(ns);
    else
      state.SkipWithError(("skipped: " + std::get<std::string>(ns)).c_str());
  }
}

BENCHMARK(record)->Name("a record beside spdlog to a file/ours/two values");
BENCHMARK(copy)->Name("a record beside spdlog to a file/floor/two values");
BENCHMARK(spdlogToAFile)->Name("a record beside spdlog to a file/peer/two values");
BENCHMARK(record)->Name("a record beside LTTng-UST/ours/two values");
BENCHMARK(copy)->Name("a record beside LTTng-UST/floor/two values");
BENCHMARK(lttng)->Name("a record beside LTTng-UST/peer/two values")->Iterations(1);

// A page of the file that is touched for the first time.
void firstTurn(benchmark::State& state) {
  TempDir dir;
  Lumelog::Options options;
  options.kib.fill(64);
  options.kib[9] = ringBytes / 1024;
  Lumelog::Log* const log = Lumelog::open(dir / "a.lg", options);
  U64 i = 0;
  for (auto _ : state) {
    LUMELOG_RECORD(log, 9, 1u, "key:", EntryKey(i), " hdl:", static_cast<U32>(i));
    ++i;
  }
  Lumelog::close(log);
}
BENCHMARK(firstTurn)
    ->Name("a record in the first turn of its ring/ours/two values")
    ->Iterations(ringBytes / recordBytes);

void nullLog(benchmark::State& state) {
  Lumelog::Log* volatile none = nullptr;
  for (auto _ : state) LUMELOG_RECORD(none, 9, 1u, "key:", EntryKey(5), " hdl:", 5U);
}
BENCHMARK(nullLog)->Name("a record without a trace file/ours/two values");

void emptyLoop(benchmark::State& state) {
  for (auto _ : state) benchmark::ClobberMemory();
}

void facilityOff(benchmark::State& state) {
  Vantrel::traceSettingIs("");
  EntryKey const key(5);
  U64 i = 0;
  for (auto _ : state) {
    VANTREL_TRACE(vantrelFastImplTrace(), 8, "key:", key, " i:", i);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(facilityOff)->Name("a facility trace that is off/ours/two values");
BENCHMARK(emptyLoop)->Name("a facility trace that is off/floor/two values");

void processorsClock(benchmark::State& state) {
  Lumelog::Ticks const ticks;
  for (auto _ : state) benchmark::DoNotOptimize(ticks.now());
}

void systemsClock(benchmark::State& state) {
  timespec t;
  for (auto _ : state) benchmark::DoNotOptimize(clock_gettime(CLOCK_MONOTONIC, &t));
}
BENCHMARK(processorsClock)->Name("reading the clock beside clock_gettime/ours/once");
BENCHMARK(systemsClock)->Name("reading the clock beside clock_gettime/peer/once");

bool const titled = Bench::titleIs("Traces", "nanoseconds");

}  // namespace
