// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/trace.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace Vantrel {

Ostra::TraceHandle& vantrelSmTrace() {
  static Ostra::TraceHandle handle("VantrelSm");
  return handle;
}
Ostra::TraceHandle& vantrelImplTrace() {
  static Ostra::TraceHandle handle("VantrelImpl");
  return handle;
}
Ostra::TraceHandle& vantrelFastImplTrace() {
  static Ostra::TraceHandle handle("VantrelFastImpl");
  return handle;
}

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
  lg = Lumelog::open(name, options);
}

void traceSettingIs(char const* settings) {
  Ostra::TraceManager& manager = Ostra::TraceManager::instance();
  setenv("TRACE", settings, 1);
  manager.readEnvironment();
}

}  // namespace Vantrel
