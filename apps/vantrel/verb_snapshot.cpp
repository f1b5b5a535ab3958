// SPDX-License-Identifier: Apache-2.0
// vantrel snapshot: what the engine has at each position, which entries wait for one, and for whom.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "apps/vantrel/agent_view.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/explain.h"
#include "apps/vantrel/flags.h"
#include "producer/shared_tables.h"
#include "shoal/reader_table.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;
using Vantrel::EntryConfig;
using Vantrel::SharedTables;
using ConfigFile = Shoal::ReaderTable<EntryConfig>;

constexpr double defaultTimeout = 30.0;

struct Asked {
  std::string dir;
  bool json = false;
  std::optional<double> timeout;
};

// An entry at a position, or waiting for it.
struct Row {
  U32 position;
  Snapshot::Place place;
  std::optional<Explanation> waits;
};

std::vector<Row> rowsOf(Snapshot const& snapshot, Explainer const& explainer) {
  std::vector<Row> rows;
  rows.reserve(snapshot.programmed.size() + snapshot.waiting.size());
  for (auto const& [ti, place] : snapshot.programmed) rows.push_back({ti, place, std::nullopt});
  for (auto const& [ti, place] : snapshot.waiting) rows.push_back({ti, place, explainer.explain(place.key)});
  std::ranges::stable_sort(rows, {}, &Row::position);
  return rows;
}

// The explanation without the "key N (OpId M): " that the row says already.
std::string reasonOf(Explanation const& explanation) {
  std::size_t const at = explanation.text.find("): ");
  return at == std::string::npos ? explanation.text : explanation.text.substr(at + 3);
}

Json jsonOf(Row const& row) {
  Json line{{"position", row.position},
            {"state", row.waits ? "waiting" : "programmed"},
            {"key", row.place.key.value()},
            {"opId", row.place.opId.value()}};
  if (!row.waits) return line;
  if (row.waits->heldBy) line["heldBy"] = row.waits->heldBy->value();
  if (row.waits->outranks) line["wrongSideOf"] = row.waits->outranks->value();
  line["why"] = reasonOf(*row.waits);
  return line;
}

void print(std::vector<Row> const& rows, bool asJson) {
  if (!asJson)
    fmt::print("{:>10} {:<10} {:>20} {:>20}  {}\n", "POSITION", "STATE", "KEY", "OPID", "WHY IT WAITS");
  for (Row const& row : rows) {
    if (asJson)
      fmt::print("{}\n", jsonOf(row).dump());
    else
      fmt::print("{:>10} {:<10} {:>20} {:>20}{}\n", row.position, row.waits ? "waiting" : "programmed",
                 row.place.key.value(), row.place.opId.value(), row.waits ? "  " + reasonOf(*row.waits) : "");
  }
}

void snapshot(Asked const& asked) {
  auto const agent = agentViewOf(asked.dir);
  std::string const path = SharedTables::configPath(asked.dir);
  if (!std::filesystem::exists(path))
    throw std::runtime_error(asked.dir + " holds no configuration table yet, so the agent takes no snapshot");
  auto const taken = agent->snapshot(asked.timeout.value_or(defaultTimeout));
  if (!taken) throw std::runtime_error(agent->problem());
  ConfigFile const config(path);
  Explainer const explainer(config, taken, {});
  print(rowsOf(*taken, explainer), asked.json);
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
