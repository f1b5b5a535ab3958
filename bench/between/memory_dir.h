// SPDX-License-Identifier: Apache-2.0
// A directory in memory, as an agent's is below /run, gone with its object. Where there is no /dev/shm, one
// for temporary files.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Bench {

class MemoryDir {
 public:
  MemoryDir() {
    std::filesystem::path const root =
        std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    path_ = (root / "vantrel-bench-XXXXXX").string();
    if (!mkdtemp(path_.data())) throw std::runtime_error("no temporary directory in " + root.string());
  }
  ~MemoryDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  MemoryDir(MemoryDir const&) = delete;
  MemoryDir& operator=(MemoryDir const&) = delete;
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace Bench
