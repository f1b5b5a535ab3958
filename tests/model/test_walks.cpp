// SPDX-License-Identifier: Apache-2.0
// Seeded random walks: engine against model, over every shape. VANTREL_SEED starts elsewhere,
// VANTREL_WALK_STEPS walks further; a walk that fails is shrunk to the scenario that the message names.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "testing/differ.h"
#include "testing/shapes.h"
#include "testing/shrink.h"
#include "tests/model/scale.h"

namespace Testing {
namespace {

// What the walks went through, to show that they went somewhere.
struct Tally {
  U64 steps = 0;
  U64 moves = 0;
  U64 rings = 0;
  U64 mixedRings = 0;
  U64 claimsLost = 0;
};

// What a walk found, empty when nothing; the steps that led there are in `scenario`.
std::string walkOnce(Shape const& shape, U64 seed, U64 length, Scenario& scenario, Tally& tally) {
  std::mt19937_64 random(seed);
  Steps steps(shape, [&](U32 bound) { return static_cast<U32>(random() % bound); });
  scenario.engine = shape.engine;
  Differ differ(shape.engine);
  U64 const lostBefore = tally.claimsLost;
  U64 const mixedBefore = tally.mixedRings;
  try {
    for (U64 i = 0; i < length; ++i) {
      Step const step = steps.next(differ.model());
      if (shape.failures && !differ.endsProcess(step).empty()) return "";
      scenario.steps.push_back(step);
      tally.claimsLost = lostBefore + differ.model().claimsLost();
      tally.mixedRings = mixedBefore + differ.model().counters().numMixedRings;
      differ.run(scenario.steps.back());
      for (Event const& event : differ.events()) {
        if (event.kind == EventKind::Move) ++tally.moves;
        if (event.kind == EventKind::DeleteDeadlock) ++tally.rings;
      }
      if (auto const idle = differ.idleClaim(); idle && differ.model().lostInDrain() == 0)
        return "key " + std::to_string(*idle) + " waits for a position that is free and in order";
    }
  } catch (Difference const& error) {
    return error.what();
  }
  return "";
}

std::string reportFailure(Shape const& shape, U64 seed, std::string const& what, Scenario const& scenario) {
  auto const fails = [](Scenario const& s) { return failsApart([&] { return !differenceIn(s).empty(); }); };
  Scenario const small = fails(scenario) ? shrink(scenario, fails) : scenario;
  std::string const path = keep(small, "walk-" + shape.name + "-" + std::to_string(seed));
  return what + "\nshape " + shape.name + ", seed " + std::to_string(seed) + "; vantrel replay " + path;
}

class Walks : public ::testing::TestWithParam<Shape> {};

TEST_P(Walks, engineAndModelAgreeAfterEveryStep) {
  U64 const total = environment("VANTREL_WALK_STEPS", slow ? 6000 : 60000);
  U64 const length = 300;
  U64 seed = environment("VANTREL_SEED", 1);
  Tally tally;
  for (; tally.steps < total; ++seed) {
    Scenario scenario;
    std::string const found = walkOnce(GetParam(), seed, length, scenario, tally);
    ASSERT_EQ(found, "") << reportFailure(GetParam(), seed, found, scenario);
    tally.steps += scenario.steps.size();
  }
  EXPECT_GT(tally.moves, 0U);
  EXPECT_TRUE(tally.rings > 0 || total < 60000);
  EXPECT_TRUE(GetParam().mixedRings || tally.mixedRings == 0);
  std::printf("%s: %llu steps, %llu moves, %llu rings, %llu mixed, %llu claims lost, seeds up to %llu\n",
              GetParam().name.c_str(), static_cast<unsigned long long>(tally.steps),
              static_cast<unsigned long long>(tally.moves), static_cast<unsigned long long>(tally.rings),
              static_cast<unsigned long long>(tally.mixedRings),
              static_cast<unsigned long long>(tally.claimsLost), static_cast<unsigned long long>(seed - 1));
}

std::string testName(::testing::TestParamInfo<Shape> const& walk) {
  std::string name = walk.param.name;
  std::erase(name, '-');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Shapes, Walks, ::testing::ValuesIn(shapes()), testName);

}  // namespace
}  // namespace Testing
