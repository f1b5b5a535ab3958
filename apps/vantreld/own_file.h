// SPDX-License-Identifier: Apache-2.0
// OwnFile: a file that this process made at a path. Tells when the path is gone or names another file.
//
// Invariants: problem() is empty while the path names the file that it named at construction.
// Cost: one stat() a question.
#pragma once

#include <sys/stat.h>

#include <string>

namespace Vantreld {

class OwnFile {
 public:
  explicit OwnFile(std::string path);
  // Returns what happened to the file and what to do; empty while it is in its place.
  std::string problem() const;

 private:
  std::string const path_;
  struct stat made_ {};
};

}  // namespace Vantreld
