// SPDX-License-Identifier: Apache-2.0
// Timed: measures a part of an iteration, for the counters that the reporter shows. The clock is the thread's
// own: the measured code never waits, and other processes on the processor do not count.
#pragma once

#include <benchmark/benchmark.h>

#include <ctime>

#include "bench/engine/allocations.h"

namespace Bench {

class Timed {
 public:
  // Runs `work`, which handles `keys` keys.
  template <class Work>
  void run(U64 keys, Work work) {
    Allocations const before = allocations();
    ns_ += nsOf(work);
    Allocations const made = allocations() - before;
    own_ += made.all - made.judy;
    judy_ += made.judy;
    keys_ += keys;
  }
  double nsPerKey() const { return ns_ / static_cast<double>(keys_); }
  // How long `work` takes, which counts for nothing else.
  template <class Work>
  static double nsOf(Work work) {
    double const begin = threadNs();
    work();
    return threadNs() - begin;
  }
  // `ns`; and with `withAllocations` how often memory was asked for a key.
  void countersAre(benchmark::State& state, bool withAllocations) const;

 private:
  static double threadNs() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
  }
  double ns_ = 0;
  U64 own_ = 0, judy_ = 0, keys_ = 0;
};

// Ends a key: no instruction behind it begins before all in front of it are done. Keys arrive one by one; a
// processor that sees a batch of them works on the next one's cache misses while it waits for this one's, the
// more the less there is to do for each.
inline void keyDone() { __builtin_ia32_lfence(); }

// Switches the process's trace file. It lies in a temporary directory, is opened once, and goes with the
// program. Returns false when it could not be opened.
bool traceFileIs(bool on);

}  // namespace Bench
