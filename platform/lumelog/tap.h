// SPDX-License-Identifier: Apache-2.0
// Seeing a log's records in memory as they are written: for tests and dry runs.
#pragma once

#include <functional>
#include <span>
#include <string_view>

#include "lumelog/lumelog.h"

namespace Lumelog {

// Called with each record: the text with %i, %q, %s where values stand (the identifier's place is before the
// text), and all values as numbers, identifier first; a string's number is its length.
class Tap : public std::function<void(std::string_view text, std::span<U64 const> values)> {
  using function::function;
};

}  // namespace Lumelog
