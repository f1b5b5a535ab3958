// SPDX-License-Identifier: Apache-2.0
#include <sched.h>
#include <unistd.h>

#include <system_error>

#include "bench/between/road.h"

namespace Bench {
namespace {

// Those that this process had at its start.
cpu_set_t const& allowed() {
  static cpu_set_t const set = [] {
    cpu_set_t all;
    CPU_ZERO(&all);
    sched_getaffinity(0, sizeof all, &all);
    return all;
  }();
  return set;
}

// The n-th processor allowed.
cpu_set_t only(int n) {
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &allowed()) && n-- == 0) CPU_SET(cpu, &one);
  return one;
}

void onto(pid_t process, cpu_set_t const& set) {
  if (sched_setaffinity(process, sizeof set, &set) != 0)
    throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
}

}  // namespace

void Road::placeIs(Place place) const {
  bool const apart = place == Place::apart;
  if (apart && CPU_COUNT(&allowed()) < 2) throw Missing("there is one processor");
  onto(getpid(), only(0));
  for (pid_t const process : farEnd()) onto(process, only(apart ? 1 : 0));
  for (pid_t const process : servers()) onto(process, apart ? allowed() : only(0));
}

}  // namespace Bench
