// SPDX-License-Identifier: Apache-2.0
// vantrel put: writes one wanted entry.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "apps/vantrel/awaiting.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "producer/producer.h"
#include "producer/shared_tables.h"

namespace VantrelCommand {
namespace {

using Vantrel::DataKey;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::Producer;

struct Put {
  std::string dir;
  std::optional<U64> key;
  std::optional<U64> opId;
  std::optional<U32> hdl;
  std::optional<U16> pg;
  std::optional<U32> prio;
  std::optional<U32> ti;
  std::vector<U64> data;
  GeometryFlags geometry;
  bool wait = false;
  std::optional<double> timeout;
  bool json = false;

  EntryConfig entry() const {
    EntryConfig entry(EntryKey(*key), OpId(*opId), *hdl, *pg, *prio);
    entry.tableIndexIs(Vantrel::TableKey(0), *ti);
    for (U64 const word : data) entry.dataIs(DataKey(entry.datas()), word);
    return entry;
  }

  OpId write(Producer& producer) const {
    if (opId) {
      producer.put(entry());
      return OpId(*opId);
    }
    return producer.put({.key = EntryKey(*key), .pg = *pg, .prio = *prio, .ti = *ti, .data = data});
  }

  void run() const {
    if (opId.has_value() != hdl.has_value())
      throw CLI::ValidationError("--op-id", "expected together with --hdl, or neither: then both are chosen");
    if (data.size() > DataKey::max + 1)
      throw CLI::ValidationError("--data",
                                 fmt::format("expected at most 64 words, instead got {}", data.size()));
    Vantrel::Geometry const agent = geometry.of(dir);
    requireDirectory(dir);
    if (Vantrel::Geometry::read(dir) && *ti >= agent.size)
      throw std::runtime_error(fmt::format("position {} lies beyond the hardware's {} positions, 0 to {}",
                                           *ti, agent.size, agent.size - 1));
    Vantrel::SharedTables tables(dir);
    Producer producer(tables.config(), tables.status(), agent.mapping(), tables.changes());
    OpId const written = write(producer);
    if (wait) {
      Awaiting awaiting(dir, tables, timeout, json);
      awaiting.await(EntryKey(*key), written);
      awaiting.untilDone("acknowledged");
      awaiting.requireNoneRefused();
    }
    if (json)
      fmt::print("{}\n", nlohmann::ordered_json{{"key", *key}, {"opId", written.value()}}.dump());
    else
      fmt::print("key {} is {} as OpId {}\n", *key, wait ? "acknowledged" : "written", written.value());
  }
};

}  // namespace

void addPut(CLI::App& app) {
  auto const put = std::make_shared<Put>();
  CLI::App& verb = *app.add_subcommand(
      "put", "Writes one wanted entry; makes the table, but not its directory, when there is none");
  addDir(verb, put->dir);
  addNumber(verb, "--key", put->key, "The entry's key")->required();
  addNumber(verb, "--op-id", put->opId, "Its version; without it and --hdl both are chosen");
  addNumber(verb, "--hdl", put->hdl, "Its handle");
  addNumber(verb, "--pg", put->pg, "Its priority group")->required();
  addNumber(verb, "--prio", put->prio, "Its priority")->required();
  addNumber(verb, "--ti", put->ti, "Its position")->required();
  verb.add_option_function<std::vector<std::string>>(
          "--data",
          [put](std::vector<std::string> const& words) {
            for (std::string const& word : words)
              put->data.push_back(numberOf("--data", word, std::numeric_limits<U64>::max()));
          },
          "Its data words: match and action")
      ->delimiter(',')
      ->type_name("N,N,...");
  put->geometry.addTo(verb);
  CLI::Option* const wait = verb.add_flag("--wait", put->wait, "Returns when it is acknowledged");
  addTimeout(verb, put->timeout, "How long --wait waits; without it, as long as it takes")->needs(wait);
  addJson(verb, put->json);
  verb.footer(
      "Example:\n"
      "  vantrel put --dir /run/vantrel --key 7 --op-id 0x10001 --hdl 7 --pg 0 --prio 100 --ti 42 --data "
      "0xa,0xb");
  verb.callback([put] { put->run(); });
}

}  // namespace VantrelCommand
