// SPDX-License-Identifier: Apache-2.0
// Any data words of an entry are either no rule, or those in which the rule that they say is encoded; and the
// rule's text, read again, is that rule.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "apps/vantrel/acl/parse.h"
#include "hw/acl/rule.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool isCanonical(Acl::Rule const& r) {
  return (r.source.value & ~r.source.mask) == 0 && (r.destination.value & ~r.destination.mask) == 0 &&
         (r.protocol.value & ~r.protocol.mask) == 0 && (r.flags.value & ~r.flags.mask) == 0 &&
         r.sourcePort.lo <= r.sourcePort.hi && r.destinationPort.lo <= r.destinationPort.hi &&
         r.action.kind <= Acl::ActionKind::Mark;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  std::vector<U64> words((n + sizeof(U64) - 1) / sizeof(U64));
  if (n != 0) std::memcpy(words.data(), bytes, n);
  auto const rule = Acl::decode(words);
  if (!rule) return 0;
  require(isCanonical(*rule));
  require(std::ranges::equal(Acl::encode(*rule), words));
  require(Acl::parse(Acl::text(*rule), "text") == std::vector{*rule});
  return 0;
}
