// SPDX-License-Identifier: Apache-2.0
#include "vantrel/sm/flush_status.h"
#include "ostra/type_info.h"

namespace Vantrel {
namespace {
std::string frontEndsCount(VantrelFlushStatus const&) { return "the front ends count"; }
}  // namespace

Ostra::TypeInfo const& VantrelFlushStatus::staticType() {
  using F = VantrelFlushStatus;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<F>("Vantrel::VantrelFlushStatus")
                                          .attribute("tableCounter", &F::tableCounter, &F::tableCounterIs)
                                          .refusedBecause(&frontEndsCount)
                                          .attribute("flushCounter", &F::flushCounter, &F::flushCounterIs)
                                          .refusedBecause(&frontEndsCount);
  return type;
}

}  // namespace Vantrel
