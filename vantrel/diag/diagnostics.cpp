// SPDX-License-Identifier: Apache-2.0
// Registers dumps and answers to debug requests for every engine of the process, before main() begins.
#include "vantrel/fast/diagnostics.h"

#include "vantrel/diag/debug_request.h"
#include "vantrel/diag/dump.h"

namespace Vantrel {
namespace {

constexpr Diagnostics diagnostics{&dumpPending, &dumpState, &handleDebug};
bool const registered = (diagnosticsAre(diagnostics), true);

}  // namespace
}  // namespace Vantrel
