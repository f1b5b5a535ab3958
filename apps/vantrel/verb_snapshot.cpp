// SPDX-License-Identifier: Apache-2.0
// vantrel snapshot: what the engine has at each position, what of it the hardware refuses, which entries wait
// for a position, and for whom.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "apps/vantrel/agent_view.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/explain.h"
#include "apps/vantrel/flags.h"
#include "producer/shared_tables.h"
#include "shoal/reader_table.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Vantrel::WaitReason::Kind;
using Vantrel::EntryConfig;
using Vantrel::SharedTables;
using ConfigFile = Shoal::ReaderTable<EntryConfig>;

constexpr double defaultTimeout = 30.0;

struct Asked {
  std::string dir;
  bool json = false;
  std::optional<double> timeout;
};

// What keeps the entry from the position.
struct Obstacle {
  std::optional<Wait> wait;
  std::string why;
};

Obstacle obstacleOf(Snapshot const& snapshot, ConfigFile const& config, Snapshot::Place const& row) {
  if (auto const* refusal = snapshot.refusalOf(row)) return {std::nullopt, refusal->reason};
  if (!row.waits) return {};
  Wait wait = waitOf(snapshot, config, row.key, row.ti);
  std::string why = wait.text;
  return {std::move(wait), std::move(why)};
}

Json jsonOf(Snapshot const& snapshot, Snapshot::Place const& row, Obstacle const& obstacle) {
  Json line{{"position", row.ti},
            {"state", snapshot.stateOf(row)},
            {"key", row.key.value()},
            {"opId", snapshot.opIdOf(row).value()}};
  if (auto const& wait = obstacle.wait) {
    if (wait->blocker)
      line[wait->kind == Kind::Occupied ? "heldBy" : "wrongSideOf"] = wait->blocker->key.value();
    line["waitedSeconds"] = wait->seconds;
  }
  if (!obstacle.why.empty()) line["why"] = obstacle.why;
  return line;
}

void print(Snapshot const& snapshot, ConfigFile const& config, bool asJson) {
  if (!asJson) fmt::print("{:>10} {:<10} {:>20} {:>20}  {}\n", "POSITION", "STATE", "KEY", "OPID", "WHY");
  for (Snapshot::Place const& row : snapshot.inOrder()) {
    Obstacle const obstacle = obstacleOf(snapshot, config, row);
    if (asJson)
      fmt::print("{}\n", jsonOf(snapshot, row, obstacle).dump());
    else
      fmt::print("{:>10} {:<10} {:>20} {:>20}{}\n", row.ti, snapshot.stateOf(row), row.key.value(),
                 snapshot.opIdOf(row).value(), obstacle.why.empty() ? "" : "  " + obstacle.why);
  }
}

void snapshot(Asked const& asked) {
  auto const agent = agentViewOf(asked.dir);
  std::string const path = SharedTables::configPath(asked.dir);
  if (!std::filesystem::exists(path))
    throw std::runtime_error(asked.dir + " holds no configuration table yet, so the agent takes no snapshot");
  auto const taken = agent->snapshot(asked.timeout.value_or(defaultTimeout));
  if (!taken) throw std::runtime_error(agent->problem());
  print(*taken, ConfigFile(path), asked.json);
}

}  // namespace

void addSnapshot(CLI::App& app) {
  auto const asked = std::make_shared<Asked>();
  CLI::App& verb = *app.add_subcommand("snapshot",
                                       "The engine's positions, what each waiting entry waits for, and what "
                                       "the hardware refuses");
  addDir(verb, asked->dir);
  addJson(verb, asked->json);
  addTimeout(verb, asked->timeout, "How long the agent may take (30)");
  verb.footer("Example:\n  vantrel snapshot --dir /run/vantrel --json");
  verb.callback([asked] { snapshot(*asked); });
}

}  // namespace VantrelCommand
