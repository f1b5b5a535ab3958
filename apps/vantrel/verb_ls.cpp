// SPDX-License-Identifier: Apache-2.0
// vantrel ls: lists a table, or the row of positions. vantrel status: shows one key's state.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "apps/vantrel/agent_view.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "apps/vantrel/rules.h"
#include "hw/acl/rule.h"
#include "pallo/exception.h"
#include "producer/acknowledgements.h"
#include "producer/shared_tables.h"
#include "shoal/reader_table.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;
using Vantrel::SharedTables;
using Vantrel::TableKey;
using ConfigFile = Shoal::ReaderTable<EntryConfig>;
using StatusFile = Shoal::ReaderTable<EntryStatus>;

constexpr double snapshotSeconds = 10.0;
constexpr double hardwareSeconds = 2.0;

// Shows every record, by key. Damage costs no intact record its line: it is named, and counted.
template <class R>
U64 eachRecord(Shoal::Table<R> const& table, auto const& show) {
  U64 damaged = 0;
  auto const unlessDamaged = [&](auto const& read) {
    try {
      read();
    } catch (Pallo::CorruptionDetectedException const& damage) {
      fmt::print(stderr, "vantrel: {}: {}\n", table.name(), damage.what());
      ++damaged;
    }
  };
  std::vector<U64> keys;
  unlessDamaged([&] {
    for (auto place = table.first(); place; place = table.next(*place)) keys.push_back(place->key.value());
  });
  std::ranges::sort(keys);
  for (U64 const key : keys)
    unlessDamaged([&] {
      R const record = table.entry(typename Shoal::Table<R>::Key(key));
      if (!(record == Shoal::RecordTraits<R>::empty())) show(record);
    });
  return damaged;
}

// At the end of a listing.
void requireUndamaged(Shoal::TableBase const& table, U64 damaged) {
  if (damaged) throw std::runtime_error(table.name() + ": what is damaged is not listed");
}

Json json(EntryConfig const& entry) {
  Json line{{"key", entry.key().value()},
            {"opId", entry.opId().value()},
            {"hdl", entry.hdl()},
            {"pg", entry.pg()},
            {"prio", entry.prio()}};
  if (entry.tableIndexs() == 1)
    line["ti"] = entry.tableIndex(TableKey(0));
  else
    line["ti"] = entry.tableIndexes().elements();
  line["del"] = entry.isDel();
  line["data"] = entry.dataWords().elements();
  if (auto const rule = Acl::decode(entry.dataWords().elements())) line["rule"] = Acl::text(*rule);
  return line;
}

std::string content(EntryConfig const& entry) {
  if (auto const rule = Acl::decode(entry.dataWords().elements())) return Acl::text(*rule);
  std::string text;
  for (U64 const word : entry.dataWords().elements())
    text += fmt::format("{}{:#x}", text.empty() ? "" : ",", word);
  return text;
}

std::string positions(EntryConfig const& entry) {
  std::string text;
  for (U32 const ti : entry.tableIndexes().elements())
    text += fmt::format("{}{}", text.empty() ? "" : ",", ti);
  return text;
}

void listConfig(std::string const& dir, bool asJson) {
  ConfigFile const table(SharedTables::configPath(dir));
  if (!asJson)
    fmt::print("{:>10} {:>20} {:>10} {:>5} {:>10} {:>8}  {}\n", "KEY", "OPID", "HDL", "PG", "PRIO", "TI",
               "DATA");
  U64 const damaged = eachRecord(table, [&](EntryConfig const& entry) {
    if (asJson)
      fmt::print("{}\n", json(entry).dump());
    else
      fmt::print("{:>10} {:>20} {:>10} {:>5} {:>10} {:>8}  {}{}\n", entry.key().value(), entry.opId().value(),
                 entry.hdl(), entry.pg(), entry.prio(), positions(entry),
                 entry.isDel() ? "(to be deleted) " : "", content(entry));
  });
  requireUndamaged(table, damaged);
}

void listStatus(std::string const& dir, bool asJson) {
  StatusFile const table(SharedTables::statusPath(dir));
  if (!asJson) fmt::print("{:>10} {:>20}\n", "KEY", "OPID");
  U64 const damaged = eachRecord(table, [&](EntryStatus const& status) {
    U64 const key = status.key().value();
    bool const deleted = status.opId() == OpId::deleteAcknowledge();
    if (asJson)
      fmt::print("{}\n", Json{{"key", key}, {"opId", status.opId().value()}, {"deleted", deleted}}.dump());
    else
      fmt::print("{:>10} {:>20}{}\n", key, status.opId().value(), deleted ? "  deleted" : "");
  });
  requireUndamaged(table, damaged);
}

// One key at one position: what the agent has there, or what the producer wants there.
struct Spot {
  U32 ti;
  EntryKey key;
  OpId opId;
  char const* state;
  std::string why = {};  // of a refused one
};

std::vector<Spot> spotsOf(Snapshot const& snapshot) {
  std::vector<Spot> spots;
  for (Snapshot::Place const& place : snapshot.inOrder()) {
    auto const* const refusal = snapshot.refusalOf(place);
    spots.push_back({place.ti, place.key, snapshot.opIdOf(place), snapshot.stateOf(place),
                     refusal ? refusal->reason : ""});
  }
  return spots;
}

// Without the agent's snapshot: an entry whose version is acknowledged is at its position.
std::vector<Spot> spotsOf(ConfigFile const& config, Vantrel::TableStatus const* status, U64& damaged) {
  std::vector<Spot> spots;
  damaged = eachRecord(config, [&](EntryConfig const& entry) {
    bool const there = status && readStatus(*status, entry.key()).opId() == entry.opId();
    for (U32 const ti : entry.tableIndexes().elements())
      spots.push_back({ti,
                       entry.key(),
                       entry.opId(),
                       entry.isDel() ? "to be deleted"
                       : there       ? "programmed"
                                     : "wanted",
                       {}});
  });
  std::ranges::stable_sort(spots, {}, &Spot::ti);
  return spots;
}

void show(Spot const& spot, EntryConfig const& wanted, bool asJson) {
  bool const known = wanted != EntryConfig();
  if (asJson) {
    Json line{
        {"position", spot.ti}, {"state", spot.state}, {"key", spot.key.value()}, {"opId", spot.opId.value()}};
    if (known) line.update({{"pg", wanted.pg()}, {"prio", wanted.prio()}});
    if (!spot.why.empty()) line["why"] = spot.why;
    fmt::print("{}\n", line.dump());
  } else {
    fmt::print("{:>10} {:<13} {:>10} {:>5} {:>10} {:>20}{}\n", spot.ti, spot.state, spot.key.value(),
               known ? std::to_string(wanted.pg()) : "-", known ? std::to_string(wanted.prio()) : "-",
               spot.opId.value(), spot.why.empty() ? "" : "  " + spot.why);
  }
}

void listPositions(std::string const& dir, bool asJson, double seconds) {
  ConfigFile const config(SharedTables::configPath(dir));
  auto const agent = agentViewOf(dir);
  auto const snapshot = agent->snapshot(seconds);
  Ostra::Ptr<StatusFile> status;
  if (!snapshot && std::filesystem::exists(SharedTables::statusPath(dir)))
    status = Ostra::make<StatusFile>(SharedTables::statusPath(dir));
  U64 damaged = 0;
  std::vector<Spot> const spots = snapshot ? spotsOf(*snapshot) : spotsOf(config, status.get(), damaged);
  if (!asJson) {
    if (!snapshot) fmt::print("from the tables: {}\n", agent->problem());
    fmt::print("{:>10} {:<13} {:>10} {:>5} {:>10} {:>20}  {}\n", "POSITION", "STATE", "KEY", "PG", "PRIO",
               "OPID", "WHY");
  }
  for (Spot const& spot : spots) show(spot, readEntry(config, spot.key), asJson);
  requireUndamaged(config, damaged);
}

// In the format of a rule file, so that it can be loaded again; with `keys` each line's key and place.
void listRules(std::string const& dir, bool keys, bool asJson) {
  ConfigFile const config(SharedTables::configPath(dir));
  RuleList const rules(config);
  if (keys && !asJson)
    fmt::print("{:>6} {:>10} {:>10} {:>10}  {}\n", "LINE", "KEY", "POSITION", "PRIO", "RULE");
  for (RuleList::Item const& item : rules.items()) {
    std::string const text = Acl::text(item.rule);
    if (asJson)
      fmt::print("{}\n", Json{{"line", item.line},
                              {"key", item.key.value()},
                              {"position", item.ti},
                              {"pg", item.pg},
                              {"prio", item.prio},
                              {"rule", text}}
                             .dump());
    else if (keys)
      fmt::print("{:>6} {:>10} {:>10} {:>10}  {}\n", item.line, item.key.value(), item.ti, item.prio, text);
    else
      fmt::print("{}\n", text);
  }
  if (rules.others() != 0)
    throw std::runtime_error(
        fmt::format("{} {} no rule of a packet filter and not listed: see vantrel ls config", rules.others(),
                    rules.others() == 1 ? "entry is" : "entries are"));
}

// The status table is valid only while the agent that wrote it runs.
void requireAgent(std::string const& dir) {
  auto const agent = agentViewOf(dir);
  if (!agent->reached())
    throw std::runtime_error(
        fmt::format("{}: what the status table says was true of the agent that wrote it", agent->problem()));
}

char const* stateOf(EntryConfig const& entry, EntryStatus const& status) {
  bool const gone = status.opId() == OpId::deleteAcknowledge();
  if (entry == EntryConfig())
    return gone ? "deleted" : status.opId() == OpId() ? "unknown" : "no longer wanted";
  if (entry.isDel()) return gone ? "deleted" : "to be deleted";
  if (status.opId() == entry.opId()) return "acknowledged";
  return status.opId() == OpId() || gone ? "not acknowledged" : "an older version is acknowledged";
}

void showStatus(std::string const& dir, U64 key, bool asJson, double seconds) {
  StatusFile const statuses(SharedTables::statusPath(dir));
  EntryStatus const status = statuses.entry(EntryKey(key));
  EntryConfig entry;
  if (std::filesystem::exists(SharedTables::configPath(dir)))
    entry = ConfigFile(SharedTables::configPath(dir)).entry(EntryKey(key));
  auto const hardware = agentViewOf(dir)->hardware(seconds);
  auto const* const refusal = hardware ? hardware->refusalOf(EntryKey(key), entry.opId()) : nullptr;
  char const* const state = refusal ? "refused" : stateOf(entry, status);
  if (asJson) {
    Json line{{"key", key},
              {"opId", status.opId().value()},
              {"wantedOpId", entry.opId().value()},
              {"state", state}};
    if (refusal) line["why"] = refusal->reason;
    fmt::print("{}\n", line.dump());
  } else {
    bool const versions = std::string_view(state) != "deleted" && std::string_view(state) != "unknown";
    std::string const has =
        status.opId() == OpId::deleteAcknowledge() ? "its delete" : std::to_string(status.opId().value());
    fmt::print("key {}: {}{}{}\n", key, state,
               versions ? fmt::format(", OpId {} of {}", has, entry.opId().value()) : "",
               refusal ? ": " + refusal->reason : "");
  }
  requireAgent(dir);
  if (std::string_view(state) == "unknown") throw Exit{1};
}

struct Listing {
  std::string dir;
  std::string what;
  std::optional<U64> key;
  bool json = false;
  bool keys = false;
  std::optional<double> timeout;
};

}  // namespace

void addLs(CLI::App& app) {
  auto const listing = std::make_shared<Listing>();
  CLI::App& verb = *app.add_subcommand("ls", "Lists a table, or the positions from left to right");
  verb.add_option("WHAT", listing->what,
                  "config, status, positions or rules (in order of precedence, loadable again)")
      ->required()
      ->check(CLI::IsMember({"config", "status", "positions", "rules"}));
  addDir(verb, listing->dir);
  addJson(verb, listing->json);
  addTimeout(verb, listing->timeout, "Of positions: how long the agent may take (10)");
  verb.add_flag("--keys", listing->keys, "Of rules: each line's key and position too");
  verb.footer("Example:\n  vantrel ls positions --dir /run/vantrel --json");
  verb.callback([listing] {
    if (listing->what == "config") listConfig(listing->dir, listing->json);
    if (listing->what == "status") {
      listStatus(listing->dir, listing->json);
      requireAgent(listing->dir);
    }
    if (listing->keys && listing->what != "rules")
      throw CLI::ValidationError("--keys", "belongs to ls rules");
    if (listing->what == "rules") listRules(listing->dir, listing->keys, listing->json);
    if (listing->what == "positions")
      listPositions(listing->dir, listing->json, listing->timeout.value_or(snapshotSeconds));
  });
}

void addStatus(CLI::App& app) {
  auto const listing = std::make_shared<Listing>();
  CLI::App& verb = *app.add_subcommand("status", "Says what is acknowledged of one key");
  verb.add_option_function<std::string>(
          "KEY",
          [listing](std::string const& text) {
            listing->key = numberOf("KEY", text, std::numeric_limits<U64>::max());
          },
          "The entry's key")
      ->required()
      ->type_name("N");
  addDir(verb, listing->dir);
  addJson(verb, listing->json);
  addTimeout(verb, listing->timeout, "How long the agent may take (2)");
  verb.footer("Example:\n  vantrel status 7 --dir /run/vantrel --json");
  verb.callback([listing] {
    showStatus(listing->dir, *listing->key, listing->json, listing->timeout.value_or(hardwareSeconds));
  });
}

}  // namespace VantrelCommand
