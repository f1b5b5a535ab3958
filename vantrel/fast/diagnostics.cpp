// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/diagnostics.h"

#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_impl.h"

namespace Vantrel {
namespace {

Diagnostics const nothing{[](FastState const&) {}, [](FastState const&, TableConfig const&) {},
                          [](VantrelImpl const&, FastState const&) {}};
constinit Diagnostics const* registered = &nothing;

}  // namespace

void diagnosticsAre(Diagnostics const& diagnostics) { registered = &diagnostics; }

void FastVantrelImpl::dumpPending() {
  if (initialized()) registered->dumpPending(*state());
}

void FastVantrelImpl::dumpState() {
  VANTREL_TRACE_ENTRY(vantrelFastImplTrace(), 8, "FastVantrelImpl", "dumpState");
  registered->dumpState(*state(), *tableConfig());
}

void FastVantrelImpl::handleDebug() {
  FAST_ASSERT(debugConfig());
  FAST_ASSERT(debugStatus());
  registered->handleDebug(*this, *state());
}

}  // namespace Vantrel
