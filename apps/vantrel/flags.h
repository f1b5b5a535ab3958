// SPDX-License-Identifier: Apache-2.0
// Flags that several verbs share. A wrong value throws CLI::ValidationError: the verb's usage, exit status 2.
#pragma once

#include <CLI/CLI.hpp>
#include <limits>
#include <optional>
#include <string>

#include "pallo/types.h"
#include "producer/geometry.h"

namespace VantrelCommand {

// Returns the number in `text`, decimal or 0x, which must be at most `most`.
U64 numberOf(std::string const& flag, std::string const& text, U64 most);

// A flag that takes such a number.
template <class T>
CLI::Option* addNumber(CLI::App& app, std::string const& flag, std::optional<T>& value,
                       std::string const& help, U64 most = std::numeric_limits<T>::max()) {
  return app
      .add_option_function<std::string>(
          flag,
          [&value, flag, most](std::string const& text) {
            value = static_cast<T>(numberOf(flag, text, most));
          },
          help)
      ->type_name("N");
}

// --dir DIR
CLI::Option* addDir(CLI::App& app, std::string& dir);
// --json
void addJson(CLI::App& app, bool& json);
// --timeout S, a time of at least 0 seconds
CLI::Option* addTimeout(CLI::App& app, std::optional<double>& seconds, std::string const& help);

// --size N, --prio-grp-shift S, --max-partitions M: for a directory that no agent has served yet. Where one
// has, it says what it has, and a flag may not contradict it.
struct GeometryFlags {
  std::optional<U32> size;
  std::optional<U32> prioGrpShift;
  std::optional<U32> maxPartitions;
  void addTo(CLI::App& app);
  // Throws CLI::ValidationError for flags that no agent could have, std::runtime_error for a contradiction.
  Vantrel::Geometry of(std::string const& dir) const;
};

// A verb that writes into a directory does not make it: a typing error would become a new table, that no
// agent reads.
void requireDirectory(std::string const& dir);

}  // namespace VantrelCommand
