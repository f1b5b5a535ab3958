// SPDX-License-Identifier: Apache-2.0
// vantrel table: shows, verifies, repairs, exports and imports a table's file.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/vantrel/command.h"
#include "shoal/inspect.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/core/tables.h"

namespace VantrelCommand {
namespace {

using Json = nlohmann::ordered_json;
using Vantrel::DataKey;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;
using Vantrel::TableKey;

struct Request {
  std::string file;
  std::string from;  // what load reads, - for the standard input
  bool json = false;
};

Json facts(std::string const& path) {
  Shoal::TableInfo const info = Shoal::tableInfo(path);
  auto const per = [](U64 a, U64 b) { return b ? static_cast<double>(a) / static_cast<double>(b) : 0.0; };
  return {{"file", path},
          {"recordType", info.recordType},
          {"recordVersion", info.recordVersion},
          {"formatVersion", info.formatVersion},
          {"imageBytes", info.imageBytes},
          {"slotBytes", info.slotBytes},
          {"madeAt", info.madeAt},
          {"records", info.records},
          {"bytes", info.bytes},
          {"bytesPerRecord", per(info.bytes, info.records)},
          {"buckets", info.buckets},
          {"recordsPerBucket", per(info.records, info.buckets)},
          {"chunks", info.chunks},
          {"ringEntries", info.ringEntries},
          {"changes", info.changes}};
}

void print(Json const& object, bool json) {
  if (json) {
    fmt::print("{}\n", object.dump());
    return;
  }
  for (auto const& [name, value] : object.items())
    fmt::print("{:<18}{}\n", name, value.is_string() ? value.get<std::string>() : value.dump());
}

void info(Request const& request) { print(facts(request.file), request.json); }

template <class R>
bool holds(std::string const& path) {
  return Shoal::tableInfo(path).recordType == Shoal::RecordTraits<R>::typeName;
}

// Calls `visit` with every record, and `damage` with what is wrong with one or with the walk.
template <class R, class Visit, class Damage>
void forRecords(std::string const& path, Visit visit, Damage damage) {
  Shoal::ReaderTable<R> const table(path);
  U64 const before = table.corruptions();
  try {
    for (auto place = table.first(); place; place = table.next(*place)) {
      try {
        R const record = table.entry(place->key);
        bool const wasRemoved = Shoal::RecordTraits<R>::key(record) != place->key;
        if (!wasRemoved) visit(record);
      } catch (Pallo::Exception const& error) {
        damage(fmt::format("the record of key {}: {}", place->key.value(), error.what()));
      }
    }
  } catch (Pallo::CorruptionDetectedException const& error) {
    damage(error.what());
  }
  if (table.corruptions() != before) damage(table.lastCorruption());
}

// Adds damage that Shoal::inspect, which does not know the record type, cannot find.
template <class R>
void checkRecords(std::string const& path, std::vector<std::string>& damage) {
  forRecords<R>(
      path, [](R const&) {},
      [&](std::string const& text) {
        bool const isOfTheRecord = text.find("its checksum") == std::string::npos;
        if (isOfTheRecord) damage.push_back(text);
      });
}

void check(Request const& request) {
  Shoal::Inspection found = Shoal::inspect(request.file);
  if (found.damage.empty()) {
    if (holds<EntryConfig>(request.file)) checkRecords<EntryConfig>(request.file, found.damage);
    if (holds<EntryStatus>(request.file)) checkRecords<EntryStatus>(request.file, found.damage);
  }
  if (!request.json) {
    for (std::string const& text : found.damage) fmt::print("damaged: {}\n", text);
    for (std::string const& text : found.unfinished) fmt::print("half-done: {}\n", text);
  }
  Json result{{"file", request.file},
              {"records", found.records},
              {"damaged", found.damage.size()},
              {"halfDone", found.unfinished.size()}};
  if (request.json) {
    result["damage"] = found.damage;
    result["unfinished"] = found.unfinished;
  }
  print(result, request.json);
  if (!found.damage.empty()) throw Exit{1};
}

void repair(Request const& request) {
  Shoal::Repair const repaired = Shoal::repair(request.file);
  if (!request.json)
    for (std::string const& text : repaired.lost) fmt::print("lost: {}\n", text);
  Json result{{"file", request.file}, {"records", repaired.records}, {"lost", repaired.lost.size()}};
  if (request.json) result["lostRecords"] = repaired.lost;
  print(result, request.json);
  if (!repaired.lost.empty()) throw Exit{1};
}

Json toJson(EntryConfig const& r) {
  Json ti = Json::array();
  for (U32 const index : r.tableIndexes().elements()) ti.push_back(index);
  Json data = Json::array();
  for (U64 const word : r.dataWords().elements()) data.push_back(word);
  return {
      {"key", r.key().value()}, {"opId", r.opId().value()}, {"hdl", r.hdl()},          {"pg", r.pg()},
      {"prio", r.prio()},       {"ti", std::move(ti)},      {"data", std::move(data)}, {"del", r.isDel()}};
}
Json toJson(EntryStatus const& r) { return {{"key", r.key().value()}, {"opId", r.opId().value()}}; }

// Prints one line for each record. A record that cannot be read is named on stderr, and the exit status is 1.
template <class R>
void dumpRecords(std::string const& path) {
  bool damaged = false;
  forRecords<R>(
      path, [](R const& record) { fmt::print("{}\n", toJson(record).dump()); },
      [&](std::string const& text) {
        fmt::print(stderr, "vantrel: {}\n", text);
        damaged = true;
      });
  if (std::fflush(stdout) != 0) throw std::runtime_error(fmt::format("the dump: {}", std::strerror(errno)));
  if (damaged) throw Exit{1};
}

void dump(Request const& request) {
  if (holds<EntryConfig>(request.file))
    dumpRecords<EntryConfig>(request.file);
  else if (holds<EntryStatus>(request.file))
    dumpRecords<EntryStatus>(request.file);
  else
    throw std::runtime_error(fmt::format("{} holds {} records, which cannot be shown as text", request.file,
                                         Shoal::tableInfo(request.file).recordType));
}

// Returns the number `name` of the object; 0 for a missing one that is not required.
template <class T>
T number(Json const& object, char const* name, bool required = true) {
  if (!object.contains(name) && !required) return 0;
  if (!object.contains(name)) throw std::runtime_error(fmt::format("\"{}\" is missing", name));
  Json const& value = object.at(name);
  if (!value.is_number_unsigned() || value.get<U64>() > std::numeric_limits<T>::max())
    throw std::runtime_error(fmt::format("\"{}\" is {}, expected a number from 0 to {}", name, value.dump(),
                                         std::numeric_limits<T>::max()));
  return static_cast<T>(value.get<U64>());
}

template <class T>
std::vector<T> numbers(Json const& object, char const* name, std::size_t most) {
  std::vector<T> all;
  if (!object.contains(name)) return all;
  Json const& list = object.at(name);
  if (!list.is_array() || list.size() > most)
    throw std::runtime_error(fmt::format("\"{}\" is not a list of at most {} numbers", name, most));
  for (Json const& value : list) all.push_back(number<T>(Json{{name, value}}, name));
  return all;
}

EntryConfig configOf(Json const& object) {
  if (!object.is_object()) throw std::runtime_error("expected an object");
  static std::set<std::string> const fields{"key", "opId", "hdl", "pg", "prio", "ti", "data", "del"};
  for (auto const& [name, value] : object.items())
    if (!fields.contains(name)) throw std::runtime_error(fmt::format("a record has no \"{}\"", name));
  EntryConfig r{EntryKey(number<U64>(object, "key")), OpId(number<U64>(object, "opId")),
                number<U32>(object, "hdl"), number<U16>(object, "pg"), number<U32>(object, "prio")};
  auto const ti = numbers<U32>(object, "ti", TableKey::max + 1);
  for (unsigned i = 0; i < ti.size(); ++i) r.tableIndexIs(TableKey(i), ti[i]);
  auto const data = numbers<U64>(object, "data", DataKey::max + 1);
  for (unsigned i = 0; i < data.size(); ++i) r.dataIs(DataKey(i), data[i]);
  if (object.contains("del") && !object.at("del").is_boolean())
    throw std::runtime_error(fmt::format("\"del\" is {}, expected true or false", object.at("del").dump()));
  r.isDelIs(object.value("del", false));
  return r;
}

std::vector<EntryConfig> readLines(std::istream& in, std::string const& name) {
  std::vector<EntryConfig> records;
  std::string line;
  for (U64 number = 1; std::getline(in, line); ++number) {
    if (line.empty()) continue;
    try {
      records.push_back(configOf(Json::parse(line)));
    } catch (std::exception const& error) {
      throw std::runtime_error(fmt::format("{}:{}: {}; nothing was written", name, number, error.what()));
    }
  }
  if (in.bad()) throw std::runtime_error(fmt::format("{}: cannot be read; nothing was written", name));
  return records;
}

// Everything is read before anything is written.
void load(Request const& request) {
  std::vector<EntryConfig> records;
  if (request.from == "-") {
    records = readLines(std::cin, "standard input");
  } else {
    std::ifstream in(request.from);
    if (!in) throw std::runtime_error(fmt::format("{}: cannot be read, expected JSON lines", request.from));
    records = readLines(in, request.from);
  }
  Shoal::WriterTable<EntryConfig> table(request.file);
  for (EntryConfig const& record : records) table.entryIs(record);
  print({{"file", request.file}, {"written", records.size()}, {"records", table.size()}}, request.json);
}

}  // namespace

void addTable(CLI::App& app) {
  auto const request = std::make_shared<Request>();
  CLI::App* const table =
      app.add_subcommand("table", "Look at a table's file, verify, repair, export or import it");
  table->require_subcommand(1);
  auto const add = [&](char const* name, char const* help, void (*run)(Request const&), char const* example) {
    CLI::App* const verb = table->add_subcommand(name, help);
    verb->add_option("FILE", request->file, "The table's file")->required();
    verb->add_flag("--json", request->json, "One JSON object a line");
    verb->footer(fmt::format("Example:\n  {}", example));
    verb->callback([request, run] { run(*request); });
    return verb;
  };
  add("info", "The header and how full the table is", info, "vantrel table info /dev/shm/v/config.shoal");
  add("check", "Verify every record and every line of the index; exit 1 when something is damaged", check,
      "vantrel table check /dev/shm/v/config.shoal");
  add("repair", "Make the table anew from its intact records, naming what is lost; exit 1 when something is",
      repair, "vantrel table repair /dev/shm/v/config.shoal");
  add("dump", "Every record as one JSON object a line", dump,
      "vantrel table dump /dev/shm/v/config.shoal > entries.jsonl");
  add("load", "Write records from JSON lines into an EntryConfig table; makes it when there is none", load,
      "vantrel table load /dev/shm/v/config.shoal --from entries.jsonl")
      ->add_option("--from", request->from, "A file of JSON lines, - for the standard input")
      ->default_str("-")
      ->default_val("-");
  table->footer("Example:\n  vantrel table check /dev/shm/v/config.shoal");
}

}  // namespace VantrelCommand
