// SPDX-License-Identifier: Apache-2.0
// The one assertion of the house: always on, in every build.
//
// A failed assertion prints expression, model file, line and function signature on stderr, gives the hook a
// chance to leave a last record (the trace file's), and aborts. The model file is the module that a reader
// knows from the documentation, not the file of the repository.
//
// Threading: the hook is process-wide and set once, from the agent's thread.
// Cost: one predictable branch.
#pragma once

#include <string_view>

#include "pallo/types.h"

namespace Pallo {

// What a failed assertion says, as handed to the hook.
struct AssertionFailure {
  char const* expression;
  char const* model;
  int line;
  char const* function;
};

using AssertionHook = void (*)(AssertionFailure const&);

// Installs the hook that runs between the message and the abort; returns the one it replaces (null for none).
VANTREL_API AssertionHook assertionHookIs(AssertionHook hook);

[[noreturn]] VANTREL_API void assertFailed(char const* expression, char const* model, int line,
                                           char const* function);

}  // namespace Pallo

// PALLO_ASSERT(model, condition): the text is the condition as written.
#define PALLO_ASSERT(model, ...) PALLO_ASSERT_AS(model, (__VA_ARGS__), #__VA_ARGS__)

// PALLO_ASSERT_AS(model, condition, text): for a text that must not change when the condition is reformatted.
#define PALLO_ASSERT_AS(model, condition, text)                          \
  do {                                                                   \
    if (!(condition)) [[unlikely]]                                       \
      ::Pallo::assertFailed(text, model, __LINE__, __PRETTY_FUNCTION__); \
  } while (false)
