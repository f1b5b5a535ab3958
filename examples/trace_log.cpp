// SPDX-License-Identifier: Apache-2.0
// A trace of your own: records in binary while the program runs, text when a person asks for it.
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "lumelog/lumelog.h"
#include "lumelog/reader.h"

int main() {
  std::string directory = std::filesystem::temp_directory_path() / "trace-log-XXXXXX";
  if (!mkdtemp(directory.data())) return 1;
  unsetenv("LUMELOGDIR");
  Lumelog::directoryIs(directory);
  U64 const key = 7;
  U32 const hdl = 3;

  Lumelog::Options options;
  options.kib.fill(64);  // KiB a level
  Lumelog::Log* const log = Lumelog::open("agent-%d.lg", options);
  LUMELOG_RECORD(log, 9, 1U, "handling key:", key, " hdl:", hdl);

  if (!log) return 1;
  std::cout << log->sites() << " message site, in a file that outlives the process\n";

  Lumelog::Reader reader(log->path());  // while it is written, or when its process is gone
  for (Lumelog::Record record; reader.next(record);)
    std::cout << record.identifier() << ' ' << record.message() << '\n';
  Lumelog::close(log);
  std::filesystem::remove_all(directory);
}
