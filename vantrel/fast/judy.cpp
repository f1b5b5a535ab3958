// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/judy.h"

#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"

namespace Vantrel {

void judyFailed(char const* function, JError_t const& error, Site site) {
  VANTREL_TRACE(vantrelFastImplTrace(), 1, function, "errno: ", JU_ERRNO(&error),
                "errid: ", JU_ERRID(&error));
  FAST_ASSERT_AT(site, false);
}

}  // namespace Vantrel
