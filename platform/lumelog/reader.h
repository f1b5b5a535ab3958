// SPDX-License-Identifier: Apache-2.0
// Reads a trace file: that of a dead process, of one that is still writing, cut short or damaged.
//
//   Lumelog::Reader reader("Quarry-mbb.lg");
//   for (Lumelog::Record record; reader.next(record);) std::cout << record.message() << '\n';
//
// Invariants: every intact record is delivered once, in the order in which it was written, across the levels.
//   What is not intact is left out and counted. Nothing that the file says is trusted: each read is bounded
//   by the file's size, each step goes forward.
// Ownership: a record's site and strings belong to the reader; the strings until the next call of next().
// Threading: one thread. The writer is never disturbed.
// Cost: one sub-buffer a level in memory.
// Errors: Pallo::Exception for a file that cannot be read or is not a trace file.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pallo/types.h"

namespace Lumelog {

// One message of the source, as the file tells it.
struct SiteInfo {
  U32 id;
  unsigned level;
  std::string file;
  U32 line;
  std::string types;  // of the values, the identifier first
  std::string text;   // with %i, %q, %s where values but the identifier stand, %% for a percent sign
  std::vector<std::string> labels;  // its parts: before each value, and behind the last
};

struct Value {
  char type;              // 'i', 'q' or 's'
  U64 number;             // 0 for a string
  std::string_view text;  // of a string
};

struct Record {
  U64 ticks;   // rises strictly within a file
  U64 realNs;  // nanoseconds since 1970
  U32 bytes;   // in the file
  SiteInfo const* site;
  std::vector<Value> values;  // the identifier first

  U32 identifier() const { return static_cast<U32>(values.front().number); }
  // The text with the values in their places, without the identifier.
  VANTREL_API std::string message() const;
  // A value that the text calls a key ("key:" or "key=" before it) is `key`.
  VANTREL_API bool mentionsKey(U64 key) const;
};

// What of a file could not be shown.
struct Damage {
  bool header = false;   // the header at the start was damaged, its copy at the end served
  U64 missingBytes = 0;  // the file is shorter than it was made
  U64 siteBytes = 0;     // of call sites that are damaged
  U64 subBuffers = 0;    // sub-buffers that are damaged as a whole
  U64 recordBytes = 0;   // damaged bytes in other sub-buffers
  U64 unknownSites = 0;  // records whose call site is not there
  U64 overrun = 0;       // sub-buffers that the writer reused before they were read
  U64 dropped = 0;       // records that the writer itself could not keep
  U64 restarts = 0;      // the file was truncated and started over while it was read

  VANTREL_API bool any() const;
  // One line for each kind that occurred.
  VANTREL_API std::vector<std::string> lines() const;
};

// How one level's ring buffer stands.
struct RingState {
  U64 bytes;       // its size
  U64 subBuffers;  // in it
  U64 written;  // sub-buffers begun since the file was opened: more than `subBuffers` means that it wrapped
};

class VANTREL_API Reader {
 public:
  explicit Reader(std::string path);
  ~Reader();

  // The next record. False when there is none now; a live process may have written more at the next call.
  bool next(Record& record);

  std::string const& path() const;
  std::string program() const;
  U32 pid() const;
  U64 openedNs() const;  // nanoseconds since 1970
  // A process holds the file open for writing.
  bool live() const;
  Damage const& damage() const;
  // Level 0 first.
  std::vector<RingState> rings() const;
  // Those that were met so far, in no order.
  std::vector<SiteInfo const*> sites() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> const impl_;
};

// The records of several files, by time.
class VANTREL_API Merge {
 public:
  void add(std::unique_ptr<Reader> reader) { sources_.push_back({std::move(reader), {}}); }
  // The reader whose record it is; null when there is none now.
  Reader const* next(Record& record);

 private:
  struct Source {
    std::unique_ptr<Reader> reader;
    Record head;         // its next record, when
    bool asked = false;  //   it was asked for one and
    bool has = false;    //   had one
  };
  std::vector<Source> sources_;
};

}  // namespace Lumelog
