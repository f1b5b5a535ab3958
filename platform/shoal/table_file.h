// SPDX-License-Identifier: Apache-2.0
// A table file for records of any type: what WriterTable and ReaderTable are typed faces of.
//
// Invariants: a record is read whole, as one write left it. A process that is killed at any moment leaves
//   every record whole. A file may be truncated, damaged or replaced under its readers: they report it.
// Ownership: a FileWriter holds the file's writer lock, a FileReader its mapping.
// Threading: one thread an object; any number of readers in any number of processes beside one writer.
// Cost: see docs/performance.md.
// Errors: FileException where a file cannot be opened; WriterLockedException, NoSpaceException;
//   Pallo::CorruptionDetectedException for damage that is met later.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pallo/types.h"

namespace Shoal {

// What a record type is in a file's header.
struct Shape {
  std::string_view typeName;
  U32 version;
  std::size_t imageBytes;  // a multiple of 8
  std::size_t tailAt;      // the word of the image that begins its tail; behind the last: it has none
};

// How much of an image is in use: words from its beginning, and words from its tail's.
struct Extent {
  U32 head = 0;
  U32 tail = 0;
  bool isEmpty() const { return (head | tail) == 0; }
};

// Which write a record is of: another one after each write of the key, whether it is removed in between, the
// table is made anew from its records, or another table takes its place.
struct Change {
  U64 table = 0;   // names the table
  U64 number = 0;  // of the table's changes; 0: the key is absent
  bool operator==(Change const&) const = default;
};

// A present key, and the position after it.
struct FilePlace {
  U64 key;
  U64 hint;
};

struct WriterOptions {
  // Begin with an empty table in a new file, whatever table is there. Its mode stays, and its group where
  // this user may give files to that.
  bool replace = false;
  // Changes a reader may lag behind before it is told to walk; of a new file; a power of two.
  U32 ringEntries = 16384;
};

// What a writer did since it opened the table.
struct WriterCounters {
  U64 inserts = 0;
  U64 replaces = 0;
  U64 removes = 0;
  U64 splits = 0;    // of index buckets
  U64 chunks = 0;    // added to the file
  U64 wakeUps = 0;   // sent
  U64 repaired = 0;  // entries, lines and announcements put right at opening
  U64 rebuilds = 0;  // of the index, which was damaged
};

class TableWriter;

class VANTREL_API FileWriter {
 public:
  // Opens the table at `path`, or makes it.
  FileWriter(std::string const& path, Shape const& shape, WriterOptions const& options);
  ~FileWriter();
  FileWriter(FileWriter const&) = delete;
  FileWriter& operator=(FileWriter const&) = delete;

  // Writes a record, and wakes those who watch the file.
  void put(U64 key, std::byte const* image, Extent extent);
  // Returns false when the key is absent.
  bool remove(U64 key);
  // Removes every record, damaged ones too. Returns the keys that there were.
  std::vector<U64> removeAll();

  // Takes the space for so many records in all now: as long as there are no more, no write lacks any.
  void reserve(U64 records);

  // As FileReader's.
  Extent read(U64 key, std::byte* image) const;
  Change changeOf(U64 key) const;
  std::optional<FilePlace> walk(U64 hint) const;
  U64 size() const;
  // Changes that the table has ever seen, from all its writers, in the files it replaced too.
  U64 changes() const;
  WriterCounters counters() const;

 private:
  std::unique_ptr<TableWriter> writer_;
};

class VANTREL_API FileReader {
 public:
  // A file that is no such table: `required` makes that an error of the constructor. `awaited` reads as an
  // empty table, and is followed when it becomes one.
  enum class Presence { required, awaited };
  // Who is told of changes.
  class Sink {
   public:
    virtual void changed(U64 key) = 0;
    virtual void anythingChanged() = 0;
    virtual void damaged(std::string_view what) = 0;

   protected:
    ~Sink() = default;
  };

  FileReader(std::string path, Shape const& shape, Sink& sink, Presence presence);
  ~FileReader();
  FileReader(FileReader const&) = delete;
  FileReader& operator=(FileReader const&) = delete;

  // Reads a record's image; returns what of it is in use, nothing when the key is absent.
  Extent read(U64 key, std::byte* image);
  // Which write the key's record is of.
  Change changeOf(U64 key);
  // The first present key at or after a position; position 0 begins a walk. Damage of the index is thrown
  // where the walk ends, so that it costs no intact record its visit. `told`: those who watch know of the key
  // now.
  std::optional<FilePlace> walk(U64 hint, bool told);
  U64 size() const;

  std::string const& path() const;
  // There is a table now.
  bool mounted() const;
  // Why there is none, when something else is there.
  std::string const& problem() const;

  // The descriptor to poll; watching begins with the first call.
  int fd();
  // Tells what there is to tell, for at most `slice` seconds; fd() stays readable while there is more.
  void dispatch();
  void sliceIs(double seconds);

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace Shoal
