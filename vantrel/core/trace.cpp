// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/trace.h"

#include <fmt/format.h>

#include <cstdlib>
#include <string>

namespace Vantrel {

namespace Detail {
constinit Ostra::TraceHandle smTrace("VantrelSm");
constinit Ostra::TraceHandle implTrace("VantrelImpl");
constinit Ostra::TraceHandle fastImplTrace("VantrelFastImpl");
}  // namespace Detail

namespace {

U32 keep = Lumelog::Options().keep;

Pallo::AssertionHook agentsHook = nullptr;  // installed before ours, and called after it

// At level 0, which no other record uses: nothing overwrites it. As text, for a string value would be cut.
void recordAssertion(Pallo::AssertionFailure const& failure) {
  if (lg)
    lg->recordText(0, failure.model, failure.line, 0,
                   fmt::format("assertion failed: {}, model file {}, line {}, function {}",
                               failure.expression, failure.model, failure.line, failure.function));
  if (agentsHook) agentsHook(failure);
}

}  // namespace

Lumelog::Log* lg = nullptr;

void initLg() {
  if (lg || std::getenv("LUMELOG_DISABLE")) return;
  std::string name = "Quarry-mbb";
  if (!std::getenv("LUMELOGDIR")) name += "-%d";
  name += ".lg";
  Lumelog::Options options;
  options.kib.fill(64);
  options.kib[9] = 16384;
  options.maxString = 80;
  options.threading = Lumelog::Threading::Single;
  options.keep = keep;
  lg = Lumelog::open(name, options);
  if (lg) agentsHook = Pallo::assertionHookIs(&recordAssertion);
}

U32 traceKeep() { return keep; }

void traceKeepIs(U32 number) {
  keep = number;
  if (lg) lg->keepIs(keep);
}

void traceSettingIs(char const* settings) {
  Ostra::TraceManager& manager = Ostra::TraceManager::instance();
  setenv("TRACE", settings, 1);
  manager.readEnvironment();
}

}  // namespace Vantrel
