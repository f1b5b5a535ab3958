// SPDX-License-Identifier: Apache-2.0
// How much the long tests do: under the sanitizers and unoptimised, where a step costs ten times as much, a
// part of it.
#pragma once

#include <cstdlib>

#include "pallo/types.h"

namespace Testing {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__OPTIMIZE__)
constexpr bool slow = true;
#else
constexpr bool slow = false;
#endif

inline U64 environment(char const* name, U64 otherwise) {
  char const* const text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

}  // namespace Testing
