// SPDX-License-Identifier: Apache-2.0
// The integer names of the records, and the export mark of public symbols.
#pragma once

#if __cplusplus < 202002L
#error "Vantrel's headers are C++20: compile with -std=c++20 or a later standard"
#endif

#include <cstdint>

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

// Everything is hidden unless it carries this mark. Only installed headers have it.
#define VANTREL_API __attribute__((visibility("default")))
// What of such a class stays hidden: an implementation that it only names, and templates that every program
// instantiates for itself.
#define VANTREL_LOCAL __attribute__((visibility("hidden")))
