// SPDX-License-Identifier: Apache-2.0
// Assertions of the fast engine: reported against the model file FastVantrelImpl.
#pragma once

#include "pallo/assert.h"

#define FAST_ASSERT(...) PALLO_ASSERT("FastVantrelImpl", __VA_ARGS__)
// The text apart from the condition, for conditions that a formatter would rewrite.
#define FAST_ASSERT_AS(condition, text) PALLO_ASSERT_AS("FastVantrelImpl", condition, text)
// Reported as the function and the line of another site (std::source_location).
#define FAST_ASSERT_AT(site, ...)                                                             \
  do {                                                                                        \
    if (!(__VA_ARGS__)) [[unlikely]]                                                          \
      ::Pallo::assertFailed(#__VA_ARGS__, "FastVantrelImpl", static_cast<int>((site).line()), \
                            (site).function_name());                                          \
  } while (false)
