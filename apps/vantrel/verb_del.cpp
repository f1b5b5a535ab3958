// SPDX-License-Identifier: Apache-2.0
// vantrel del: removes one entry, with or without acknowledgement.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "apps/vantrel/awaiting.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "producer/producer.h"
#include "producer/shared_tables.h"

namespace VantrelCommand {
namespace {

using Vantrel::EntryKey;
using Vantrel::Producer;

struct Del {
  std::string dir;
  std::optional<U64> key;
  bool ack = false;
  std::optional<double> timeout;
  bool json = false;

  void run() const {
    std::string const path = Vantrel::SharedTables::configPath(dir);
    if (!std::filesystem::exists(path)) throw std::runtime_error(fmt::format("there is no table {}", path));
    Vantrel::SharedTables tables(dir);  // would make one
    Producer producer(tables.config(), tables.status(), Vantrel::Mapping::fast(), tables.changes());
    EntryKey const which(*key);
    if (!producer.holds(which)) throw std::runtime_error(fmt::format("there is no key {} in {}", *key, path));
    if (ack) acknowledged(tables, producer, which);
    producer.remove(which);
    if (json)
      fmt::print("{}\n", nlohmann::ordered_json{{"key", *key}, {"acknowledged", ack}}.dump());
    else
      fmt::print("key {} is removed{}\n", *key, ack ? ", acknowledged" : "");
  }

  void acknowledged(Vantrel::SharedTables& tables, Producer& producer, EntryKey which) const {
    Awaiting awaiting(dir, tables, timeout, json);
    if (producer.awaited(which) ==
        Vantrel::OpId::deleteAcknowledge())  // by one that did not wait, or was killed
      awaiting.await(which, Vantrel::OpId::deleteAcknowledge());
    else
      awaiting.acknowledgements().awaitDelete(which);
    producer.markDeleted(which);
    awaiting.untilDone("acknowledged");
  }
};

}  // namespace

void addDel(CLI::App& app) {
  auto const del = std::make_shared<Del>();
  CLI::App& verb = *app.add_subcommand("del", "Removes one entry");
  addDir(verb, del->dir);
  addNumber(verb, "--key", del->key, "The entry's key")->required();
  CLI::Option* const ack = verb.add_flag(
      "--ack", del->ack, "Marks it for delete, waits for the acknowledgement, then removes its record");
  addTimeout(verb, del->timeout, "How long --ack waits; without it, as long as it takes")->needs(ack);
  addJson(verb, del->json);
  verb.footer("Example:\n  vantrel del --dir /run/vantrel --key 7 --ack");
  verb.callback([del] { del->run(); });
}

}  // namespace VantrelCommand
