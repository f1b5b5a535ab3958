// SPDX-License-Identifier: Apache-2.0
// Rule: one line of a packet filter, its match and its action, and the words in which an entry carries it.
//
// Invariants: canonical: bits that a mask does not look at are zero, so that equal rules are equal values.
//   Two rules overlap when some packet matches both; the fields are independent of one another, so that is
//   exactly the case when they have a value in common in every field.
// Cost: a value of 40 bytes; five comparisons an overlap test.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "pallo/types.h"

namespace Acl {

// The values that agree with `value` in the bits of `mask`.
template <class T>
struct Ternary {
  T value = 0;
  T mask = 0;
  bool matches(T x) const { return (x & mask) == value; }
  bool meets(Ternary const& o) const { return ((value ^ o.value) & mask & o.mask) == 0; }
  friend bool operator==(Ternary const&, Ternary const&) = default;
};

// The values from lo to hi, both included.
struct Range {
  U16 lo = 0;
  U16 hi = 0xFFFF;
  bool matches(U16 x) const { return lo <= x && x <= hi; }
  bool meets(Range const& o) const { return lo <= o.hi && o.lo <= hi; }
  friend bool operator==(Range const&, Range const&) = default;
};

enum class ActionKind : U16 { Permit = 0, Deny = 1, Mark = 2 };

struct Action {
  ActionKind kind = ActionKind::Permit;
  U32 argument = 0;  // of Mark: the mark
  friend bool operator==(Action const&, Action const&) = default;
};

struct Rule {
  Ternary<U32> source;  // a prefix: the mask's ones are its upper bits
  Ternary<U32> destination;
  Range sourcePort;
  Range destinationPort;
  Ternary<U8> protocol;
  Ternary<U16> flags;
  Action action;
  friend bool operator==(Rule const&, Rule const&) = default;
};

// Some packet matches both.
bool overlap(Rule const& a, Rule const& b);

std::size_t hash(Rule const& rule);

// As a line of a rule file.
std::string text(Rule const& rule);

// How an entry carries a rule: docs/formats/acl-entry.md.
inline constexpr std::size_t ruleWords = 5;
using Words = std::array<U64, ruleWords>;
Words encode(Rule const& rule);
// Nothing when the words are not those of a rule.
std::optional<Rule> decode(std::span<U64 const> words);

}  // namespace Acl

template <>
struct std::hash<Acl::Rule> {
  std::size_t operator()(Acl::Rule const& rule) const { return Acl::hash(rule); }
};
