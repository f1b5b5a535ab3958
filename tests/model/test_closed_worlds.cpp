// SPDX-License-Identifier: Apache-2.0
// Small worlds, explored until nothing new appears, engine against model. VANTREL_CLOSED names one world, or
// says "all": then the large ones are explored too, which takes hours. VANTREL_CLOSED_MOST ends each after
// that many transitions. Under the sanitizers a part of each is explored.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string_view>

#include "testing/closed_world.h"
#include "testing/shrink.h"
#include "tests/model/scale.h"

namespace Testing {
namespace {

using Vantrel::FastState;

double secondsSince(std::chrono::steady_clock::time_point began) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

SmallWorld worldCalled(std::string const& name) {
  for (SmallWorld const& world : closedWorlds())
    if (world.name == name) return world;
  throw std::runtime_error("no world is called " + name);
}

bool chosen(SmallWorld const& world) {
  char const* const wanted = std::getenv("VANTREL_CLOSED");
  if (!wanted) return !world.large;
  return wanted == world.name || wanted == std::string_view("all");
}

void tellProgress(SmallWorld const& world, Closed const& c, U64 left) {
  if (!std::getenv("VANTREL_CLOSED")) return;
  std::printf("  %s: %.0f M transitions, %llu states, %llu transitions left of these\n", world.name.c_str(),
              static_cast<double>(c.transitions) / 1e6, static_cast<unsigned long long>(c.states),
              static_cast<unsigned long long>(left));
  std::fflush(stdout);
}

void tellResult(SmallWorld const& world, Closed const& c, double seconds) {
  auto const n = [](U64 number) { return static_cast<unsigned long long>(number); };
  std::printf(
      "%-17s %s: %8llu states, depth %2u, %9llu transitions (%llu end the process), %llu rings; "
      "%llu choices; %llu repeated, %llu with their calls; %llu walks, %.0f s\n",
      world.name.c_str(), c.closed ? "closed" : "open", n(c.states), c.depth, n(c.transitions), n(c.ending),
      n(c.rings), n(c.choices), n(c.repeated), n(c.sampled), n(c.walks), seconds);
  std::fflush(stdout);
}

TEST(ClosedWorlds, EngineAndModelAgreeInEveryState) {
  U64 const most = environment("VANTREL_CLOSED_MOST", slow ? 20'000 : ~U64{0});
  U32 explored = 0;
  for (SmallWorld const& world : closedWorlds()) {
    if (!chosen(world)) continue;
    ++explored;
    Scenario scenario;
    Closing how{.mostTransitions = most};
    how.progress = [&](Closed const& c, U64 left) { tellProgress(world, c, left); };
    auto const began = std::chrono::steady_clock::now();
    try {
      Closed const c = close(world, how, scenario);
      tellResult(world, c, secondsSince(began));
      EXPECT_TRUE(c.closed || c.transitions >= most) << world.name;
      EXPECT_GT(c.sampled, 0U) << world.name;
      EXPECT_EQ(c.otherWays, 0U) << world.name << ": the deadlock check's other choices are not all tried";
    } catch (Difference const& error) {
      ADD_FAILURE() << world.name << ": " << error.what() << "\nvantrel replay "
                    << keep(scenario, "closed-" + world.name);
    }
  }
  EXPECT_GT(explored, 0U);
}

// Names are changed only where that makes no difference: without, the same states are met under all names.
TEST(ClosedWorlds, RenamingLosesNoState) {
  for (std::string const name : {"QuietChanges", "Handles", "Versions"}) {
    Scenario scenario;
    SmallWorld const world = worldCalled(name);
    Closed const renamed = close(world, {}, scenario);
    Closed const named = close(world, {.rename = false}, scenario);
    EXPECT_TRUE(renamed.closed && named.closed);
    EXPECT_EQ(named.upToNames, renamed.states) << name;
    EXPECT_GT(named.states, renamed.states) << name;
    EXPECT_EQ(named.depth, renamed.depth) << name;
  }
}

// A form that leaves out what decides between two claims is found out by what is repeated.
TEST(ClosedWorlds, FindsFormThatMergesTooMuch) {
  Scenario scenario;
  Closing const how{.form = FormOf::WithoutOrderOfVersions};
  EXPECT_THROW(close(worldCalled("Notified"), how, scenario), Difference);
}

// Whether two of three programmed entries wait, the second for the first.
bool twoWait(FastState const& state) {
  U32 waiting = 0;
  for (auto const& [key, c] : state.cstate) {
    if (!c->programmed()) return false;
    if (c->p.ti != Vantrel::noIndex) ++waiting;
  }
  return state.cstate.size() == 3 && waiting == 2;
}

// A waiting key that counts as queued is never queued again, so that its wake-up is lost.
void loseWakeUp(Differ& differ) {
  FastState& state = *differ.world().engine()->state();
  if (!twoWait(state)) return;
  for (auto const& [key, c] : state.cstate)
    if (c->p.ti != Vantrel::noIndex) state.workqSet.insert(key.value());
}

TEST(ClosedWorlds, FindsEngineThatIsWrongInFewStates) {
  Scenario scenario;
  Closing how;
  how.meddle = &loseWakeUp;
  EXPECT_THROW(close(worldCalled("Rings"), how, scenario), Difference);
  EXPECT_EQ(differenceIn(scenario), "") << "without the error engine and model agree";
  EXPECT_GE(scenario.steps.size(), 6U) << "three entries, two that wait, and the step that fails";
  EXPECT_LE(scenario.steps.size(), 16U) << "a short way to the state, not the whole walk";
}

}  // namespace
}  // namespace Testing
