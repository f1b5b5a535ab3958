// SPDX-License-Identifier: Apache-2.0
// Every sequence of a few operations, engine against model. VANTREL_EXHAUSTIVE_EXTRA makes each sequence that
// much longer; under the sanitizers each is one shorter.
#include <gtest/gtest.h>

#include <cstdio>

#include "testing/shrink.h"
#include "testing/small_world.h"
#include "tests/model/scale.h"

namespace Testing {
namespace {

void say(std::string const& name, U32 length, std::size_t operations, Explored const& e) {
  std::printf(
      "%-13s %2zu operations, length %u: %9llu sequences, %9llu distinct steps, %9llu steps, %llu rings\n",
      name.c_str(), operations, length, static_cast<unsigned long long>(e.sequences),
      static_cast<unsigned long long>(e.prefixes), static_cast<unsigned long long>(e.steps),
      static_cast<unsigned long long>(e.rings));
}

TEST(Exhaustive, engineAndModelAgreeAfterEveryShortSequence) {
  Explored total;
  int const extra = static_cast<int>(environment("VANTREL_EXHAUSTIVE_EXTRA", 0)) - (slow ? 1 : 0);
  for (SmallWorld const& world : smallWorlds(extra)) {
    Scenario scenario;
    try {
      Explored const e = explore(world, scenario);
      say(world.name, world.length, world.alphabet.size(), e);
      EXPECT_GT(e.sequences, 0U);
      total = {total.sequences + e.sequences, total.prefixes + e.prefixes, total.steps + e.steps,
               total.rings + e.rings};
    } catch (Difference const& error) {
      FAIL() << world.name << ": " << error.what() << "\nvantrel replay "
             << keep(scenario, "exhaustive-" + world.name);
    }
  }
  say("all", 0, 0, total);
  EXPECT_GE(total.prefixes, extra < 0 ? 100'000U : 10'000'000U);
  EXPECT_GT(total.rings, 0U);
}

}  // namespace
}  // namespace Testing
