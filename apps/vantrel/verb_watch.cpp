// SPDX-License-Identifier: Apache-2.0
// vantrel watch: shows an entity's values, then each change as it happens.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>

#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "ostra/mount_ask.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;

constexpr auto retryPeriod = std::chrono::milliseconds(200);

struct Watching {
  std::string dir, entity;
  bool json = false;
  bool once = false;
};

std::string shown(Json const& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

void show(Json const& line) {
  std::string const event = line.at("event").get<std::string>();
  if (!line.contains("attribute")) {
    fmt::print("{}\n", event);
    return;
  }
  std::string const attribute = line["attribute"].get<std::string>();
  if (line.contains("value")) fmt::print("{} = {}\n", attribute, shown(line["value"]));
  if (line.contains("members"))
    for (Json const& m : line["members"]) fmt::print("{}[{}] = {}\n", attribute, shown(m[0]), shown(m[1]));
  if (line.contains("keys"))
    for (Json const& key : line["keys"]) fmt::print("{}[{}] deleted\n", attribute, shown(key));
}

// Shows events until the connection ends, which throws; with --once, until all values are shown.
void watch(Ostra::Asker& agent, Watching const& watching) {
  agent.ask(Json{{"verb", "mount"}, {"entity", watching.entity}}.dump(), [](std::string_view) {});
  while (true) {
    std::string const text = agent.nextEvent();
    Json const line = Json::parse(text);
    watching.json ? fmt::print("{}\n", text) : show(line);
    std::fflush(stdout);
    if (line.at("event") == "gone") throw std::runtime_error(watching.entity + " is gone");
    if (watching.once && line.at("event") == "live") return;
  }
}

std::unique_ptr<Ostra::Asker> connectAgain(std::string const& path) {
  while (true) {
    try {
      return std::make_unique<Ostra::Asker>(path);
    } catch (std::runtime_error const&) {
      std::this_thread::sleep_for(retryPeriod);
    }
  }
}

// A missing agent and an unknown entity are errors at the beginning. Later, when the agent ends, its
// successor is awaited, and the entity there, which the successor may export a little later.
void watchAcrossAgents(Watching const& watching) {
  std::string const path = watching.dir + "/mgmt.sock";
  auto agent = std::make_unique<Ostra::Asker>(path);
  for (bool before = false;; before = true) {
    try {
      watch(*agent, watching);
      return;
    } catch (Ostra::AgentGone const& gone) {
      fmt::print(stderr, "vantrel: {}; waiting for it\n", gone.what());
    } catch (std::runtime_error const&) {
      if (!before) throw;
      std::this_thread::sleep_for(retryPeriod);
      agent = connectAgain(path);
      continue;
    }
    agent = connectAgain(path);
    fmt::print(stderr, "vantrel: the agent is back\n");
  }
}

}  // namespace

void addWatch(CLI::App& app) {
  auto const watching = std::make_shared<Watching>();
  CLI::App& verb = *app.add_subcommand("watch", "An entity's values, then each change as it happens");
  verb.add_option("ENTITY", watching->entity, "Which entity, as attr list names it")->required();
  addDir(verb, watching->dir);
  addJson(verb, watching->json);
  verb.add_flag("--once", watching->once, "Only the values; no changes");
  verb.footer("Example:\n  vantrel watch flushStatus --dir /run/vantrel");
  verb.callback([watching] { watchAcrossAgents(*watching); });
}

}  // namespace VantrelCommand
