// SPDX-License-Identifier: Apache-2.0
// OwnFile: a file that this process made at a path, so that it can tell when somebody took it from there.
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
  // What became of it, and what to do; empty when nothing did.
  std::string problem() const;

 private:
  std::string const path_;
  struct stat made_ {};
};

}  // namespace Vantreld
