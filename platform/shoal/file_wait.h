// SPDX-License-Identifier: Apache-2.0
// Waits for a file to appear, without polling for it: for a table that its writer has not made yet.
//
// Poll fd(); when it is readable, call dispatch(), then ask ready(). A table appears complete: what has its
// name is one.
//
// Ownership: owns its descriptor.
// Threading: one thread.
// Cost: nothing while it waits.
// Errors: FileException when the file's directory does not exist or cannot be watched.
#pragma once

#include <string>

#include "pallo/types.h"

namespace Shoal {

class VANTREL_API FileWait {
 public:
  explicit FileWait(std::string path);
  ~FileWait();
  FileWait(FileWait const&) = delete;
  FileWait& operator=(FileWait const&) = delete;

  std::string const& path() const { return path_; }
  int fd() const { return fd_; }
  void dispatch();
  bool ready() const;

 private:
  std::string const path_;
  int fd_ = -1;
};

}  // namespace Shoal
