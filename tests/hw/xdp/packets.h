// SPDX-License-Identifier: Apache-2.0
// Packets for the software TCAM: their headers, drawn from rules and at the rules' borders, and their bytes.
#pragma once

#include <random>
#include <vector>

#include "hw/acl/rule.h"

namespace XdpTest {

struct Header {
  U32 source = 0, destination = 0;
  U16 sourcePort = 0, destinationPort = 0;
  U16 flags = 0;
  U8 protocol = 6;
};

constexpr U8 tcp = 6, udp = 17, icmp = 1;

inline bool matches(Acl::Rule const& r, Header const& h) {
  return r.source.matches(h.source) && r.destination.matches(h.destination) &&
         r.sourcePort.matches(h.sourcePort) && r.destinationPort.matches(h.destinationPort) &&
         r.protocol.matches(h.protocol) && r.flags.matches(h.flags);
}

using Bytes = std::vector<U8>;

inline void put16(Bytes& out, U32 v) {
  out.push_back(static_cast<U8>(v >> 8)), out.push_back(static_cast<U8>(v));
}
inline void put32(Bytes& out, U32 v) { put16(out, v >> 16), put16(out, v); }

// What stands around the header.
struct Shape {
  U32 tags = 0;         // VLAN tags
  U32 optionWords = 0;  // of IP
  U16 fragment = 0;     // the field with flags and offset
  U16 etherType = 0x0800;
};

inline Bytes transport(Header const& h) {
  Bytes out;
  if (h.protocol == tcp || h.protocol == udp) put16(out, h.sourcePort), put16(out, h.destinationPort);
  if (h.protocol == udp) put32(out, 8 << 16);
  if (h.protocol == tcp) put32(out, 1), put32(out, 2), put16(out, 0x5000U | h.flags), out.resize(20);
  out.resize(std::max<std::size_t>(out.size(), 8));
  return out;
}

inline Bytes frame(Header const& h, Shape const& shape = {}) {
  Bytes out{2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2};
  for (U32 tag = 0; tag < shape.tags; ++tag) put16(out, tag == 0 ? 0x88A8 : 0x8100), put16(out, 7);
  put16(out, shape.etherType);
  Bytes const payload = transport(h);
  U32 const words = 5 + shape.optionWords;
  out.push_back(static_cast<U8>(0x40 | words)), out.push_back(0);
  put16(out, words * 4 + static_cast<U32>(payload.size())), put16(out, 1), put16(out, shape.fragment);
  out.push_back(64), out.push_back(h.protocol), put16(out, 0);
  put32(out, h.source), put32(out, h.destination);
  out.resize(out.size() + shape.optionWords * std::size_t{4}, 1);
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

// A copy with the checksum of an IP header without tags and options.
inline Bytes withChecksum(Bytes frame) {
  U32 sum = 0;
  for (std::size_t at = 14; at < 34; at += 2) sum += U32{frame[at]} << 8 | frame[at + 1];
  sum = (sum & 0xFFFF) + (sum >> 16);
  sum = ~((sum & 0xFFFF) + (sum >> 16));
  frame[24] = static_cast<U8>(sum >> 8);
  frame[25] = static_cast<U8>(sum);
  return frame;
}

// As a packet can have it: without ports and flags where the protocol has none.
inline Header real(Header h) {
  h.flags &= 0x0FFF;
  if (h.protocol != tcp) h.flags = 0;
  if (h.protocol != tcp && h.protocol != udp) h.sourcePort = h.destinationPort = 0;
  return h;
}

template <class Random>
U16 portAround(Acl::Range const& range, Random& random) {
  switch (random() % 5) {
    case 0:
      return range.lo;
    case 1:
      return range.hi;
    case 2:
      return static_cast<U16>(range.lo - 1);
    case 3:
      return static_cast<U16>(range.hi + 1);
    default:
      return static_cast<U16>(range.lo + random() % (range.hi - range.lo + 1U));
  }
}

template <class T, class Random>
T valueAround(Acl::Ternary<T> const& t, Random& random) {
  auto const free = static_cast<T>(~t.mask);
  switch (random() % 6) {
    case 0:
      return t.value;
    case 1:
      return static_cast<T>(t.value | free);
    case 2:
      return static_cast<T>(t.value - 1);
    case 3:
      return static_cast<T>((t.value | free) + 1);
    default:
      return static_cast<T>(t.value | (static_cast<T>(random()) & free));
  }
}

template <class Random>
Header headerAround(Acl::Rule const& r, Random& random) {
  Header h;
  h.source = valueAround(r.source, random);
  h.destination = valueAround(r.destination, random);
  h.sourcePort = portAround(r.sourcePort, random);
  h.destinationPort = portAround(r.destinationPort, random);
  h.flags = valueAround(r.flags, random);
  h.protocol = r.protocol.mask == 0 ? U8{random() % 2 ? tcp : udp} : valueAround(r.protocol, random);
  return real(h);
}

}  // namespace XdpTest
