// SPDX-License-Identifier: Apache-2.0
#include "apps/demo/edits.h"

#include <algorithm>

namespace Demo {
namespace {

// Addresses of 198.18.0.0/15, reserved for benchmarks, so that no rule set has them already.
Acl::Rule dropHost(U32 host) {
  Acl::Rule rule;
  rule.source = {(198U << 24) | (18U << 16) | (host & 0x1FFFF), 0xFFFFFFFF};
  rule.action = {Acl::ActionKind::Deny, 0};
  return rule;
}

std::ptrdiff_t anywhere(std::size_t places, std::mt19937& random) {
  return static_cast<std::ptrdiff_t>(random() % places);
}

}  // namespace

void insertBlocks(Rules& rules, std::size_t n, std::mt19937& random) {
  U32 const first = static_cast<U32>(random());
  for (U32 i = 0; i < n; ++i)
    rules.insert(rules.begin() + anywhere(rules.size() + 1, random), dropHost(first + i));
}

void removeSome(Rules& rules, std::size_t n, std::mt19937& random) {
  for (std::size_t i = 0; i < n && rules.size() > 1; ++i)
    rules.erase(rules.begin() + anywhere(rules.size() - 1, random));
}

void changeActions(Rules& rules, std::size_t n, std::mt19937& random) {
  for (std::size_t i = 0; i < n; ++i) {
    Acl::Action& action = rules[static_cast<std::size_t>(anywhere(rules.size(), random))].action;
    action = {Acl::ActionKind::Mark, action.argument + 1};
  }
}

void reverseBlock(Rules& rules, std::size_t n) {
  n = std::min(n, rules.size());
  auto const begin = rules.begin() + static_cast<std::ptrdiff_t>((rules.size() - n) / 2);
  std::reverse(begin, begin + static_cast<std::ptrdiff_t>(n));
}

}  // namespace Demo
