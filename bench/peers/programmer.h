// SPDX-License-Identifier: Apache-2.0
// Programmer: brings what a producer writes into a Row. Three of them, for comparison:
//
//   Vantrel      front end and engine over an in-process table
//   Rescan       an ordered map of what lies in the row, a list of what waits; after every change everything
//                that waits is tried again, until nothing more goes. Rings are looked for when nothing goes.
//                Make before break, as Vantrel
//   BreakMake    once an edit is complete, what is not as wanted is deleted, and then added as wanted
//
// Invariants: after finish() the row is as the last writes want it.
// Ownership: refers to the row.
// Threading: one thread.
#pragma once

#include <memory>

#include "bench/peers/row.h"

namespace Bench {

class Programmer {
 public:
  virtual ~Programmer() = default;
  virtual void put(Vantrel::EntryConfig const& wanted) = 0;  // with the delete marker: to be deleted
  virtual void remove(U64 key) = 0;                          // the producer's record has gone
  virtual void finish() {}                                   // an edit is complete
};

std::unique_ptr<Programmer> vantrelProgrammer(Row& row);
std::unique_ptr<Programmer> rescanProgrammer(Row& row);
std::unique_ptr<Programmer> breakMakeProgrammer(Row& row);

}  // namespace Bench
