// SPDX-License-Identifier: Apache-2.0
// A directory for one test, gone with its object.
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestSupport {

class TempDir {
 public:
  explicit TempDir(std::filesystem::path const& root = std::filesystem::temp_directory_path()) {
    std::string name = (root / "vantrel-test-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("mkdtemp");
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (auto const& entry : std::filesystem::directory_iterator(path_))
      result.push_back(entry.path().filename());
    std::ranges::sort(result);
    return result;
  }

 private:
  std::string path_;
};

}  // namespace TestSupport
