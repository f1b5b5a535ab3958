// SPDX-License-Identifier: Apache-2.0
// Logs that a test opens, and what a reader shows of their files.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lumelog/lumelog.h"
#include "lumelog/reader.h"

namespace Lumelog::Test {

struct Close {
  void operator()(Log* log) const { close(log); }
};
using LogPtr = std::unique_ptr<Log, Close>;

inline Options small(U32 kib = 16) {
  Options options;
  options.kib.fill(kib);
  return options;
}

inline LogPtr make(std::string const& path, Options const& options = small()) {
  return LogPtr(open(path, options));
}

inline std::vector<std::string> messages(Reader& reader) {
  std::vector<std::string> result;
  for (Record record; reader.next(record);) result.push_back(record.message());
  return result;
}

inline std::vector<std::string> messages(std::string const& path) {
  Reader reader(path);
  return messages(reader);
}

}  // namespace Lumelog::Test
