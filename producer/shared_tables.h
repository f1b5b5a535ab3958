// SPDX-License-Identifier: Apache-2.0
// SharedTables: the two tables in a directory as a producer has them: DIR/config.shoal to write,
// DIR/status.shoal to read, whether an agent has made it yet or not.
//
//   SharedTables tables(dir);
//   Producer producer(tables.config(), tables.status(), Mapping::fast(), tables.changes());
//   Acknowledgements waiting(tables.status());
//   ...
//   while (!waiting.done()) tables.wait(1.0);        // sleeps on the status table's descriptor
//
// Invariants: the status table is one object from the beginning: empty until the agent makes its file, then
//   that file's contents, also when another agent replaces it; whoever watches it is told of all of that.
// Ownership: holds both tables; the configuration table has no other writer meanwhile.
// Threading: one thread.
// Cost: at rest, one look a second.
// Errors: Shoal::FileException and Shoal::WriterLockedException, one sentence each.
#pragma once

#include <memory>
#include <string>

#include "ostra/ptr.h"
#include "vantrel/core/tables.h"

namespace Vantrel {

class VANTREL_API SharedTables {
 public:
  // Opens the configuration table or makes it, and the directory with it.
  explicit SharedTables(std::string const& dir);
  ~SharedTables();
  SharedTables(SharedTables const&) = delete;
  SharedTables& operator=(SharedTables const&) = delete;

  static std::string configPath(std::string const& dir) { return dir + "/config.shoal"; }
  static std::string statusPath(std::string const& dir) { return dir + "/status.shoal"; }

  Ostra::Ptr<TableConfig> config() const;
  Ostra::Ptr<TableStatus const> status() const;
  // How many writes the configuration table has ever seen.
  U64 changes() const;
  // The agent has made its status table, and this process can read it; and why not, when there is one.
  bool hasStatus() const;
  std::string statusProblem() const;
  // What to do about a table that this user may not read, in words that follow the problem; empty for others.
  static std::string advice(std::string const& path);

  // For an event loop: readable when dispatch() has something to tell.
  int fd() const;
  void dispatch();
  // Sleeps until there was something to tell, and tells it; false when `seconds` passed before.
  bool wait(double seconds);

 private:
  class ConfigFile;
  class StatusFile;
  Ostra::Ptr<ConfigFile> config_;
  Ostra::Ptr<StatusFile> status_;
};

}  // namespace Vantrel
