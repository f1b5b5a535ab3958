// SPDX-License-Identifier: Apache-2.0
// How a trace file comes into being under its name.
//
// The file is made under a name of its own, reserved, filled in by the caller and locked; only then does it
// appear under the wanted name, so that whoever sees that name sees a whole file. The lock lives as long as
// the process: a name whose file is locked belongs to a live process, one whose file is not is what a dead
// process left.
//
// Invariants: no file is ever overwritten or shared.
// Ownership: the caller's, the descriptor included.
// Errors: std::system_error, its text naming the path.
#pragma once

#include <cstddef>
#include <string>

namespace Lumelog::File {

// A new file that has no name of its own yet.
class Draft {
 public:
  // In the directory of `path`, with `bytes` of reserved space.
  Draft(std::string const& path, std::size_t bytes);
  ~Draft();
  Draft(Draft const&) = delete;
  Draft& operator=(Draft const&) = delete;

  int fd() const { return fd_; }
  // Gives it the name `path`, or when a live process holds that one, the next that is free, and hands over
  // the descriptor. Returns the name.
  std::string publish(std::string const& path, int* fd);

 private:
  std::string path_;
  int fd_ = -1;
};

// Where a log of this name lies: the name itself when it is absolute, else in LUMELOGDIR, else in `directory`
// (empty: the current one); "%d" replaced by the process number.
std::string place(std::string const& name, std::string const& directory);

// A live process holds the file.
bool isLive(int fd);

}  // namespace Lumelog::File
