// SPDX-License-Identifier: Apache-2.0
// SocketFile: a listening Unix-domain socket at a path, and the lock beside it that says that its agent is
// alive.
//
// Invariants: the directory may be writable by others, who may put links, files and directories there at any
//   moment: nothing outside is opened for good, changed or followed because of them. The socket appears under
//   its name when it is complete: listening, with mode 0660. A dead agent's socket is replaced, a live one's
//   is not.
// Ownership: of the socket and of its file, which goes with it. The lock file stays.
// Threading: one thread.
// Cost: a dozen system calls, once.
// Errors: std::runtime_error naming the path.
#pragma once

#include <string>

#include "pallo/descriptor.h"

namespace Pallo {

class SocketFile {
 public:
  explicit SocketFile(std::string path);
  SocketFile(SocketFile const&) = delete;
  SocketFile& operator=(SocketFile const&) = delete;
  ~SocketFile();

  // Non-blocking.
  int fd() const { return listener_.get(); }

 private:
  void openDirectory();
  void lock();
  void checkReplaceable() const;
  Descriptor privateDirectory() const;
  void listenIn(Descriptor const& directory);
  [[noreturn]] void fail(std::string const& what) const;
  [[noreturn]] void failErrno(std::string const& what) const;

  std::string const path_;
  std::string name_;      // the path's last component
  Descriptor directory_;  // that of the path
  Descriptor lock_;       // the kernel gives the lock back when the process ends, however it ends
  Descriptor listener_;
};

}  // namespace Pallo
