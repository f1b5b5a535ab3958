// SPDX-License-Identifier: Apache-2.0
// Large rule sets for tests, of the kind that packet classification is measured with: prefixes that nest
// inside those of a few networks, the usual classes of port ranges and protocols, more specific rules first.
// Every rule is different.
//
// Invariants: the same seed and count give the same rules.
#pragma once

#include <string>
#include <vector>

#include "hw/acl/rule.h"

namespace Acl {

std::vector<Rule> generateRules(U64 seed, std::size_t count);
// As a file.
std::string textOf(std::vector<Rule> const& rules);

}  // namespace Acl
