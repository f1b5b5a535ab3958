// SPDX-License-Identifier: Apache-2.0
// Facility traces: named handles with levels 0 to 9, switched by the TRACE environment variable.
//
//   TRACE="VantrelFastImpl/9,Vantrel*/5 >/tmp/trace.txt"
//
// is a list of parts, separated by commas, semicolons or blanks. NAME/LEVEL gives the handle of that name a
// level; a * at the end of NAME matches any rest, so that */3 is everybody. Of several matching parts the
// last one counts; handles that none matches are at level 0. >FILE appends the lines to a file instead of
// stderr, until a text without it is applied. A part that cannot be read is named on stderr and the others
// apply.
//
// A message of level n is written when the handle's level is at least n, as one line: the time, the handle's
// name and the message's level, then the values one behind the other.
//
// Invariants: a handle is known to the manager from its first use to its end.
// Ownership: handles are globals or belong to whoever made them; the manager lives to the end of the process.
// Threading: the agent's thread.
// Cost: a level that is off is one load and one predictable branch; the arguments are not evaluated.
// Errors: a file that cannot be opened is said on stderr, and the lines go where they go without one.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "pallo/types.h"

namespace spdlog {
class logger;
}

namespace Ostra {

class VANTREL_API TraceHandle {
 public:
  // Costs nothing at program start: the handle registers, and takes its level from the settings, when it is
  // first used. `name` must outlive it.
  constexpr explicit TraceHandle(char const* name) : name_(name) {}
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;
  ~TraceHandle();

  char const* name() const { return name_; }
  int level() { return level_ == unused ? firstUse() : level_; }
  void levelIs(int level);
  bool enabled(int level) { return level <= level_ && (level_ != unused || level <= firstUse()); }

  // One line made of the arguments, printed one behind the other. Apart from its caller, who has mostly
  // nothing to say and should save no register for it.
  template <class... Args>
  [[gnu::noinline, gnu::cold]] void write(int level, Args const&... args) const {
    std::ostringstream line;
    line << std::boolalpha;
    (line << ... << printable(args));
    writeLine(level, line.str());
  }

 private:
  static constexpr int unused = 100;  // above every level: the first test finds its way to firstUse()

  // Bytes are numbers here.
  template <class T>
  static decltype(auto) printable(T const& value) {
    if constexpr (std::is_same_v<T, U8>)
      return static_cast<unsigned>(value);
    else
      return (value);
  }
  int firstUse();
  void writeLine(int level, std::string const& line) const;

  char const* const name_;
  int level_ = unused;
};

// Every handle of the process, the settings and the sink.
class VANTREL_API TraceManager {
 public:
  // Made on first use.
  static TraceManager& instance();

  // Reads TRACE again and gives every handle its level.
  void readEnvironment();
  // Applies a settings text instead of the one before; parts that cannot be read are named on stderr.
  void settingsAre(std::string_view settings);
  std::vector<TraceHandle*> const& handles() const { return handles_; }

  // Where lines go that the settings send to no file: stderr at first. Null puts stderr back.
  void loggerIs(std::shared_ptr<spdlog::logger> logger);

 private:
  friend class TraceHandle;
  TraceManager();
  struct Part {
    std::string name;
    bool prefix;
    int level;
  };
  void readPart(std::string_view part);
  void readFile(std::string const& path);
  int levelOf(std::string_view name) const;

  std::vector<TraceHandle*> handles_;
  std::vector<Part> parts_;
  std::shared_ptr<spdlog::logger> logger_;
  std::shared_ptr<spdlog::logger> file_;  // the settings' own; null when they name none
};

}  // namespace Ostra

// OSTRA_TRACE(handle, level, values...): written when the handle's level allows; nothing is evaluated
// otherwise.
#define OSTRA_TRACE(handle, level_, ...)       \
  do {                                         \
    if ((handle).enabled(level_)) [[unlikely]] \
      (handle).write(level_, __VA_ARGS__);     \
  } while (false)
