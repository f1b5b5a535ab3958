// SPDX-License-Identifier: Apache-2.0
#include "ostra/clock.h"

#include <ctime>
#include <utility>

namespace Ostra {
namespace {
Clock const* current = nullptr;
}

double now() {
  if (current) return current->now();
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

Clock const* clockIs(Clock const* clock) { return std::exchange(current, clock); }

}  // namespace Ostra
