// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/own_file.h"

#include <fmt/format.h>

#include <utility>

namespace Vantreld {

OwnFile::OwnFile(std::string path) : path_(std::move(path)) { ::lstat(path_.c_str(), &made_); }

std::string OwnFile::problem() const {
  struct stat there {};
  bool const isThere = ::lstat(path_.c_str(), &there) == 0;
  if (isThere && there.st_ino == made_.st_ino && there.st_dev == made_.st_dev) return {};
  return fmt::format(
      "{} was {}: no producer sees an acknowledgement any more; put it back, or stop this agent and start "
      "another",
      path_, isThere ? "replaced" : "removed");
}

}  // namespace Vantreld
