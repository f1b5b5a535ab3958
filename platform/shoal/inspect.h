// SPDX-License-Identifier: Apache-2.0
// A full verification of a table file: every line of the index, every record, every count.
//
// Invariants: changes nothing. What a killed writer left half-done, and the next one puts right, is told
//   apart from damage. Meant for a table at rest; beside a running writer it may take what is under way for
//   half-done.
// Cost: one pass over index and records.
#pragma once

#include <string>
#include <vector>

#include "shoal/table_view.h"

namespace Shoal {

struct Inspection {
  U64 records = 0;  // whole, and found where their keys lead
  U64 buckets = 0;
  U64 chunks = 0;         // of the file, in use
  U64 overflowLines = 0;  // of the index
  U64 longestChain = 0;   // lines of the longest bucket
  U64 linesRead = 0;      // by one look-up of each record, in sum
  std::vector<std::string> damage;
  std::vector<std::string> unfinished;
};

VANTREL_API Inspection inspect(TableView& view);

}  // namespace Shoal
