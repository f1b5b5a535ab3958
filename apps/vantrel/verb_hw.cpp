// SPDX-License-Identifier: Apache-2.0
// vantrel hw: what the agent's table in the kernel is like, what its entries decided, and its end.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "ostra/mount_ask.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;

struct Request {
  std::string dir;
  std::optional<U64> key;
  bool json = false;
  bool yes = false;
};

// The agent's table in the kernel. The constructor throws when it has none.
class KernelTable {
 public:
  explicit KernelTable(std::string const& dir) : asker_(dir + "/mgmt.sock") {
    Json const listed = ask({{"verb", "list"}});
    for (Json const& e : listed.at("entities"))
      if (e.at("entity") == "hardware" && e.at("type") == "Hw::XdpTcam") return;
    throw std::runtime_error("the agent of " + dir + " drives no table in the kernel (vantreld --hw xdp:)");
  }
  Json values() { return ask({{"verb", "read"}, {"entity", "hardware"}}).at("values"); }
  Json invoke(char const* operation, Json arguments) {
    Json const answer = ask({{"verb", "invoke"},
                             {"entity", "hardware"},
                             {"operation", operation},
                             {"arguments", std::move(arguments)}});
    return answer.contains("result") ? answer.at("result") : Json();
  }

 private:
  Json ask(Json const& request) {
    Json answer;
    asker_.ask(request.dump(), [&](std::string_view line) { answer.update(Json::parse(line)); });
    return answer;
  }
  Ostra::Asker asker_;
};

struct Line {
  U32 position;
  U64 key, hits;
  std::string rule;
};

// In order of position.
template <class Take>
void forEntries(KernelTable& table, Take take) {
  for (U32 from = 0;;) {
    std::istringstream lines(table.invoke("entriesFrom", Json::array({from})).get<std::string>());
    bool isAny = false;
    for (Line line;
         lines >> line.position >> line.key >> line.hits >> std::ws && std::getline(lines, line.rule);) {
      take(line);
      from = line.position + 1;
      isAny = true;
    }
    if (!isAny) return;
  }
}

void show(Request const& request) {
  KernelTable table(request.dir);
  Json const v = table.values();
  if (request.json) {
    fmt::print("{}\n", v.dump());
    return;
  }
  auto const count = [&v](char const* name) { return v.at(name).get<U64>(); };
  auto const text = [&v](char const* name) { return v.at(name).get<std::string>(); };
  auto const line = [](char const* name, auto const& value) { fmt::print("{:<16}{}\n", name, value); };
  line("interface", v.at("attached").get<bool>() ? text("interface") : text("interface") + ", detached");
  line("mode", text("mode"));
  line("default", text("default"));
  line("positions", count("positions"));
  line("entries", count("entries"));
  line("memory", fmt::format("{:.1f} MiB", static_cast<double>(count("memory")) / (1024 * 1024)));
  fmt::print("packets that no entry decided\n");
  line("  unmatched", count("unmatched"));
  line("  fragments", count("fragments"));
  line("  not IPv4", count("notIpv4"));
  line("  malformed", count("malformed"));
  line("  ARP", fmt::format("{}, which pass", count("arp")));
}

void hits(Request const& request) {
  KernelTable table(request.dir);
  if (!request.json) fmt::print("{:>8} {:>12} {:>14}  {}\n", "POSITION", "KEY", "HITS", "RULE");
  bool isAny = false;
  forEntries(table, [&](Line const& l) {
    if (request.key && l.key != *request.key) return;
    isAny = true;
    if (request.json)
      fmt::print("{}\n",
                 Json{{"position", l.position}, {"key", l.key}, {"hits", l.hits}, {"rule", l.rule}}.dump());
    else
      fmt::print("{:>8} {:>12} {:>14}  {}\n", l.position, l.key, l.hits, l.rule);
  });
  if (request.key && !isAny)
    throw std::runtime_error(fmt::format("key {} is not in the table", *request.key));
}

void detach(Request const& request) {
  if (!request.yes)
    throw std::runtime_error("detach lets every packet pass from then on: give --yes if that is wanted");
  KernelTable table(request.dir);
  table.invoke("detach", Json::array());
  if (request.json)
    fmt::print("{}\n", Json{{"attached", false}}.dump());
  else
    fmt::print("nothing filters any more\n");
}

CLI::App& addAction(CLI::App& hw, std::shared_ptr<Request> const& request, char const* name, char const* help,
                    void (*work)(Request const&)) {
  CLI::App& action = *hw.add_subcommand(name, help);
  addDir(action, request->dir);
  addJson(action, request->json);
  action.callback([request, work] { work(*request); });
  return action;
}

}  // namespace

void addHw(CLI::App& app) {
  auto const request = std::make_shared<Request>();
  CLI::App& hw = *app.add_subcommand("hw", "The table in the kernel that the agent drives");
  hw.require_subcommand(1);
  hw.footer(
      "Examples:\n  vantrel hw show --dir /run/vantrel\n"
      "  vantrel hw hits 7 --dir /run/vantrel\n"
      "  vantrel hw detach --dir /run/vantrel --yes");
  addAction(hw, request, "show", "Where it is, how large, and what packets no entry decided", &show);
  CLI::App& hitting = addAction(hw, request, "hits", "Packets that each entry decided, by position", &hits);
  hitting.add_option_function<std::string>(
      "KEY",
      [request](std::string const& text) {
        request->key = numberOf("KEY", text, std::numeric_limits<U64>::max());
      },
      "That entry only");
  addAction(hw, request, "detach", "Takes it off the interface: nothing filters any more", &detach)
      .add_flag("--yes", request->yes, "It is wanted that nothing filters");
}

}  // namespace VantrelCommand
