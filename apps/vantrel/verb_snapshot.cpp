// SPDX-License-Identifier: Apache-2.0
// vantrel snapshot: what the engine has at each position, which entries wait for one, and for whom.
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
using Vantrel::OpId;
using Vantrel::SharedTables;
using ConfigFile = Shoal::ReaderTable<EntryConfig>;

constexpr double defaultTimeout = 30.0;

struct Asked {
  std::string dir;
  bool json = false;
  std::optional<double> timeout;
};

Json jsonOf(Snapshot::Place const& row, OpId opId, std::optional<Wait> const& wait) {
  Json line{{"position", row.ti},
            {"state", row.waits ? "waiting" : "programmed"},
            {"key", row.key.value()},
            {"opId", opId.value()}};
  if (!wait) return line;
  if (wait->blocker)
    line[wait->kind == Kind::Occupied ? "heldBy" : "wrongSideOf"] = wait->blocker->key.value();
  line["waitedSeconds"] = wait->seconds;
  line["why"] = wait->text;
  return line;
}

void print(Snapshot const& snapshot, ConfigFile const& config, bool asJson) {
  if (!asJson)
    fmt::print("{:>10} {:<10} {:>20} {:>20}  {}\n", "POSITION", "STATE", "KEY", "OPID", "WHY IT WAITS");
  for (Snapshot::Place const& row : snapshot.inOrder()) {
    OpId const opId = snapshot.opIdOf(row);
    auto const wait = row.waits ? std::optional(waitOf(snapshot, config, row.key, row.ti)) : std::nullopt;
    if (asJson)
      fmt::print("{}\n", jsonOf(row, opId, wait).dump());
    else
      fmt::print("{:>10} {:<10} {:>20} {:>20}{}\n", row.ti, row.waits ? "waiting" : "programmed",
                 row.key.value(), opId.value(), wait ? "  " + wait->text : "");
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
  CLI::App& verb =
      *app.add_subcommand("snapshot", "The engine's positions, and what each waiting entry waits for");
  addDir(verb, asked->dir);
  addJson(verb, asked->json);
  addTimeout(verb, asked->timeout, "How long the agent may take (30)");
  verb.footer("Example:\n  vantrel snapshot --dir /run/vantrel --json");
  verb.callback([asked] { snapshot(*asked); });
}

}  // namespace VantrelCommand
