// SPDX-License-Identifier: Apache-2.0
#include "tests/apps/acl_generator.h"

#include <algorithm>
#include <bit>
#include <random>
#include <unordered_set>

namespace Acl {
namespace {

U32 maskOf(unsigned length) { return length == 0 ? 0 : ~U32{0} << (32 - length); }

class Generator {
 public:
  explicit Generator(U64 seed) : random_(seed) {
    for (int i = 0; i < 64; ++i) networks_.push_back(static_cast<U32>(random_()) & maskOf(16));
  }

  Rule rule() {
    Rule r;
    r.source = prefix();
    r.destination = prefix();
    r.protocol = protocol();
    bool const ports = r.protocol.value == 6 || r.protocol.value == 17;
    if (ports) {
      r.sourcePort = ports_();
      r.destinationPort = ports_();
    }
    if (r.protocol.value == 6 && below(3) == 0) r.flags = {0x0200, 0x1200};
    if (below(4) == 0) r.action.kind = ActionKind::Deny;
    return r;
  }

 private:
  U32 below(U32 n) { return static_cast<U32>(random_() % n); }

  // Most prefixes lie inside one of the networks and are long; a few are anything or everything.
  Ternary<U32> prefix() {
    U32 const kind = below(20);
    unsigned const length = kind == 0   ? 0
                            : kind < 4  ? 8 + below(9)
                            : kind < 12 ? 20 + below(9)
                                        : 28 + below(5);
    U32 const network = kind == 1 ? static_cast<U32>(random_()) : networks_[below(64)] | below(1U << 16);
    return {network & maskOf(length), maskOf(length)};
  }
  Ternary<U8> protocol() {
    U32 const kind = below(20);
    if (kind == 0) return {0, 0};
    return {static_cast<U8>(kind < 12 ? 6 : kind < 18 ? 17 : 1), 0xFF};
  }
  // Any port, a user port, a system port, one port, or some range.
  Range ports_() {
    switch (below(8)) {
      case 0:
      case 1:
      case 2:
        return {0, 65535};
      case 3:
        return {1024, 65535};
      case 4:
        return {0, 1023};
      case 5: {
        U16 const lo = static_cast<U16>(below(60000));
        return {lo, static_cast<U16>(lo + below(5000))};
      }
      default: {
        U16 const port = static_cast<U16>(below(1024));
        return {port, port};
      }
    }
  }

  std::mt19937_64 random_;
  std::vector<U32> networks_;
};

int specificity(Rule const& r) { return std::popcount(r.source.mask) + std::popcount(r.destination.mask); }

}  // namespace

std::vector<Rule> generateRules(U64 seed, std::size_t count) {
  Generator generator(seed);
  std::unordered_set<Rule> seen;
  std::vector<Rule> rules;
  while (rules.size() < count) {
    Rule const rule = generator.rule();
    if (seen.insert(rule).second) rules.push_back(rule);
  }
  std::ranges::stable_sort(rules, std::ranges::greater(), specificity);
  return rules;
}

std::string textOf(std::vector<Rule> const& rules) {
  std::string file;
  for (Rule const& rule : rules) file += text(rule) + "\n";
  return file;
}

}  // namespace Acl
