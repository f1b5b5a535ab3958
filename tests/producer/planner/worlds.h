// SPDX-License-Identifier: Apache-2.0
// Random matches for the planner's tests, small enough that many overlap.
#pragma once

#include <random>

#include "producer/planner/match.h"

namespace Planning {

// How much of a world overlaps.
enum class World { Sparse, Mixed, Dense, All, Long };

class MatchGenerator {
 public:
  MatchGenerator(U64 seed, World world) : random_(seed), world_(world) {}
  U32 below(U64 n) { return static_cast<U32>(random_() % n); }
  Match match() {
    if (world_ == World::All) return {{}, {}, {{}, {}, below(1000), 0}};
    unsigned const most = world_ == World::Sparse ? 12 : world_ == World::Mixed ? 6 : 3;
    Match m{prefix(most), prefix(most), {}};
    if (below(3) == 0) m.rest.source = {static_cast<U16>(below(8)), static_cast<U16>(8 + below(8))};
    if (below(3) == 0) m.rest.destination.lo = m.rest.destination.hi = static_cast<U16>(below(4));
    if (below(2) == 0) m.rest = {m.rest.source, m.rest.destination, below(2), 1};
    return m;
  }

 private:
  // Of the world with long prefixes, the bits on both sides of the 64th vary.
  Prefix prefix(unsigned most) {
    bool const isLong = world_ == World::Long;
    unsigned const length = isLong ? 60 + below(8) : below(most + 1);
    U64 const high = isLong ? U64{0x20010DB800000000} | below(16) : random_();
    return Prefix{high, random_(), 128}.cut(below(8) == 0 ? 0 : length);
  }

  std::mt19937_64 random_;
  World world_;
};

}  // namespace Planning
