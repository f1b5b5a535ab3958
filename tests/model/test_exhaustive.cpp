// SPDX-License-Identifier: Apache-2.0
// Every sequence of a few operations, engine against model. VANTREL_EXHAUSTIVE_EXTRA makes each sequence longer.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "testing/shrink.h"
#include "testing/small_world.h"

namespace Testing {
namespace {

U32 extraLength() {
  char const* const text = std::getenv("VANTREL_EXHAUSTIVE_EXTRA");
  return text ? static_cast<U32>(std::strtoul(text, nullptr, 0)) : 0;
}

void say(std::string const& name, U32 length, std::size_t operations, Explored const& e) {
  std::printf(
      "%-13s %2zu operations, length %u: %9llu sequences, %9llu distinct steps, %9llu steps, %llu rings\n",
      name.c_str(), operations, length, static_cast<unsigned long long>(e.sequences),
      static_cast<unsigned long long>(e.prefixes), static_cast<unsigned long long>(e.steps),
      static_cast<unsigned long long>(e.rings));
}

TEST(Exhaustive, engineAndModelAgreeAfterEverySequenceOfAFewOperations) {
  Explored total;
  for (SmallWorld const& world : smallWorlds(extraLength())) {
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
  EXPECT_GE(total.prefixes, 10'000'000U);
  EXPECT_GT(total.rings, 0U);
}

}  // namespace
}  // namespace Testing
