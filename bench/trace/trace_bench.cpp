// SPDX-License-Identifier: Apache-2.0
// What tracing costs: a record of two values beside its floor, which reads the same clock and copies the same
// bytes; a facility trace that is off beside the empty loop; the same message through spdlog to a file.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

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

template <class Work>
double nsEach(unsigned times, Work const& work) {
  auto const start = std::chrono::steady_clock::now();
  for (unsigned i = 0; i < times; ++i) work(i);
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / times;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Both in turn, so that whatever else the machine does meets both.
void BM_RecordBesideFloor(benchmark::State& state) {
  constexpr unsigned batch = 20000;
  WarmLog log;
  if (!log.ok()) return state.SkipWithError("the trace file cannot be opened");
  Floor floor;
  std::vector<double> records, floors, ratios;
  for (auto _ : state) {
    floors.push_back(nsEach(batch, [&](unsigned i) { floor.copy(i); }));
    records.push_back(nsEach(batch, [&](unsigned i) { log.record(i); }));
    ratios.push_back(records.back() / floors.back());
  }
  state.counters["floor_ns"] = median(floors);
  state.counters["record_ns"] = median(records);
  state.counters["ratio"] = median(ratios);
}
BENCHMARK(BM_RecordBesideFloor)->MinTime(1);

void BM_FacilityOffBesideEmptyLoop(benchmark::State& state) {
  constexpr unsigned batch = 1000000;
  Vantrel::traceSettingIs("");
  EntryKey const key(5);
  std::vector<double> empty, off, over;
  for (auto _ : state) {
    empty.push_back(nsEach(batch, [](unsigned) { benchmark::ClobberMemory(); }));
    off.push_back(nsEach(batch, [&](unsigned i) {
      VANTREL_TRACE(vantrelFastImplTrace(), 8, "key:", key, " i:", i);
      benchmark::ClobberMemory();
    }));
    over.push_back(off.back() - empty.back());
  }
  state.counters["empty_ns"] = median(empty);
  state.counters["off_ns"] = median(off);
  state.counters["over_ns"] = median(over);
}
BENCHMARK(BM_FacilityOffBesideEmptyLoop)->MinTime(1);

void BM_Record(benchmark::State& state) {
  WarmLog log;
  if (!log.ok()) return state.SkipWithError("the trace file cannot be opened");
  U64 i = 0;
  for (auto _ : state) log.record(i++);
}
BENCHMARK(BM_Record);

void BM_FirstTurnOfTheRing(benchmark::State& state) {
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
BENCHMARK(BM_FirstTurnOfTheRing)->Iterations(ringBytes / recordBytes);

void BM_NullLog(benchmark::State& state) {
  Lumelog::Log* volatile none = nullptr;
  for (auto _ : state) LUMELOG_RECORD(none, 9, 1u, "key:", EntryKey(5));
}
BENCHMARK(BM_NullLog);

void BM_Tsc(benchmark::State& state) {
  Lumelog::Ticks const ticks;
  for (auto _ : state) benchmark::DoNotOptimize(ticks.now());
}
BENCHMARK(BM_Tsc);

void BM_ClockGettime(benchmark::State& state) {
  timespec t;
  for (auto _ : state) benchmark::DoNotOptimize(clock_gettime(CLOCK_MONOTONIC, &t));
}
BENCHMARK(BM_ClockGettime);

void BM_SpdlogToAFile(benchmark::State& state) {
  TempDir dir;
  auto const sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(dir / "a.log");
  spdlog::logger logger("bench", sink);
  U64 i = 0;
  for (auto _ : state) {
    logger.info("key:{} hdl:{}", i, static_cast<U32>(i));
    ++i;
  }
}
BENCHMARK(BM_SpdlogToAFile);

}  // namespace
