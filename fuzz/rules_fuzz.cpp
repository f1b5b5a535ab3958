// SPDX-License-Identifier: Apache-2.0
// Any text is either refused with a sentence or read as rules that, printed, read as themselves.
#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "apps/vantrel/acl/parse.h"

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  std::vector<Acl::Rule> rules;
  try {
    rules = Acl::parse({reinterpret_cast<char const*>(bytes), n}, "input");
  } catch (Acl::ParseError const&) {
    return 0;
  }
  for (Acl::Rule const& rule : rules)
    if (Acl::parse(Acl::text(rule), "text") != std::vector{rule}) std::abort();
  return 0;
}
