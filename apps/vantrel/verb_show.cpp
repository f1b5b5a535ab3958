// SPDX-License-Identifier: Apache-2.0
// vantrel show: one screen of health. vantrel metrics: what the agent counts, as OpenMetrics text.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "apps/vantrel/command.h"
#include "apps/vantrel/explain.h"
#include "apps/vantrel/flags.h"
#include "ostra/mount_ask.h"
#include "vantrel/core/entry.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;

constexpr double defaultTimeout = 5.0;
constexpr std::size_t mostListed = 5;

struct Asked {
  std::string dir;
  bool json = false;
  std::optional<double> timeout;
};

class Agent {
 public:
  explicit Agent(Asked const& asked)
      : asker_(asked.dir + "/mgmt.sock", asked.timeout.value_or(defaultTimeout)) {}
  // All scalars of an entity; empty when there is none of the name.
  Json values(char const* entity) {
    return answer({{"verb", "read"}, {"entity", entity}}).value("values", Json::object());
  }
  Json attribute(char const* entity, char const* name) {
    return answer({{"verb", "read"}, {"entity", entity}, {"attribute", name}}).value("value", Json());
  }
  // Of all lines of the answer.
  Json members(char const* entity, char const* name) {
    return answer({{"verb", "read"}, {"entity", entity}, {"attribute", name}})
        .value("members", Json::array());
  }

 private:
  Json answer(Json const& request) try {
    Json whole;
    asker_.ask(request.dump(), [&](std::string_view line) {
      Json part = Json::parse(line);
      if (whole.is_null())
        whole = std::move(part);
      else if (part.contains("members"))
        for (Json& member : part["members"]) whole["members"].push_back(std::move(member));
    });
    return whole;
  } catch (Ostra::AgentGone const&) {
    throw;
  } catch (Ostra::AgentLate const&) {
    throw;
  } catch (std::runtime_error const&) {  // it does not have that
    return Json::object();
  }
  Ostra::Asker asker_;
};

// What the agent says of itself, by entity.
struct Health {
  Json agent, engine, executor, config, status, hardware, waiting;
  Json refusedByHardware, refusedRecords, overdue, retrying;
  std::vector<std::string> complaints;  // empty: it is healthy

  explicit Health(Agent& a)
      : agent(a.values("agent")),
        engine(a.values("engine")),
        executor(a.values("executor")),
        config(a.values("configTable")),
        status(a.values("statusTable")),
        hardware(a.values("hardware")),
        waiting(a.values("waiting")),
        refusedByHardware(a.members("executor", "failed")),
        refusedRecords(a.members("configTable", "refused")),
        overdue(a.members("waiting", "overdue")),
        retrying(a.members("frontEnd", "failedKey")) {
    if (number(executor, "behind") != 0) isStuck_ = hasStopped(a);
    complain();
  }

  U64 number(Json const& entity, char const* name) const { return entity.value(name, U64{0}); }
  std::string text(Json const& entity, char const* name) const { return entity.value(name, std::string()); }
  U64 programmed() const {
    return number(executor, "adopted") + number(executor, "adds") - number(executor, "deletes") -
           number(executor, "deadlockDeletes");
  }
  U64 uptime() const {
    U64 const now = static_cast<U64>(std::time(nullptr));
    return now - std::min(now, number(agent, "started"));
  }

 private:
  bool isStuck_ = false;

  void complainAbout(U64 n, char const* one, char const* many) {
    if (n != 0) complaints.push_back(n == 1 ? fmt::format("1 {}", one) : fmt::format("{} {}", n, many));
  }
  // Whether the hardware, which has calls to do, does none for a second.
  bool hasStopped(Agent& a) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Json const before = std::exchange(hardware, a.values("hardware"));
    executor = a.values("executor");
    return number(executor, "behind") != 0 && number(hardware, "writes") == number(before, "writes");
  }
  void complain() {
    if (isStuck_)
      complaints.push_back(
          fmt::format("the hardware does not answer, {} calls behind", number(executor, "behind")));
    if (!hardware.value("attached", true)) complaints.push_back("the table in the kernel is detached");
    if (text(agent, "state") != "serving") complaints.push_back("the agent is " + text(agent, "state"));
    for (Json const* table : {&config, &status})
      if (std::string const problem = text(*table, "problem"); !problem.empty())
        complaints.push_back(problem);
    complainAbout(number(hardware, "violations"), "broken rule was seen by the hardware",
                  "broken rules were seen by the hardware");
    complainAbout(refusedByHardware.size(), "entry is refused by the hardware",
                  "entries are refused by the hardware");
    complainAbout(number(config, "refusedRecords"), "record is refused by the agent",
                  "records are refused by the agent");
    complainAbout(retrying.size(), "key failed and is tried again", "keys failed and are tried again");
    complainAbout(number(waiting, "overdueCount"), "entry waits too long", "entries wait too long");
    complainAbout(number(executor, "unwritten"), "acknowledgement cannot be written",
                  "acknowledgements cannot be written");
  }
};

void line(char const* name, std::string const& text) { fmt::print("{:<13} {}\n", name, text); }

// The first few of a collection, each with its reason.
void list(Json const& members, char const* why) {
  for (std::size_t i = 0; i < std::min(members.size(), mostListed); ++i) {
    std::string const reason = members[i][1].is_string() ? members[i][1].get<std::string>() : "";
    fmt::print("  key {} {}{}\n", members[i][0].dump(), why, reason);
  }
  if (members.size() > mostListed) fmt::print("  and {} more\n", members.size() - mostListed);
}

void printText(Health const& h) {
  std::string verdict = "healthy";
  if (!h.complaints.empty()) {
    verdict = "NOT HEALTHY";
    for (std::size_t i = 0; i < h.complaints.size(); ++i) verdict += (i ? "; " : ": ") + h.complaints[i];
  }
  line("health", verdict);
  line("agent", fmt::format("{}, process {}, up {}", h.text(h.agent, "state"), h.number(h.agent, "pid"),
                            duration(h.uptime())));
  line("engine", fmt::format("{}, {} positions", h.text(h.agent, "engine"), h.number(h.agent, "size")));
  U64 const size = std::max<U64>(h.number(h.agent, "size"), 1);
  line("wanted", fmt::format("{} records in the table, with those that are to be deleted",
                             h.number(h.config, "records")));
  line("programmed", fmt::format("{} entries, {:.1f} % of the positions", h.programmed(),
                                 100.0 * static_cast<double>(h.programmed()) / static_cast<double>(size)));
  U64 const waiting = h.number(h.engine, "numPending");
  line("waiting",
       waiting == 0 ? "none"
                    : fmt::format("{}, the oldest for {}", waiting, duration(h.number(h.waiting, "oldest"))));
  list(h.overdue, "waits too long ");
  line("refused", fmt::format("{} by the hardware, {} by the agent", h.refusedByHardware.size(),
                              h.number(h.config, "refusedRecords")));
  list(h.refusedByHardware, "");
  list(h.refusedRecords, "");
  line("failed", h.retrying.empty() ? "none" : fmt::format("{}, tried again", h.retrying.size()));
  list(h.retrying, "");
  line("behind", fmt::format("{} calls of the hardware, {} acknowledgements", h.number(h.executor, "behind"),
                             h.number(h.executor, "unwritten")));
  line("operations",
       fmt::format("{} adds, {} updates, {} moves, {} deletes, {} retries", h.number(h.executor, "adds"),
                   h.number(h.executor, "updates"), h.number(h.executor, "moves"),
                   h.number(h.executor, "deletes"), h.number(h.executor, "retries")));
  line("rings", fmt::format("{} broken, {} of them through the priority order",
                            h.number(h.engine, "deadlockCount"), h.number(h.engine, "numMixedRings")));
  if (std::string const problem = h.text(h.executor, "problem"); !problem.empty())
    line("last problem", problem);
  line("damage", fmt::format("{} in the configuration table", h.number(h.config, "corruptions")));
  line("trace", h.text(h.agent, "traceFile"));
}

void printJson(Health const& h) {
  fmt::print("{}\n", Json{{"healthy", h.complaints.empty()},
                          {"complaints", h.complaints},
                          {"agent", h.agent},
                          {"uptimeSeconds", h.uptime()},
                          {"wanted", h.number(h.config, "records")},
                          {"programmed", h.programmed()},
                          {"waiting", h.number(h.engine, "numPending")},
                          {"oldestWaitSeconds", h.number(h.waiting, "oldest")},
                          {"overdue", h.overdue},
                          {"refusedByHardware", h.refusedByHardware},
                          {"refusedRecords", h.refusedRecords},
                          {"retrying", h.retrying.size()},
                          {"executor", h.executor},
                          {"rings", h.number(h.engine, "deadlockCount")},
                          {"mixedRings", h.number(h.engine, "numMixedRings")}}
                         .dump());
}

// An agent that does not answer is not healthy, whatever the reason.
void show(Asked const& asked) {
  requireDirectory(asked.dir);
  Agent agent(asked);
  Health const health(agent);
  asked.json ? printJson(health) : printText(health);
  if (!health.complaints.empty()) throw Exit{1};
}

void metrics(Asked const& asked) {
  requireDirectory(asked.dir);
  Json const text = Agent(asked).attribute("metrics", "text");
  if (!text.is_string()) throw std::runtime_error("the agent of " + asked.dir + " publishes no metrics");
  fmt::print("{}", text.get<std::string>());
}

}  // namespace

void addShow(CLI::App& app) {
  auto const asked = std::make_shared<Asked>();
  CLI::App& verb = *app.add_subcommand("show", "One screen of health; exits with 1 when something is wrong");
  addDir(verb, asked->dir);
  addJson(verb, asked->json);
  addTimeout(verb, asked->timeout, "How long the agent may take (5)");
  verb.footer("Example:\n  vantrel show --dir /run/vantrel");
  verb.callback([asked] { show(*asked); });
}

void addMetrics(CLI::App& app) {
  auto const asked = std::make_shared<Asked>();
  CLI::App& verb = *app.add_subcommand("metrics", "What the agent counts, as OpenMetrics text");
  addDir(verb, asked->dir);
  addTimeout(verb, asked->timeout, "How long the agent may take (5)");
  verb.footer("Example:\n  vantrel metrics --dir /run/vantrel");
  verb.callback([asked] { metrics(*asked); });
}

}  // namespace VantrelCommand
