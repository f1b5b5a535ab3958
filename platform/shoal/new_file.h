// SPDX-License-Identifier: Apache-2.0
// NewFile: an empty table, made beside its place and moved there when it is complete: a file of the table's
// name is always a table.
//
// Invariants: whoever works on FILE.new holds its writer lock, so two never make the same table at once; the
//   lock stays with the file when it is moved. What a killed process left there is begun anew.
// Ownership: the file goes with the object unless it was published.
// Errors: FileException, WriterLockedException, NoSpaceException.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "pallo/descriptor.h"
#include "shoal/format.h"
#include "shoal/mapping.h"
#include "shoal/table_file.h"

namespace Shoal {

Format::Header newHeader(Shape const& shape, U32 ringEntries);
// The same table's in another file.
Format::Header renewed(Format::Header header);

// Takes the writer's lock of an open file, or throws WriterLockedException. Changes nothing in it.
void lockForWriting(std::string const& path, int file);
// Writes this process's number into a table file that it locked, for the message to others.
void nameHolder(std::string const& path, int file);

// Gives a file a group and a mode; where it cannot be given to the group, the mode without the group's part.
// False: it has another mode now, and errno says why.
bool giveAccess(int file, mode_t mode, gid_t group);

// Space is taken before it is written: a full file system answers here, not with a signal at some store.
// Throws NoSpaceException, and the file has the length it had.
void allocate(int file, std::string const& path, U64 offset, U64 bytes);

class NewFile {
 public:
  // `path` is where it is to be; `changes` how many were announced there before, which it goes on to count.
  NewFile(std::string path, Format::Header const& header, U64 changes);
  ~NewFile();
  NewFile(NewFile const&) = delete;
  NewFile& operator=(NewFile const&) = delete;

  int fd() const { return file_.get(); }
  // Lets those in who may use `old`, which it is to replace.
  void keepAccessOf(int old);
  // Moves it to its place. Returns it, mapped for writing; null when `replace` is false and a table is there
  // by now.
  std::shared_ptr<Mapping> publish(bool replace);

 private:
  void open();
  void write(Format::Header const& header, U64 changes);

  std::string const path_;
  std::string const fresh_;
  Pallo::Descriptor file_;
};

}  // namespace Shoal
