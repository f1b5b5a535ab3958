// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/flags.h"

#include <charconv>
#include <cmath>

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
  return app.add_option("--dir", dir, "The directory that holds the tables")->required()->type_name("DIR");
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

void MappingFlags::addTo(CLI::App& app) {
  addNumber(app, "--prio-grp-shift", prioGrpShift,
            "The fast engine's bits for the position in a precedence index (19)",
            Vantrel::Mapping::mostShift);
  addNumber(app, "--max-partitions", maxPartitions,
            "The algorithmic engine's number of partitions; without it the engine is the fast one", 65536);
}

Vantrel::Mapping MappingFlags::mapping() const {
  if (maxPartitions == 0U)
    throw CLI::ValidationError("--max-partitions", "expected a number from 1 to 65536, instead got 0");
  if (maxPartitions) return Vantrel::Mapping::algorithmic(*maxPartitions);
  return Vantrel::Mapping::fast(prioGrpShift.value_or(Vantrel::Mapping::defaultShift));
}

}  // namespace VantrelCommand
