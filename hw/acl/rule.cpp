// SPDX-License-Identifier: Apache-2.0
#include "hw/acl/rule.h"

#include <fmt/format.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <bit>

namespace Acl {
namespace {

constexpr U64 magic = 0x5641434C;  // "VACL"
constexpr U64 version = 1;

template <class T>
T field(U64 word, unsigned shift) {
  return static_cast<T>(word >> shift);
}

// Prefixes of ones only.
bool isPrefix(U32 mask) { return std::countl_one(mask) == std::popcount(mask); }

template <class T>
bool canonical(Ternary<T> const& t) {
  return (t.value & ~t.mask) == 0;
}

bool wellFormed(Rule const& r) {
  bool const action =
      r.action.kind == ActionKind::Mark || (r.action.kind <= ActionKind::Deny && r.action.argument == 0);
  return action && isPrefix(r.source.mask) && isPrefix(r.destination.mask) && canonical(r.source) &&
         canonical(r.destination) && canonical(r.protocol) && canonical(r.flags) &&
         r.sourcePort.lo <= r.sourcePort.hi && r.destinationPort.lo <= r.destinationPort.hi;
}

std::string prefixText(Ternary<U32> const& p) {
  return fmt::format("{}.{}.{}.{}/{}", p.value >> 24, p.value >> 16 & 0xFF, p.value >> 8 & 0xFF,
                     p.value & 0xFF, std::popcount(p.mask));
}

std::string actionText(Action const& action) {
  switch (action.kind) {
    case ActionKind::Permit:
      return "";
    case ActionKind::Deny:
      return "\tdeny";
    case ActionKind::Mark:
      return fmt::format("\tmark {}", action.argument);
  }
  return "";
}

}  // namespace

bool overlap(Rule const& a, Rule const& b) {
  return a.destination.meets(b.destination) && a.source.meets(b.source) &&
         a.destinationPort.meets(b.destinationPort) && a.sourcePort.meets(b.sourcePort) &&
         a.protocol.meets(b.protocol) && a.flags.meets(b.flags);
}

Words encode(Rule const& r) {
  Words w{};
  w[0] = magic << 32 | version << 16 | static_cast<U64>(r.action.kind);
  w[1] = r.action.argument;
  w[2] = U64{r.source.value} << 32 | r.destination.value;
  w[3] = U64{static_cast<U8>(std::popcount(r.source.mask))} |
         U64{static_cast<U8>(std::popcount(r.destination.mask))} << 8 | U64{r.protocol.value} << 16 |
         U64{r.protocol.mask} << 24 | U64{r.flags.value} << 32 | U64{r.flags.mask} << 48;
  w[4] = U64{r.sourcePort.lo} | U64{r.sourcePort.hi} << 16 | U64{r.destinationPort.lo} << 32 |
         U64{r.destinationPort.hi} << 48;
  return w;
}

std::optional<Rule> decode(std::span<U64 const> w) {
  if (w.size() != ruleWords || w[0] >> 16 != (magic << 16 | version)) return std::nullopt;
  auto const prefixMask = [](U8 length) {
    return length == 0 ? 0 : length > 32 ? U32{1} : ~U32{0} << (32 - length);
  };
  Rule r;
  r.action = {static_cast<ActionKind>(field<U16>(w[0], 0)), field<U32>(w[1], 0)};
  r.source = {field<U32>(w[2], 32), prefixMask(field<U8>(w[3], 0))};
  r.destination = {field<U32>(w[2], 0), prefixMask(field<U8>(w[3], 8))};
  r.protocol = {field<U8>(w[3], 16), field<U8>(w[3], 24)};
  r.flags = {field<U16>(w[3], 32), field<U16>(w[3], 48)};
  r.sourcePort = {field<U16>(w[4], 0), field<U16>(w[4], 16)};
  r.destinationPort = {field<U16>(w[4], 32), field<U16>(w[4], 48)};
  if (!wellFormed(r) || w[1] >> 32 != 0) return std::nullopt;
  return r;
}

std::size_t hash(Rule const& rule) {
  Words const words = encode(rule);
  return XXH3_64bits(words.data(), sizeof words);
}

std::string text(Rule const& r) {
  return fmt::format("@{}\t{}\t{} : {}\t{} : {}\t0x{:02x}/0x{:02X}\t0x{:04x}/0x{:04x}{}",
                     prefixText(r.source), prefixText(r.destination), r.sourcePort.lo, r.sourcePort.hi,
                     r.destinationPort.lo, r.destinationPort.hi, r.protocol.value, r.protocol.mask,
                     r.flags.value, r.flags.mask, actionText(r.action));
}

}  // namespace Acl
