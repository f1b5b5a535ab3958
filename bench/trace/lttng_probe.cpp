// SPDX-License-Identifier: Apache-2.0
// Runs under a tracing session that has its tracepoint enabled and prints what one passage costs, in
// nanoseconds: the median of many batches. Fails when the tracepoint is not enabled.
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "bench/trace/lttng_provider.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr unsigned batch = 20000, batches = 201, warmUp = 20;

bool enabledWithin(std::chrono::seconds patience) {
  auto const end = std::chrono::steady_clock::now() + patience;
  while (!lttng_ust_tracepoint_enabled(vantrel_bench, two_values)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

double nsEach() {
  auto const start = std::chrono::steady_clock::now();
  for (unsigned i = 0; i < batch; ++i) lttng_ust_tracepoint(vantrel_bench, two_values, i, i);
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / batch;
}

}  // namespace

int main() {
  if (!enabledWithin(std::chrono::seconds(10))) return 1;
  for (unsigned i = 0; i < warmUp; ++i) nsEach();
  std::vector<double> each;
  for (unsigned i = 0; i < batches; ++i) each.push_back(nsEach());
  std::sort(each.begin(), each.end());
  std::printf("%f\n", each[batches / 2]);
  return 0;
}
