// SPDX-License-Identifier: Apache-2.0
// Assertions of the fast engine: reported against the model file FastVantrelImpl.
#pragma once

#include "pallo/assert.h"

#define FAST_ASSERT(...) PALLO_ASSERT("FastVantrelImpl", __VA_ARGS__)
// Reports `text` instead of the condition's own text, which a formatter may lay out otherwise.
#define FAST_ASSERT_AS(condition, text) PALLO_ASSERT_AS("FastVantrelImpl", condition, text)
// Reports the function and the line of `site`, a std::source_location.
#define FAST_ASSERT_AT(site, ...)                                                             \
  do {                                                                                        \
    if (!(__VA_ARGS__)) [[unlikely]]                                                          \
      ::Pallo::assertFailed(#__VA_ARGS__, "FastVantrelImpl", static_cast<int>((site).line()), \
                            (site).function_name());                                          \
  } while (false)
