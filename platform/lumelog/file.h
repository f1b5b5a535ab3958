// SPDX-License-Identifier: Apache-2.0
// Trace files by their names: how one appears, and which of those that dead processes left are removed.
//
// A file is made under a name of its own, locked, and filled in by the caller; only then does it appear under
// the wanted name, so that whoever sees that name sees a whole file. The lock lives as long as the process.
//
// Invariants: no file is ever overwritten or shared. Other users may write to the directory: it is held by
//   its descriptor, and no link is followed at a name in it. Removed is only what is a trace file of this
//   log's name and this user's, and unlocked.
// Ownership: the caller's.
// Errors: std::system_error.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "pallo/descriptor.h"

namespace Lumelog::File {

// Where a log of this name lies: the name itself when it is absolute, else in LUMELOGDIR, else in `directory`
// (empty: the current one); "%d" replaced by the process number.
std::string place(std::string const& name, std::string const& directory);

// Opens the directory of such a place.
Pallo::Descriptor openDirectory(std::string const& path);

// Removes the files that processes of this user left there, of the log's name with any process number and
// those put aside, but the `keep` that were written last.
void removeOld(int directory, std::string const& name, std::size_t keep);

// A new file, locked, that has no name of its own yet.
class Draft {
 public:
  // For the place `path`, whose directory stays open while it lives.
  Draft(int directory, std::string const& path);
  ~Draft();

  // Hands the descriptor over.
  Pallo::Descriptor take() { return std::move(fd_); }
  // Gives it its name or, when a live process or somebody else has that one, the next that is free; what a
  // dead process left there is put aside. Returns the path.
  std::string publish();

 private:
  int const directory_;
  std::string const path_;
  std::string draft_;  // its name
  Pallo::Descriptor fd_;
};

// A live process holds the file.
bool isLive(int fd);

}  // namespace Lumelog::File
