// SPDX-License-Identifier: Apache-2.0
// A directory for one test, gone with it, and what the tests write and read there.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace Lumelog::Test {

class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "lumelog-XXXXXX").string();
    if (!mkdtemp(name.data())) std::abort();
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  std::string path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (auto const& entry : std::filesystem::directory_iterator(path_))
      result.push_back(entry.path().filename());
    std::sort(result.begin(), result.end());
    return result;
  }

 private:
  std::string path_;
};

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
