// SPDX-License-Identifier: Apache-2.0
// What the tests of trace files write and read in a directory of their own.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/temp_dir.h"

namespace Lumelog::Test {

using TestSupport::TempDir;

inline std::string readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(std::string const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Puts a file system of that size over a directory, for this process alone and to its end. False where the
// kernel does not let it.
inline bool mountSmallDisk(std::string const& path, unsigned kib) {
  std::string const owner = "0 " + std::to_string(geteuid()) + " 1";
  if (geteuid() == 0) {
    if (unshare(CLONE_NEWNS) != 0) return false;
  } else {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    writeFile("/proc/self/uid_map", owner);
  }
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", path.c_str(), "tmpfs", 0, ("size=" + std::to_string(kib) + "k").c_str()) == 0;
}

}  // namespace Lumelog::Test
