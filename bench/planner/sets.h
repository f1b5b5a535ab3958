// SPDX-License-Identifier: Apache-2.0
// The rule sets of this comparison: firewall sets from ../shared/data/acl, where it is, and generated ones of
// three kinds and any size.
//
//   acl   both addresses mostly long prefixes, one port: few overlap
//   fw    many rules leave one address or the protocol open: many overlap, in long chains
//   ipc   pairs of networks, nested, with any ports: overlaps inside the pairs
#pragma once

#include <string>

#include "bench/planner/scheme.h"

namespace Bench {

// Distinct matches in the order of the list: "fw1_1k", "fw1_10k", or a kind and a number of rules, as in
// "acl 1000". Throws std::runtime_error for a set that is not there.
Rules ruleSet(std::string const& name);

}  // namespace Bench
