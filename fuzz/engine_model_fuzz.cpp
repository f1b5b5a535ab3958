// SPDX-License-Identifier: Apache-2.0
// Bytes drive a walk, engine beside reference model: the first byte chooses the shape, the others every
// draw. A difference, a broken order inside a hardware call or an assertion that the model did not foresee
// is a finding.
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "testing/differ.h"
#include "testing/shapes.h"

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  if (n == 0) return 0;
  Testing::Shape const& shape = Testing::shapes()[bytes[0] % Testing::shapes().size()];
  std::size_t at = 1;
  Testing::Steps steps(shape, [&](U32 bound) { return at < n ? bytes[at++] % bound : 0; });
  Testing::Differ differ(shape.engine);
  try {
    while (at < n) {
      Testing::Step const step = steps.next(differ.model());
      if (!differ.endsProcess(step).empty()) break;
      differ.run(step);
    }
  } catch (Testing::Difference const& difference) {
    std::fprintf(stderr, "%s\n", difference.what());
    std::abort();
  }
  return 0;
}
