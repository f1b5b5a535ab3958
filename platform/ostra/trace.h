// SPDX-License-Identifier: Apache-2.0
// Facility traces: named handles with levels 0 to 9, switched by the TRACE environment variable.
//
//   TRACE="VantrelFastImpl/9,Vantrel*/5"
//
// is a list of NAME/LEVEL, separated by commas or blanks. NAME is a handle's name, a trailing * matches any rest. A
// message of level n is written when the handle's level is at least n; of several matching parts the last one counts.
// A part that cannot be read is named on stderr and the others apply. Without TRACE every handle is at level 0.
//
// Threading: the agent's thread.
// Cost: a level that is off is one load and one predictable branch; the arguments are not evaluated.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "pallo/types.h"

namespace spdlog {
class logger;
}

namespace Ostra {

class VANTREL_API TraceHandle {
 public:
  // Registers with the manager and takes its level from the current settings.
  explicit TraceHandle(std::string name);
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;
  ~TraceHandle();

  std::string const& name() const { return name_; }
  int level() const { return level_; }
  void levelIs(int level) { level_ = level; }
  bool enabled(int level) const { return level <= level_; }

  // One line made of the arguments, printed one behind the other.
  template <class... Args>
  void write(int level, Args const&... args) const {
    std::ostringstream line;
    line << std::boolalpha;
    (line << ... << args);
    writeLine(level, line.str());
  }

 private:
  void writeLine(int level, std::string const& line) const;

  std::string const name_;
  int level_ = 0;
};

// Every handle of the process, the settings and the sink.
class VANTREL_API TraceManager {
 public:
  // Made on first use.
  static TraceManager& instance();

  // Reads TRACE again and gives every handle its level.
  void readEnvironment();
  // Applies a settings text; parts that cannot be read are named on stderr.
  void settingsAre(std::string_view settings);
  std::vector<TraceHandle*> const& handles() const { return handles_; }

  // Where lines go: stderr at first. Null puts stderr back.
  void loggerIs(std::shared_ptr<spdlog::logger> logger);
  // Lines go to the end of a file. Throws spdlog's exception when it cannot be opened.
  void fileIs(std::string const& path);

 private:
  friend class TraceHandle;
  TraceManager();
  struct Part {
    std::string name;
    bool prefix;
    int level;
  };
  void apply(TraceHandle& handle) const;

  std::vector<TraceHandle*> handles_;
  std::vector<Part> parts_;
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace Ostra

// OSTRA_TRACE(handle, level, values...): written when the handle's level allows; nothing is evaluated otherwise.
#define OSTRA_TRACE(handle, level_, ...)                                           \
  do {                                                                             \
    if ((handle).enabled(level_)) [[unlikely]]                                     \
      (handle).write(level_, __VA_ARGS__);                                         \
  } while (false)
