// SPDX-License-Identifier: Apache-2.0
// Rules over a small world, in which every packet can be tried: two bits in each field.
#pragma once

#include <random>

#include "hw/acl/rule.h"

namespace Acl {

// `bits` per field: 0 to 2. With fewer, more rules overlap.
template <class Random>
Rule randomRule(Random& random, unsigned bits = 2) {
  auto const below = [&](unsigned n) { return static_cast<U32>(random() % n); };
  auto const prefix = [&] {
    unsigned const length = below(bits + 1);
    U32 const mask = length == 0 ? 0 : ~U32{0} << (32 - length);
    return Ternary<U32>{static_cast<U32>(random()) & mask, mask};
  };
  auto const range = [&] {
    U16 const a = static_cast<U16>(below(1U << bits));
    U16 const b = static_cast<U16>(below(1U << bits));
    return Range{std::min(a, b), std::max(a, b)};
  };
  Rule r;
  r.source = prefix();
  r.destination = prefix();
  r.sourcePort = range();
  r.destinationPort = range();
  r.protocol.mask = static_cast<U8>(below(1U << bits));
  r.protocol.value = static_cast<U8>(random() & r.protocol.mask);
  r.flags.mask = static_cast<U16>(below(1U << bits));
  r.flags.value = static_cast<U16>(random() & r.flags.mask);
  return r;
}

}  // namespace Acl
