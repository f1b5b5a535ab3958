// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/flags.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <filesystem>
#include <stdexcept>

namespace VantrelCommand {

U64 numberOf(std::string const& flag, std::string const& text, U64 most) {
  bool const hex = text.starts_with("0x") || text.starts_with("0X");
  char const* const begin = text.data() + (hex ? 2 : 0);
  char const* const end = text.data() + text.size();
  U64 value = 0;
  auto const [at, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (error == std::errc::invalid_argument || at != end)
    throw CLI::ValidationError(flag, "expected a number, decimal or 0x, instead got \"" + text + "\"");
  if (error != std::errc() || value > most)
    throw CLI::ValidationError(
        flag, "expected a number from 0 to " + std::to_string(most) + ", instead got " + text);
  return value;
}

CLI::Option* addDir(CLI::App& app, std::string& dir) {
  return app.add_option("--dir", dir, "The directory that holds the tables")
      ->required()
      ->envname("VANTREL_DIR")
      ->type_name("DIR");
}

void addJson(CLI::App& app, bool& json) { app.add_flag("--json", json, "One JSON object a line"); }

CLI::Option* addTimeout(CLI::App& app, std::optional<double>& seconds, std::string const& help) {
  return app
      .add_option_function<double>(
          "--timeout",
          [&seconds](double value) {
            if (!std::isfinite(value) || value < 0)
              throw CLI::ValidationError("--timeout", "expected a time of at least 0 seconds");
            seconds = value;
          },
          help)
      ->type_name("SECONDS");
}

void GeometryFlags::addTo(CLI::App& app) {
  addNumber(app, "--size", size,
            "Positions of the hardware table, 0 to N-1 (what the agent has; 131072 before there is one)");
  addNumber(app, "--prio-grp-shift", prioGrpShift,
            "The fast engine's bits for the position in a precedence index (what the agent has, or 19)",
            Vantrel::Mapping::mostShift);
  addNumber(app, "--max-partitions", maxPartitions,
            "The algorithmic engine's number of partitions (what the agent has, or none: the fast engine)",
            65536);
}

namespace {

void requireSame(std::string const& dir, char const* flag, std::optional<U32> given, U32 has) {
  if (given && *given != has)
    throw std::runtime_error(fmt::format(
        "{} {} contradicts the agent of {}, which has {}: leave the flag out, or start the agent with it",
        flag, *given, dir, has));
}

}  // namespace

Vantrel::Geometry GeometryFlags::of(std::string const& dir) const {
  if (maxPartitions == 0U)
    throw CLI::ValidationError("--max-partitions", "expected a number from 1 to 65536, instead got 0");
  auto const agent = Vantrel::Geometry::read(dir);
  if (!agent) {
    Vantrel::Geometry const none;
    return {size.value_or(none.size), prioGrpShift.value_or(none.prioGrpShift), maxPartitions.value_or(0)};
  }
  requireSame(dir, "--size", size, agent->size);
  requireSame(dir, "--max-partitions", maxPartitions, agent->maxPartitions);
  requireSame(dir, "--prio-grp-shift", prioGrpShift, agent->prioGrpShift);
  return *agent;
}

void requireDirectory(std::string const& dir) {
  if (!std::filesystem::is_directory(dir))
    throw std::runtime_error(
        fmt::format("there is no directory {}: correct --dir, or make it first (mkdir -p {})", dir, dir));
}

}  // namespace VantrelCommand
