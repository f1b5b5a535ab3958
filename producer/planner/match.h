// SPDX-License-Identifier: Apache-2.0
// Match: which packets a rule matches, as far as it matters for the question whether two rules overlap.
//
// Addresses have 128 bits, so that those of IPv6 have room; one of IPv4 has its bits at the upper end, and
// the family among the bits below. Protocol, TCP flags and masked ports are bits under a mask.
//
// Invariants: canonical: bits behind a prefix or outside a mask are zero. The fields are independent, so two
//   rules overlap exactly when they have a value in common in every field.
// Threading: none; a value.
#pragma once

#include <bit>

#include "pallo/types.h"

namespace Planning {

struct Prefix {
  U64 high = 0;
  U64 low = 0;
  U8 length = 0;  // 0 to 128

  bool bit(unsigned n) const { return n < 64 ? high >> (63 - n) & 1 : low >> (127 - n) & 1; }
  // How many leading bits both have in common, no more than the shorter one has.
  unsigned common(Prefix const& o) const {
    unsigned const shorter = length < o.length ? length : o.length;
    unsigned const same = high != o.high ? static_cast<unsigned>(std::countl_zero(high ^ o.high))
                                         : 64 + static_cast<unsigned>(std::countl_zero(low ^ o.low));
    return same < shorter ? same : shorter;
  }
  bool meets(Prefix const& o) const { return common(o) == (length < o.length ? length : o.length); }
  Prefix cut(unsigned n) const {
    U64 const ones = ~U64{0};
    return {n >= 64  ? high
            : n == 0 ? 0
                     : high & ones << (64 - n),
            n <= 64 ? 0 : low & ones << (128 - n), static_cast<U8>(n)};
  }
  friend bool operator==(Prefix const&, Prefix const&) = default;
};

// The values from lo to hi, both included.
struct Ports {
  U16 lo = 0;
  U16 hi = 0xFFFF;
  bool meets(Ports const& o) const { return lo <= o.hi && o.lo <= hi; }
  friend bool operator==(Ports const&, Ports const&) = default;
};

// All but the addresses.
struct Rest {
  Ports source;
  Ports destination;
  U64 bits = 0;  // protocol, flags, ports under a mask, family: wherever the caller wants them
  U64 mask = 0;
  bool meets(Rest const& o) const {
    return ((bits ^ o.bits) & mask & o.mask) == 0 && source.meets(o.source) &&
           destination.meets(o.destination);
  }
  friend bool operator==(Rest const&, Rest const&) = default;
};

struct Match {
  Prefix source;
  Prefix destination;
  Rest rest;
  friend bool operator==(Match const&, Match const&) = default;
};

// Some packet matches both.
inline bool overlap(Match const& a, Match const& b) {
  return a.source.meets(b.source) && a.destination.meets(b.destination) && a.rest.meets(b.rest);
}

}  // namespace Planning
