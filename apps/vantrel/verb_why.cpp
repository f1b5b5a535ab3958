// SPDX-License-Identifier: Apache-2.0
// vantrel why: all that is known of one entry: where it is wanted, where it is, what it waits for, and what
// the agent did with it in the last minute.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "apps/vantrel/agent_view.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/explain.h"
#include "apps/vantrel/flags.h"
#include "apps/vantrel/history.h"
#include "apps/vantrel/rules.h"
#include "ostra/mount_ask.h"
#include "ostra/piecewise_map.h"
#include "producer/acknowledgements.h"
#include "producer/shared_tables.h"
#include "shoal/reader_table.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Vantrel::WaitReason::Kind;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::SharedTables;
using Vantrel::TableKey;
using ConfigFile = Shoal::ReaderTable<EntryConfig>;
using StatusFile = Shoal::ReaderTable<Vantrel::EntryStatus>;

constexpr double defaultTimeout = 10.0;
constexpr double minute = 60.0;

struct Asked {
  std::string dir;
  std::string name;
  bool json = false;
  std::optional<double> timeout;
};

// Who waits for whom.
class Chains {
 public:
  explicit Chains(Snapshot const& snapshot) {
    for (auto const& [ti, key] : snapshot.places->pending()) wants_[key.value()] = ti;
    for (auto const& [ti, key] : snapshot.places->status()) at_[key.value()] = ti;
    for (auto const& [key, ti] : snapshot.waits->blocker()) {
      auto const holder = snapshot.places->status().find(ti);
      if (holder != snapshot.places->status().end()) next_[key.value()] = holder->second.value();
    }
  }
  std::optional<U32> wants(EntryKey key) const { return found(wants_, key.value()); }
  std::optional<U32> at(EntryKey key) const { return found(at_, key.value()); }
  // From the key along those that wait, up to the first that does not, or that was met before.
  std::vector<U64> from(EntryKey key) const {
    std::vector<U64> chain{key.value()};
    while (auto const next = found(next_, chain.back())) {
      bool const again = std::ranges::find(chain, *next) != chain.end();
      chain.push_back(*next);
      if (again || chain.size() > longest) break;
    }
    return chain;
  }

 private:
  static constexpr std::size_t longest = 1000;
  template <class Value>
  static std::optional<Value> found(std::unordered_map<U64, Value> const& map, U64 key) {
    auto const at = map.find(key);
    return at == map.end() ? std::nullopt : std::optional(at->second);
  }
  std::unordered_map<U64, U32> wants_, at_;
  std::unordered_map<U64, U64> next_;
};

// All that is known of one entry.
struct Facts {
  EntryKey key;
  std::optional<RuleList::Item> rule;
  EntryConfig entry;            // as it is wanted; empty: it is not
  OpId acknowledged;            // in the status table
  std::string problem;          // why the agent did not say; empty: it did
  std::optional<U32> position;  // where it is in hardware
  OpId programmed;              // the version there
  std::optional<U32> claim;     // where it waits to be
  std::optional<Wait> wait;
  EntryConfig blocker;  // of the wait
  std::string blockerLine;
  std::vector<U64> chain;  // who waits for whom, from this key on
  bool mixed = false;      // one of them waits for the priority order
  bool breaksMixedRings = true;
  std::string refusedRecord;  // why the agent does not take the record
  std::string refusedByHardware;
  std::string delay;                   // what keeps the hardware
  std::optional<double> retrySeconds;  // it failed, and is tried again so often
  History history;

  bool wanted() const { return entry != EntryConfig() && !entry.isDel(); }
  bool unknown() const { return entry == EntryConfig() && acknowledged == OpId() && !position; }
  // The chain's last member is in it before: a ring begins there.
  bool ring() const {
    return std::ranges::find(chain.begin(), chain.end() - 1, chain.back()) < chain.end() - 1;
  }
  bool inRing() const { return chain.size() > 1 && chain.back() == chain.front(); }
};

class Agent {
 public:
  Agent(std::string const& dir, double seconds) : asker_(dir + "/mgmt.sock", seconds) {}
  Json attribute(char const* entity, char const* name) {
    return value({{"verb", "read"}, {"entity", entity}, {"attribute", name}});
  }
  // Null when the collection does not have the key.
  Json member(char const* entity, char const* name, EntryKey key) try {
    return value({{"verb", "read"}, {"entity", entity}, {"attribute", name}, {"key", key.value()}});
  } catch (std::runtime_error const&) {
    return {};
  }

 private:
  Json value(Json const& request) {
    Json answer;
    asker_.ask(request.dump(), [&](std::string_view line) { answer = Json::parse(line); });
    return answer.value("value", Json());
  }
  Ostra::Asker asker_;
};

void addChain(Facts& facts, Snapshot const& snapshot, Chains const& chains) {
  facts.chain = chains.from(facts.key);
  for (U64 const key : facts.chain)
    if (auto const kind = snapshot.waits->kind().find(EntryKey(key)); kind != snapshot.waits->kind().end())
      facts.mixed |= kind->second == Kind::Priority;
}

void addSnapshot(Facts& facts, Snapshot const& snapshot, ConfigFile const& config, RuleList const& rules) {
  Chains const chains(snapshot);
  facts.position = chains.at(facts.key);
  if (facts.position) facts.programmed = snapshot.opIdOf({*facts.position, false, facts.key});
  facts.claim = chains.wants(facts.key);
  facts.delay = snapshot.hardware.delay();
  if (auto const* refusal = snapshot.hardware.refusalOf(facts.key, facts.entry.opId()))
    facts.refusedByHardware = refusal->reason;
  if (!facts.claim) return;
  facts.wait = waitOf(snapshot, config, facts.key, *facts.claim);
  if (auto const& blocker = facts.wait->blocker) {
    facts.blocker = readEntry(config, blocker->key);
    facts.blockerLine = rules.lineOf(blocker->key);
  }
  addChain(facts, snapshot, chains);
}

// What no snapshot holds. An agent that does not answer is said already.
void addAgent(Facts& facts, std::string const& dir, double seconds) try {
  Agent agent(dir, seconds);
  facts.breaksMixedRings = agent.attribute("engine", "breakMixedRings").get<bool>();
  if (Json const why = agent.member("configTable", "refused", facts.key); why.is_string())
    facts.refusedRecord = why.get<std::string>();
  if (!agent.member("frontEnd", "failedKey", facts.key).is_null())
    facts.retrySeconds = agent.attribute("frontEnd", "retryPeriod").get<double>();
} catch (std::exception const&) {
}

Facts factsOf(Asked const& asked) {
  double const seconds = asked.timeout.value_or(defaultTimeout);
  ConfigFile const config(SharedTables::configPath(asked.dir));
  RuleList const rules(config);
  Facts facts;
  facts.key = rules.named(asked.name);
  if (auto const* rule = rules.of(facts.key)) facts.rule = *rule;
  facts.entry = readEntry(config, facts.key);
  if (std::string const path = SharedTables::statusPath(asked.dir); std::filesystem::exists(path))
    facts.acknowledged = Vantrel::readStatus(StatusFile(path), facts.key).opId();
  auto const agent = agentViewOf(asked.dir);
  if (auto const snapshot = agent->snapshot(seconds))
    addSnapshot(facts, *snapshot, config, rules);
  else
    facts.problem = agent->problem();
  if (facts.problem.empty()) addAgent(facts, asked.dir, seconds);
  facts.history = historyOf(asked.dir, facts.key, minute);
  return facts;
}

std::string called(U64 key, std::string const& line) {
  return line.empty() ? fmt::format("key {}", key) : fmt::format("key {} ({})", key, line);
}

U32 positionOf(EntryConfig const& entry) {
  return entry.tableIndexs() == 1 ? entry.tableIndex(TableKey(0)) : 0;
}

// What the blocker does, and what that means.
std::string obstacle(Facts const& f) {
  auto const& blocker = f.wait->blocker;
  if (!blocker) return fmt::format("position {} is free now: it is tried again at once", *f.claim);
  std::string const who = called(blocker->key.value(), f.blockerLine);
  bool const gone = f.blocker == EntryConfig() || f.blocker.isDel();
  std::string const plan = gone ? "which is no longer wanted"
                           : positionOf(f.blocker) == blocker->position
                               ? "which is to stay there"
                               : fmt::format("which is to go to position {}", positionOf(f.blocker));
  if (f.wait->kind != Kind::Priority)
    return fmt::format("position {} is held by {}, priority {}, {}", *f.claim, who, f.blocker.prio(), plan);
  bool const before = blocker->position > *f.claim;
  return fmt::format(
      "position {} is free, but {} is at position {} with priority {}, {}: priority {} may not lie {} it",
      *f.claim, who, blocker->position, f.blocker.prio(), plan, f.entry.prio(), before ? "before" : "behind");
}

std::string waitingText(Facts const& f) {
  return fmt::format("it waits, for {}: {}", duration(f.wait->seconds), obstacle(f));
}

// In one sentence: is it in hardware, and if not, why.
std::string verdict(Facts const& f) {
  if (f.unknown()) return "nobody wants it, and nobody has it";
  if (f.entry == EntryConfig() && !f.position) return "it is no longer wanted, and not in hardware";
  if (!f.refusedRecord.empty()) return "the agent does not take its record: " + f.refusedRecord;
  if (!f.problem.empty())
    return fmt::format("{}; {}", f.problem,
                       f.wanted() && f.acknowledged == f.entry.opId()
                           ? "what the status table says was true of the agent that wrote it: acknowledged"
                           : "its wanted version is not acknowledged");
  if (f.entry.isDel() || f.entry == EntryConfig())
    return f.position ? "it is to be deleted, and still in hardware" : "it is deleted";
  if (!f.refusedByHardware.empty()) return "the hardware refuses it: " + f.refusedByHardware;
  if (f.wait) return waitingText(f);
  if (f.position && f.programmed == f.entry.opId())
    return f.acknowledged == f.entry.opId()
               ? "it is in hardware as it is wanted, and acknowledged"
               : "it is handed to the hardware as it is wanted; that has not acknowledged it yet";
  if (f.retrySeconds) return fmt::format("it failed, and is tried again every {} s", *f.retrySeconds);
  return "the agent has not seen this version yet";
}

std::string wantedText(Facts const& f) {
  if (f.entry == EntryConfig()) return "not at all";
  if (f.entry.isDel()) return "to be deleted, with acknowledgement";
  return fmt::format("at position {}, group {}, priority {}, version {}", positionOf(f.entry), f.entry.pg(),
                     f.entry.prio(), f.entry.opId().value());
}

std::string heldText(Facts const& f) {
  if (!f.problem.empty()) return "not known: " + f.problem;
  if (!f.position) return "nowhere";
  return fmt::format("at position {}, version {}{}", *f.position, f.programmed.value(),
                     f.programmed == f.entry.opId() ? "" : ", an older one");
}

std::string acknowledgedText(Facts const& f) {
  if (f.acknowledged == OpId()) return "nothing";
  if (f.acknowledged == OpId::deleteAcknowledge()) return "its delete";
  return fmt::format("version {}{}", f.acknowledged.value(),
                     f.acknowledged == f.entry.opId() ? ", the wanted one" : "");
}

// Who waits for whom, and what becomes of it. Empty when nobody but this key waits.
std::string chainText(Facts const& f) {
  if (f.chain.size() < 3 && !f.inRing()) return "";
  std::string text;
  for (U64 const key : f.chain) text += (text.empty() ? "" : " -> ") + std::to_string(key);
  if (!f.ring()) return fmt::format("{} (the last one does not wait)", text);
  if (!f.mixed) return text + ": a ring; the agent breaks it with the next key that it handles";
  if (!f.breaksMixedRings)
    return text +
           ": a ring that nobody breaks: breakMixedRings is not set. vantrel attr set engine "
           "breakMixedRings true, from the next change on, or write one of these entries anew";
  return text + ": a ring; if it lasts, its claims contradict each other: write one of these entries anew";
}

// Seconds and milliseconds of the local time.
std::string clockOf(U64 ns) {
  std::time_t const seconds = static_cast<std::time_t>(ns / 1000000000U);
  std::tm local{};
  ::localtime_r(&seconds, &local);
  return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                     ns / 1000000U % 1000U);
}

void printText(Facts const& f) {
  fmt::print("{}: {}\n", called(f.key.value(), f.rule ? fmt::format("line {}", f.rule->line) : ""),
             verdict(f));
  if (f.rule) fmt::print("  {:<13} {}\n", "rule", Acl::text(f.rule->rule));
  fmt::print("  {:<13} {}\n", "wanted", wantedText(f));
  fmt::print("  {:<13} {}\n", "in hardware", heldText(f));
  fmt::print("  {:<13} {}\n", "acknowledged", acknowledgedText(f));
  if (std::string const chain = chainText(f); !chain.empty()) fmt::print("  {:<13} {}\n", "chain", chain);
  if (!f.delay.empty()) fmt::print("  {:<13} {}\n", "hardware", f.delay);
  if (f.retrySeconds) fmt::print("  {:<13} every {} s\n", "tried again", *f.retrySeconds);
  if (!f.history.problem.empty()) {
    fmt::print("  {:<13} not known: {}\n", "last minute", f.history.problem);
    return;
  }
  fmt::print("  {:<13} tried again {} time{}{}\n", "last minute", f.history.tries,
             f.history.tries == 1 ? "" : "s",
             f.history.left == 0 ? "" : fmt::format("; {} earlier events are left out", f.history.left));
  for (History::Event const& event : f.history.events)
    fmt::print("    {} {}\n", clockOf(event.realNs), event.what);
}

void printJson(Facts const& f) {
  Json line{{"key", f.key.value()}, {"verdict", verdict(f)}};
  if (f.rule) line.update({{"line", f.rule->line}, {"rule", Acl::text(f.rule->rule)}});
  if (f.wanted())
    line["wanted"] = {{"position", positionOf(f.entry)},
                      {"pg", f.entry.pg()},
                      {"prio", f.entry.prio()},
                      {"opId", f.entry.opId().value()}};
  if (f.position) line["hardware"] = {{"position", *f.position}, {"opId", f.programmed.value()}};
  line["acknowledged"] = f.acknowledged.value();
  if (f.wait) {
    Json wait{{"position", *f.claim},
              {"seconds", f.wait->seconds},
              {"for", f.wait->kind == Kind::Priority ? "priority" : "position"}};
    if (auto const& blocker = f.wait->blocker)
      wait.update({{"key", blocker->key.value()}, {"at", blocker->position}, {"prio", f.blocker.prio()}});
    line["waits"] = wait;
    line["chain"] = f.chain;
    line["ring"] = f.ring();
  }
  if (!f.refusedRecord.empty()) line["refusedRecord"] = f.refusedRecord;
  if (!f.refusedByHardware.empty()) line["refusedByHardware"] = f.refusedByHardware;
  if (f.retrySeconds) line["retrySeconds"] = *f.retrySeconds;
  if (!f.problem.empty()) line["problem"] = f.problem;
  line["tries"] = f.history.tries;
  line["events"] = Json::array();
  for (History::Event const& event : f.history.events)
    line["events"].push_back({{"ns", event.realNs}, {"what", event.what}});
  fmt::print("{}\n", line.dump());
}

void why(Asked const& asked) {
  std::string const path = SharedTables::configPath(asked.dir);
  if (!std::filesystem::exists(path))
    throw std::runtime_error(fmt::format("there is no table {}: nothing was ever wanted here", path));
  Facts const facts = factsOf(asked);
  asked.json ? printJson(facts) : printText(facts);
  if (facts.unknown()) throw Exit{1};
}

}  // namespace

void addWhy(CLI::App& app) {
  auto const asked = std::make_shared<Asked>();
  CLI::App& verb = *app.add_subcommand("why", "Where one entry is, and why it is not where it is wanted");
  verb.add_option("ENTRY", asked->name,
                  "A key, line:N (of vantrel ls rules), FILE:N (a rule file's line), or a rule's text")
      ->required()
      ->type_name("KEY|RULE");
  addDir(verb, asked->dir);
  addJson(verb, asked->json);
  addTimeout(verb, asked->timeout, "How long the agent may take (10)");
  verb.footer(
      "Example:\n  vantrel why 7 --dir /run/vantrel\n  vantrel why edge_filter.rules:12 --dir /run/vantrel");
  verb.callback([asked] { why(*asked); });
}

}  // namespace VantrelCommand
