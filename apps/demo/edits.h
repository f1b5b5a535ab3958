// SPDX-License-Identifier: Apache-2.0
// Changes to a rule set as an operator makes them.
#pragma once

#include <random>
#include <vector>

#include "hw/acl/rule.h"

namespace Demo {

using Rules = std::vector<Acl::Rule>;

// Puts `n` rules that drop one host each at random places.
void insertBlocks(Rules& rules, std::size_t n, std::mt19937& random);
// Removes `n` rules at random places, but never the last one, which matches what no other rule does.
void removeSome(Rules& rules, std::size_t n, std::mt19937& random);
// Gives `n` rules at random places another action: a mark.
void changeActions(Rules& rules, std::size_t n, std::mt19937& random);
// Reverses `n` neighbouring rules in the middle.
void reverseBlock(Rules& rules, std::size_t n);

}  // namespace Demo
