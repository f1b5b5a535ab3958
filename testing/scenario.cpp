// SPDX-License-Identifier: Apache-2.0
#include "testing/scenario.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace Testing {
namespace {

using Json = nlohmann::ordered_json;
using Vantrel::DataKey;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

constexpr std::pair<std::string_view, Do> verbs[] = {
    {"put", Do::Put},   {"remove", Do::Remove},   {"notify", Do::Notify}, {"walk", Do::Walk},
    {"fail", Do::Fail}, {"advance", Do::Advance}, {"set", Do::Set},       {"debug", Do::Debug},
    {"show", Do::Show}, {"cleanup", Do::Cleanup},
};

[[noreturn]] void refuse(std::string const& expected, std::string const& got) {
  throw ScenarioError("expected " + expected + ", got " + got);
}

// A value as it stands in an error text: long ones are cut.
std::string shown(Json const& value) {
  std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() > 60) text = text.substr(0, 57) + "...";
  return text;
}

// One JSON object, read field by field. done() refuses fields that were not read.
class Fields {
 public:
  explicit Fields(Json const& object) : object_(object) {}

  bool has(char const* name) const { return object_.contains(name); }

  U64 number(char const* name, U64 max) {
    Json const* value = take(name);
    return value ? number(*value, "\"" + std::string(name) + "\"", max) : 0;
  }
  bool flag(char const* name) {
    Json const* value = take(name);
    if (value && !value->is_boolean()) refuse("\"" + std::string(name) + "\" true or false", shown(*value));
    return value && value->get<bool>();
  }
  std::string text(char const* name) {
    Json const* value = take(name);
    if (value && !value->is_string()) refuse("\"" + std::string(name) + "\" a string", shown(*value));
    return value ? value->get<std::string>() : std::string();
  }
  std::vector<U64> numbers(char const* name, std::size_t capacity, U64 max) {
    std::vector<U64> out;
    Json const* value = take(name);
    if (!value) return out;
    std::string const what = "\"" + std::string(name) + "\"";
    if (!value->is_array() || value->size() > capacity)
      refuse(what + " an array of at most " + std::to_string(capacity) + " integers", shown(*value));
    for (Json const& element : *value) out.push_back(number(element, "an element of " + what, max));
    return out;
  }
  Json const* take(char const* name) {
    taken_.emplace_back(name);
    auto const at = object_.find(name);
    return at == object_.end() ? nullptr : &*at;
  }
  void done(std::string const& what) const {
    for (auto const& [name, value] : object_.items())
      if (std::find(taken_.begin(), taken_.end(), name) == taken_.end())
        refuse("only the fields of " + what, "\"" + name + "\"");
  }

 private:
  static U64 number(Json const& value, std::string const& what, U64 max) {
    if (!value.is_number_unsigned() || value.get<U64>() > max)
      refuse(what + " an integer from 0 to " + std::to_string(max), shown(value));
    return value.get<U64>();
  }

  Json const& object_;
  std::vector<std::string> taken_;
};

constexpr U64 max16 = std::numeric_limits<U16>::max();
constexpr U64 max32 = std::numeric_limits<U32>::max();
constexpr U64 max64 = std::numeric_limits<U64>::max();

Json parseObject(std::string_view line) {
  Json json;
  try {
    json = Json::parse(line);
  } catch (Json::exception const&) {
    refuse("one JSON object",
           line.empty() ? "an empty line" : "what is no JSON: " + std::string(line.substr(0, 60)));
  }
  if (!json.is_object()) refuse("one JSON object", shown(json));
  return json;
}

EngineChoice readEngine(Fields& fields) {
  EngineChoice choice;
  std::string const name = fields.text("engine");
  if (name != "fast" && name != "atcam") refuse("\"engine\" \"fast\" or \"atcam\"", "\"" + name + "\"");
  choice.atcam = name == "atcam";
  if (choice.atcam) {
    choice.maxPartitions = static_cast<U32>(fields.number("maxPartitions", max32));
    if (choice.maxPartitions == 0)
      refuse("\"maxPartitions\" an integer from 1 to " + std::to_string(max32), "0");
  }
  choice.hasShift = fields.has("prioGrpShift");
  choice.prioGrpShift = static_cast<U32>(fields.number("prioGrpShift", 32));
  fields.done("an engine line");
  return choice;
}

EntryConfig readRecord(Fields& fields) {
  EntryKey const key(fields.number("key", max64));
  OpId const opId(fields.number("opId", max64));
  U32 const hdl = static_cast<U32>(fields.number("hdl", max32));
  U16 const pg = static_cast<U16>(fields.number("pg", max16));
  U32 const prio = static_cast<U32>(fields.number("prio", max32));
  EntryConfig entry(key, opId, hdl, pg, prio);
  unsigned i = 0;
  for (U64 ti : fields.numbers("ti", TableKey::max + 1, max32))
    entry.tableIndexIs(TableKey(i++), static_cast<U32>(ti));
  i = 0;
  for (U64 word : fields.numbers("data", DataKey::max + 1, max64)) entry.dataIs(DataKey(i++), word);
  entry.isDelIs(fields.flag("del"));
  return entry;
}

EntryConfig readKey(Fields& fields) { return {EntryKey(fields.number("key", max64)), OpId(0), 0, 0, 0}; }

std::int64_t readTimes(Fields& fields) {
  Json const* value = fields.take("times");
  if (!value) return 0;
  bool const exact =
      value->is_number_integer() && !(value->is_number_unsigned() && value->get<U64>() > max32);
  if (!exact || value->get<std::int64_t>() < -1)
    refuse("\"times\" an integer from -1 to " + std::to_string(max32), shown(*value));
  return value->get<std::int64_t>();
}

double readSeconds(Fields& fields) {
  Json const* value = fields.take("seconds");
  if (!value) return 0.0;
  if (!value->is_number() || !(value->get<double>() >= 0.0) || !std::isfinite(value->get<double>()))
    refuse("\"seconds\" a number that is not negative", shown(*value));
  return value->get<double>();
}

Ostra::Value readValue(Fields& fields) {
  Json const* value = fields.take("value");
  if (!value) refuse("\"value\"", "none");
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number_unsigned()) return value->get<U64>();
  if (value->is_number()) return value->get<double>();
  if (value->is_string()) return value->get<std::string>();
  refuse("\"value\" true, false, a number or a string", shown(*value));
}

void readSet(Step& step, Fields& fields) {
  step.attribute = fields.text("attr");
  step.on = fields.text("on");
  step.value = readValue(fields);
  if (step.attribute.empty()) refuse("\"attr\" the name of an attribute", "none");
  if (!step.on.empty() && step.on != "engine" && step.on != "sm")
    refuse("\"on\" \"engine\" or \"sm\"", "\"" + step.on + "\"");
}

void readArguments(Step& step, Fields& fields) {
  switch (step.what) {
    case Do::Put:
      step.entry = readRecord(fields);
      step.quiet = fields.flag("quiet");
      break;
    case Do::Remove:
      step.entry = readKey(fields);
      step.quiet = fields.flag("quiet");
      break;
    case Do::Notify:
      step.entry = readKey(fields);
      break;
    case Do::Fail:
      step.entry = readKey(fields);
      step.times = readTimes(fields);
      break;
    case Do::Advance:
      step.seconds = readSeconds(fields);
      break;
    case Do::Set:
      readSet(step, fields);
      break;
    case Do::Debug:
      step.version = static_cast<U32>(fields.number("version", max32));
      break;
    case Do::Walk:
    case Do::Show:
    case Do::Cleanup:
      break;
  }
}

Step readStep(Fields& fields) {
  std::string const name = fields.text("do");
  auto const* verb =
      std::find_if(std::begin(verbs), std::end(verbs), [&](auto const& v) { return v.first == name; });
  if (verb == std::end(verbs)) {
    std::string names;
    for (auto const& v : verbs) names.append(names.empty() ? "" : ", ").append(v.first);
    refuse("\"do\" one of " + names, "\"" + name + "\"");
  }
  Step step;
  step.what = verb->second;
  readArguments(step, fields);
  fields.done("\"do\":\"" + name + "\"");
  return step;
}

// The fields of a record in the order in which every line shows them.
void addRecord(Json& json, EntryConfig const& entry) {
  json["key"] = entry.key().value();
  json["opId"] = entry.opId().value();
  json["hdl"] = entry.hdl();
  json["pg"] = entry.pg();
  json["prio"] = entry.prio();
  json["ti"] =
      std::vector<U32>(entry.tableIndexes().elements().begin(), entry.tableIndexes().elements().end());
  json["data"] = std::vector<U64>(entry.dataWords().elements().begin(), entry.dataWords().elements().end());
}

void addValue(Json& json, Ostra::Value const& value) {
  if (auto const* flag = std::get_if<bool>(&value)) json["value"] = *flag;
  if (auto const* number = std::get_if<U64>(&value)) json["value"] = *number;
  if (auto const* real = std::get_if<double>(&value)) json["value"] = *real;
  if (auto const* text = std::get_if<std::string>(&value)) json["value"] = *text;
}

template <class Map>
Json mapJson(Map const& map) {
  Json json = Json::object();
  for (auto const& [key, value] : map) json[std::to_string(key)] = value;
  return json;
}

std::string_view verbName(Do what) {
  return std::find_if(std::begin(verbs), std::end(verbs), [&](auto const& v) { return v.second == what; })
      ->first;
}

std::string_view eventName(EventKind kind) {
  constexpr std::string_view names[] = {"add",    "update",    "move", "delete", "deleteDeadlock",
                                        "status", "statusDel", "flush"};
  return names[static_cast<std::size_t>(kind)];
}

Step step(Do what, U64 key = 0) {
  Step s;
  s.what = what;
  s.entry = EntryConfig(EntryKey(key), OpId(0), 0, 0, 0);
  return s;
}

// Takes the next line off `text`; a last line may lack its end.
std::string_view takeLine(std::string_view& text) {
  std::size_t const end = std::min(text.find('\n'), text.size());
  std::string_view const line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

}  // namespace

Step put(EntryConfig const& entry, bool quiet) {
  Step s = step(Do::Put);
  s.entry = entry;
  s.quiet = quiet;
  return s;
}
Step remove(U64 key, bool quiet) {
  Step s = step(Do::Remove, key);
  s.quiet = quiet;
  return s;
}
Step notify(U64 key) { return step(Do::Notify, key); }
Step walk() { return step(Do::Walk); }
Step fail(U64 key, std::int64_t times) {
  Step s = step(Do::Fail, key);
  s.times = times;
  return s;
}
Step advance(double seconds) {
  Step s = step(Do::Advance);
  s.seconds = seconds;
  return s;
}
Step set(std::string attribute, Ostra::Value value, std::string on) {
  Step s = step(Do::Set);
  s.attribute = std::move(attribute);
  s.value = std::move(value);
  s.on = std::move(on);
  return s;
}
Step debug(U32 version) {
  Step s = step(Do::Debug);
  s.version = version;
  return s;
}
Step show() { return step(Do::Show); }
Step cleanup() { return step(Do::Cleanup); }

EntryConfig record(U64 key, U64 opId, U32 hdl, U16 pg, U32 prio, U32 ti) {
  EntryConfig entry(EntryKey(key), OpId(opId), hdl, pg, prio);
  entry.tableIndexIs(TableKey(0), ti);
  return entry;
}

Line parseLine(std::string_view line) {
  Json const json = parseObject(line);
  Fields fields(json);
  if (fields.has("engine")) return readEngine(fields);
  if (!fields.has("do")) refuse("a field \"do\", or \"engine\" on the first line", shown(json));
  return readStep(fields);
}

Scenario parseScenario(std::string_view name, std::string_view text) {
  Scenario scenario;
  for (U64 number = 1; !text.empty(); ++number) {
    try {
      Line line = parseLine(takeLine(text));
      bool const over = !scenario.steps.empty() && scenario.steps.back().what == Do::Cleanup;
      if (over) refuse("nothing after \"cleanup\"", "another line");
      if (auto* s = std::get_if<Step>(&line))
        scenario.steps.push_back(std::move(*s));
      else if (number == 1)
        scenario.engine = std::get<EngineChoice>(line);
      else
        refuse("\"engine\" on the first line only", "it here");
    } catch (ScenarioError const& error) {
      throw ScenarioError(std::string(name) + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  return scenario;
}

std::string print(EngineChoice const& engine) {
  Json json;
  json["engine"] = engine.atcam ? "atcam" : "fast";
  if (engine.atcam) json["maxPartitions"] = engine.maxPartitions;
  if (engine.hasShift) json["prioGrpShift"] = engine.prioGrpShift;
  return json.dump();
}

std::string print(Step const& s) {
  Json json;
  json["do"] = verbName(s.what);
  if (s.what == Do::Put) {
    addRecord(json, s.entry);
    if (s.entry.isDel()) json["del"] = true;
  }
  if (s.what == Do::Remove || s.what == Do::Notify || s.what == Do::Fail) json["key"] = s.key();
  if (s.what == Do::Fail) json["times"] = s.times;
  if (s.what == Do::Advance) json["seconds"] = s.seconds;
  if (s.what == Do::Debug) json["version"] = s.version;
  if (s.what == Do::Set) {
    json["attr"] = s.attribute;
    if (!s.on.empty()) json["on"] = s.on;
    addValue(json, s.value);
  }
  if (s.quiet) json["quiet"] = true;
  return json.dump();
}

std::string print(Scenario const& scenario) {
  std::string text = print(scenario.engine) + "\n";
  for (Step const& s : scenario.steps) text += print(s) + "\n";
  return text;
}

std::string printInput(U64 line) {
  Json json;
  json["event"] = "input";
  json["line"] = line;
  return json.dump();
}

std::string print(Event const& event) {
  Json json;
  json["event"] = eventName(event.kind);
  if (event.kind == EventKind::Status || event.kind == EventKind::StatusDel)
    json["key"] = event.entry.key().value();
  if (event.kind == EventKind::Status) json["opId"] = event.entry.opId().value();
  if (event.kind < EventKind::Status) addRecord(json, event.entry);
  return json.dump();
}

std::string print(Snapshot const& snapshot) {
  Json json;
  json["event"] = "snapshot";
  json["version"] = snapshot.version;
  json["pending"] = mapJson(snapshot.pending);
  json["pendingOpId"] = mapJson(snapshot.pendingOpId);
  json["status"] = mapJson(snapshot.status);
  json["statusOpId"] = mapJson(snapshot.statusOpId);
  return json.dump();
}

std::string print(Counters const& counters) {
  Json json;
  json["event"] = "show";
  json["tableCounter"] = counters.tableCounter;
  json["flushCounter"] = counters.flushCounter;
  json["initialFlushed"] = counters.initialFlushed;
  json["retryTimerSet"] = counters.retryTimerSet;
  json["failedKey"] = counters.failedKey;
  json["failedDepCnt"] = counters.failedDepCnt;
  json["numPending"] = counters.numPending;
  json["numDeadlock"] = counters.numDeadlock;
  if (counters.numMixedRings != 0) json["numMixedRings"] = counters.numMixedRings;
  return json.dump();
}

std::string print(TraceRecord const& record) {
  Json json;
  json["event"] = "trace";
  json["msg"] = record.message;
  json["args"] = record.values;
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace Testing
