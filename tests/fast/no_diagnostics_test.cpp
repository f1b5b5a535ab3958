// SPDX-License-Identifier: Apache-2.0
// The engine works without diagnostics: a program without them links and runs.
#include "tests/support/engine_world.h"
#include "vantrel/fast/diagnostics.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/fast/state.h"

using namespace TestSupport;

namespace {

class NoDiagnostics : public EngineWorld<FastVantrelImpl> {
 protected:
  NoDiagnostics() { engineIs(); }
};
using NoDiagnosticsDeathTest = NoDiagnostics;

}  // namespace

TEST_F(NoDiagnostics, EngineProgramsEntries) {
  EXPECT_THAT(put({.key = 1, .ti = 7}), ElementsAre("add 1@7"));
}

TEST_F(NoDiagnostics, DumpsWriteNothing) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  FacilityLines lines("VantrelFastImpl/9");
  engine->dumpPending();
  engine->dumpState();
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("FastVantrelImpl::dumpState()")));
}

TEST_F(NoDiagnostics, RequestsStayUnanswered) {
  debugConfig->versionIs(3);
  engine->handleDebug();
  EXPECT_EQ(debugStatus->version(), 0U);
}

TEST_F(NoDiagnosticsDeathTest, RequestsWithoutTheEntitiesFail) {
  auto const own = make<FastVantrelImpl>("own", table, nullptr, debugStatus, client, 1U);
  EXPECT_DEATH(own->handleDebug(), HasSubstr("assertion failed: debugConfig(), model file FastVantrelImpl,"));
}

TEST_F(NoDiagnostics, RegisteredFunctionsAreCalled) {
  static FastState const* seen = nullptr;
  static constexpr Diagnostics looking{[](FastState const& state) { seen = &state; },
                                       [](FastState const&, TableConfig const&) {},
                                       [](VantrelImpl const&, FastState const&) {}};
  diagnosticsAre(looking);
  engine->dumpPending();
  EXPECT_EQ(seen, engine->state());
}
