// SPDX-License-Identifier: Apache-2.0
// A table file looked at as a whole: what it is, whether all of it is intact, and a repair of what is not.
//
// Threading: any; beside a running writer inspect() may take what is under way for half-done.
// Cost: tableInfo() reads the header; inspect() and repair() pass over the file.
// Errors: FileException for what is no table; tableInfo() throws Pallo::CorruptionDetectedException for a
//   damaged count; repair() throws WriterLockedException beside a running writer.
#pragma once

#include <string>
#include <vector>

#include "pallo/types.h"

namespace Shoal {

struct TableInfo {
  std::string recordType;
  U32 recordVersion;
  U32 formatVersion;
  U32 imageBytes;   // of a record
  U32 slotBytes;    // of a record in the file
  U32 ringEntries;  // changes a reader may lag behind
  U64 madeAt;       // seconds since 1970
  U64 records;
  U64 bytes;  // of the file
  U64 buckets;
  U64 chunks;   // in use
  U64 changes;  // ever announced
};
VANTREL_API TableInfo tableInfo(std::string const& path);

struct Inspection {
  U64 records = 0;  // whole, and found where their keys lead
  U64 buckets = 0;
  U64 chunks = 0;         // of the file, in use
  U64 overflowLines = 0;  // of the index
  U64 longestChain = 0;   // lines of the longest bucket
  U64 linesRead = 0;      // by one look-up of each record, in sum
  // One sentence for each thing that is wrong, the first thousand of either kind. What a killed writer left
  // half-done, and the next one puts right, is not damage.
  std::vector<std::string> damage;
  std::vector<std::string> unfinished;
};
// Verifies every line of the index, every record and every count. Changes nothing.
VANTREL_API Inspection inspect(std::string const& path);

struct Repair {
  U64 records = 0;                // that the table holds now
  std::vector<std::string> lost;  // one sentence for each slot that is not intact
};
// Makes the table anew from its intact records, whatever became of the index and of the first of its two
// headers. Readers follow to the new file.
VANTREL_API Repair repair(std::string const& path);

}  // namespace Shoal
