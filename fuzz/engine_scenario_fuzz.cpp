// SPDX-License-Identifier: Apache-2.0
// Any text as a scenario: it is refused with a sentence, or read and printed so that reading it again gives
// the same.
#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "testing/scenario.h"

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  std::string_view const text(reinterpret_cast<char const*>(bytes), n);
  try {
    std::string const printed = print(Testing::parseScenario("bytes", text));
    if (print(Testing::parseScenario("printed", printed)) != printed) std::abort();
  } catch (Testing::ScenarioError const&) {
    return 0;
  }
  return 0;
}
