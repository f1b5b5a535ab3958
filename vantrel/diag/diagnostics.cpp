// SPDX-License-Identifier: Apache-2.0
// Gives every engine of the process its dumps and its answers to debug requests.
#include "vantrel/fast/diagnostics.h"

#include "vantrel/diag/debug_request.h"
#include "vantrel/diag/dump.h"

namespace Vantrel {
namespace {

constexpr Diagnostics diagnostics{&dumpPending, &dumpState, &handleDebug};
bool const registered = (diagnosticsAre(diagnostics), true);

}  // namespace
}  // namespace Vantrel
