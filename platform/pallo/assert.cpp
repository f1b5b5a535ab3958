// SPDX-License-Identifier: Apache-2.0
#include "pallo/assert.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace Pallo {
namespace {
AssertionHook hook = nullptr;
}

AssertionHook assertionHookIs(AssertionHook newHook) { return std::exchange(hook, newHook); }

void assertFailed(char const* expression, char const* model, int line, char const* function) {
  std::fprintf(stderr, "assertion failed: %s, model file %s, line %d, function %s\n", expression, model, line,
               function);
  std::fflush(nullptr);
  // A hook that itself fails an assertion must not run again.
  if (AssertionHook last = std::exchange(hook, nullptr)) last({expression, model, line, function});
  std::abort();
}

}  // namespace Pallo
