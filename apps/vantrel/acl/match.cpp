// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/match.h"

#include <bit>

namespace Acl {
namespace {

Planning::Prefix prefixOf(Ternary<U32> const& address) {
  return {U64{address.value} << 32, 0, static_cast<U8>(std::popcount(address.mask))};
}
Planning::Ports portsOf(Range const& range) { return {range.lo, range.hi}; }

}  // namespace

Planning::Match matchOf(Rule const& rule) {
  return {prefixOf(rule.source),
          prefixOf(rule.destination),
          {portsOf(rule.sourcePort), portsOf(rule.destinationPort),
           U64{rule.protocol.value} | U64{rule.flags.value} << 8,
           U64{rule.protocol.mask} | U64{rule.flags.mask} << 8}};
}

}  // namespace Acl
