// SPDX-License-Identifier: Apache-2.0
#include "vantrel/sm/flush_status.h"

namespace Vantrel {

Ostra::TypeInfo const& VantrelFlushStatus::staticType() {
  using F = VantrelFlushStatus;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<F>("Vantrel::VantrelFlushStatus")
                                          .attribute("tableCounter", &F::tableCounter, &F::tableCounterIs)
                                          .attribute("flushCounter", &F::flushCounter, &F::flushCounterIs);
  return type;
}

}  // namespace Vantrel
