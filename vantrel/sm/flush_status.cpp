// SPDX-License-Identifier: Apache-2.0
// How the two counters are reached by name: a producer in another process reads and watches them.
//
//   tableCounter:  0 --front end made--> 1 --the next one made--> 2
//   flushCounter:  0 --first walk flushed--> 1
//
// It does not count: the front ends do, and a write from outside is refused.
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
