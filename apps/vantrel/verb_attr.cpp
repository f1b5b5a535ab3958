// SPDX-License-Identifier: Apache-2.0
// vantrel attr: lists, reads, writes and invokes the agent's entities by name.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <vector>

#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "ostra/mount_ask.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;

struct Request {
  std::string dir, entity, attribute, value, key;
  std::vector<std::string> arguments;
  bool json = false;
  bool yes = false;
  std::optional<double> timeout;
};

class Agent {
 public:
  explicit Agent(Request const& request)
      : asker_(request.dir + "/mgmt.sock", request.timeout.value_or(30)), raw_(request.json) {}

  // Calls `show` with each line of the answer, or, with --json, prints it as it came.
  template <class Show>
  void ask(Json const& request, Show show) {
    asker_.ask(request.dump(), [&](std::string_view line) {
      if (raw_)
        fmt::print("{}\n", line);
      else
        show(Json::parse(line));
    });
  }
  Json attribute(std::string const& entity, std::string const& name) {
    Json found;
    asker_.ask(Json{{"verb", "list"}, {"entity", entity}}.dump(), [&](std::string_view line) {
      Json const answer = Json::parse(line);
      for (Json const& a : answer.at("attributes"))
        if (a.at("name") == name) found = a;
    });
    if (found.is_null()) throw std::runtime_error(fmt::format("{} has no attribute \"{}\"", entity, name));
    return found;
  }

 private:
  Ostra::Asker asker_;
  bool const raw_;
};

std::string shown(Json const& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

// Converts a word of the command line to a value of the type that the agent names.
Json valueOf(std::string const& word, std::string const& type) {
  if (type == "text" || type == "reference") return word;  // the agent refuses a wrong reference
  if (type == "bool") {
    if (word == "true" || word == "false") return word == "true";
    throw std::runtime_error(fmt::format("expected true or false, got \"{}\"", word));
  }
  if (type == "double") {
    double value = 0;
    auto const [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error == std::errc() && end == word.data() + word.size()) return value;
    throw std::runtime_error(fmt::format("expected a number, got \"{}\"", word));
  }
  bool const hex = word.starts_with("0x");
  U64 value = 0;
  char const* const last = word.data() + word.size();
  auto const [end, error] = std::from_chars(word.data() + (hex ? 2 : 0), last, value, hex ? 16 : 10);
  if (error == std::errc() && end == last) return value;
  throw std::runtime_error(fmt::format("expected a {}, got \"{}\"", type, word));
}

// Splits a type: "U32 -> U64" into {"U32", "U64"}, "(U8, text)" into {"U8", "text"}.
std::vector<std::string> typesOf(std::string const& type) {
  std::vector<std::string> types;
  std::string word;
  for (char const c : type + ",") {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      word += c;
    } else if (!word.empty()) {
      types.push_back(std::exchange(word, {}));
    }
  }
  return types;
}

Json keyOf(Request const& request, Json const& attribute) {
  if (attribute.at("kind") != "collection")
    throw std::runtime_error(request.attribute + " is not a collection: it takes no --key");
  return valueOf(request.key, typesOf(attribute.at("type").get<std::string>()).at(0));
}

void listEntities(Agent& agent) {
  agent.ask({{"verb", "list"}}, [](Json const& answer) {
    fmt::print("{:<14} {:<28} {}\n", "ENTITY", "TYPE", "TELLS CHANGES");
    for (Json const& e : answer.at("entities"))
      fmt::print("{:<14} {:<28} {}\n", shown(e.at("entity")), shown(e.at("type")),
                 e.at("mountable").get<bool>() ? "yes" : "no");
  });
}

void listAttributes(Agent& agent, Request const& request) {
  agent.ask({{"verb", "list"}, {"entity", request.entity}}, [](Json const& answer) {
    fmt::print("{:<24} {:<11} {:<20} {}\n", "NAME", "KIND", "TYPE", "SET");
    for (Json const& a : answer.at("attributes")) {
      bool const operation = a.at("kind") == "operation";
      std::string const set = a.contains("refused")          ? "refused: " + shown(a["refused"])
                              : a.at("writable").get<bool>() ? "yes"
                              : operation                    ? "invoke"
                                                             : "no";
      fmt::print("{:<24} {:<11} {:<20} {}\n", shown(a.at("name")), shown(a.at("kind")), shown(a.at("type")),
                 set);
    }
  });
}

void get(Request const& request) {
  Agent agent(request);
  Json ask{{"verb", "read"}, {"entity", request.entity}};
  if (!request.attribute.empty()) ask["attribute"] = request.attribute;
  if (!request.key.empty()) ask["key"] = keyOf(request, agent.attribute(request.entity, request.attribute));
  agent.ask(ask, [](Json const& answer) {
    if (answer.contains("values"))
      for (auto const& [name, value] : answer["values"].items())
        fmt::print("{:<24} {}\n", name, shown(value));
    if (answer.contains("value")) fmt::print("{}\n", shown(answer["value"]));
    if (answer.contains("members"))
      for (Json const& member : answer["members"])
        fmt::print("{:<24} {}\n", shown(member[0]), shown(member[1]));
  });
}

void set(Request const& request) {
  Agent agent(request);
  Json const attribute = agent.attribute(request.entity, request.attribute);
  std::vector<std::string> const types = typesOf(attribute.at("type").get<std::string>());
  Json ask{{"verb", "write"}, {"entity", request.entity}, {"attribute", request.attribute}};
  if (!request.key.empty()) ask["key"] = keyOf(request, attribute);
  ask["value"] = valueOf(request.value, types.empty() ? "value" : types.back());
  agent.ask(ask, [](Json const& answer) { fmt::print("{}\n", shown(answer.at("value"))); });
}

// What an operation takes from the packets, or makes a producer believe, that nobody wants by a slip of the
// keyboard.
struct Danger {
  char const* operation;
  char const* what;
};
constexpr Danger dangers[] = {
    {"doCleanup", "deletes every entry from the hardware, which then forwards without them"},
    {"processDelete", "deletes an entry from the hardware although it is wanted"},
    {"processDeleteHelper", "deletes an entry from the hardware although it is wanted"},
    {"delAck", "makes the producer believe that a delete was done"},
    {"delStatus", "makes the producer believe that an entry was never programmed"},
    {"noopAck", "makes the producer believe that a version is in hardware"},
    {"detach", "takes the table off the interface: nothing filters any more"},
    {"failedKeyDelAll", "makes the agent forget which keys it has to try again"},
};

void requireConfirmed(Request const& request) {
  auto const danger = std::ranges::find(dangers, request.attribute, &Danger::operation);
  if (danger != std::end(dangers) && !request.yes)
    throw std::runtime_error(fmt::format("{} {} {}: give --yes if that is wanted", request.entity,
                                         request.attribute, danger->what));
}

void invoke(Request const& request) {
  Agent agent(request);
  Json const operation = agent.attribute(request.entity, request.attribute);
  requireConfirmed(request);
  std::vector<std::string> const types = typesOf(operation.at("type").get<std::string>());
  Json arguments = Json::array();
  for (std::size_t i = 0; i < request.arguments.size(); ++i)
    arguments.push_back(i < types.size() ? valueOf(request.arguments[i], types[i])
                                         : Json(request.arguments[i]));
  agent.ask({{"verb", "invoke"},
             {"entity", request.entity},
             {"operation", request.attribute},
             {"arguments", std::move(arguments)}},
            [](Json const& answer) {
              fmt::print("{}\n", answer.contains("result") ? shown(answer["result"]) : "done");
            });
}

using Work = void (*)(Request const&);

CLI::App& addAction(CLI::App& attr, std::shared_ptr<Request> const& request, char const* name,
                    char const* help, Work work) {
  CLI::App& action = *attr.add_subcommand(name, help);
  addDir(action, request->dir);
  addJson(action, request->json);
  addTimeout(action, request->timeout, "How long the agent may take for a line (30)");
  action.callback([request, work] { work(*request); });
  return action;
}

void list(Request const& request) {
  Agent agent(request);
  request.entity.empty() ? listEntities(agent) : listAttributes(agent, request);
}

}  // namespace

void addAttr(CLI::App& app) {
  auto const request = std::make_shared<Request>();
  CLI::App& attr = *app.add_subcommand("attr", "The agent's entities and their attributes, by name");
  attr.require_subcommand(1);
  attr.footer(
      "Examples:\n  vantrel attr list engine --dir /run/vantrel\n"
      "  vantrel attr get engine numPending --dir /run/vantrel\n"
      "  vantrel attr set engine debugEnabled true --dir /run/vantrel\n"
      "  vantrel attr invoke frontEnd handleRetry --dir /run/vantrel");

  CLI::App& listing = addAction(attr, request, "list", "The entities, or one entity's attributes", &list);
  listing.add_option("ENTITY", request->entity, "Which entity");

  CLI::App& getting = addAction(attr, request, "get", "One attribute, or every scalar of an entity", &get);
  getting.add_option("ENTITY", request->entity, "Which entity")->required();
  auto* const which = getting.add_option("ATTRIBUTE", request->attribute, "Which attribute");
  getting.add_option("--key", request->key, "One member of a collection")->needs(which);

  CLI::App& setting =
      addAction(attr, request, "set", "Writes an attribute, or a member of a collection", &set);
  setting.add_option("ENTITY", request->entity, "Which entity")->required();
  setting.add_option("ATTRIBUTE", request->attribute, "Which attribute")->required();
  setting.add_option("VALUE", request->value, "true, false, a number or a text")->required();
  setting.add_option("--key", request->key, "The member of a collection");

  CLI::App& invoking = addAction(attr, request, "invoke", "Calls an operation", &invoke);
  invoking.add_option("ENTITY", request->entity, "Which entity")->required();
  invoking.add_option("OPERATION", request->attribute, "Which operation")->required();
  invoking.add_flag("--yes", request->yes, "Also when it takes entries from the hardware, or forges");
  invoking.add_option("ARGUMENT", request->arguments, "What it takes");
}

}  // namespace VantrelCommand
