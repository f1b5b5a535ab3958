// SPDX-License-Identifier: Apache-2.0
// Bytes of a trace file to sites and values. Nothing in them is trusted.
#pragma once

#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "lumelog/format.h"
#include "lumelog/reader.h"

namespace Lumelog::Parse {

// The entry whose characters start at `text`. None when its types and its text do not belong together.
std::optional<SiteInfo> site(Format::SiteHeader const& header, char const* text);

// The values of a whole record. False when they do not fill it exactly.
bool values(std::string_view types, std::span<std::byte const> record, std::vector<Value>* values);

}  // namespace Lumelog::Parse
