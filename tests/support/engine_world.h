// SPDX-License-Identifier: Apache-2.0
// The fixture of the engine's tests: an engine over in-process tables, a client that records its calls, and
// both trace channels caught as text.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "lumelog/tap.h"
#include "ostra/type_info.h"
#include "pallo/exception.h"
#include "tests/support/facility_text.h"
#include "vantrel/core/trace.h"
#include "vantrel/vantrel.h"

namespace TestSupport {

using namespace Vantrel;
using Ostra::make;
using Ostra::Ptr;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// "add 7@4", "del 7@4 op=65537", ... and the base's status writes, in order.
class Client : public VantrelHelper {
 public:
  explicit Client(Ptr<TableStatus> status) : VantrelHelper("client", std::move(status)) {}
  void addEntry(EntryConfig const& e) override { say("add", e); }
  void updateEntry(EntryConfig const& e) override { say("update", e); }
  void moveEntry(EntryConfig const& e) override { say("move", e); }
  void deleteEntry(EntryConfig const& e) override { say("del", e); }
  void deleteEntryDeadlock(EntryConfig const& e) override { say("deadlock", e); }
  void delAck(EntryKey const& key) override {
    calls.push_back("delAck " + std::to_string(key.value()));
    VantrelHelper::delAck(key);
  }
  void delStatus(EntryKey const& key) override {
    calls.push_back("delStatus " + std::to_string(key.value()));
    VantrelHelper::delStatus(key);
  }
  void noopAck(EntryKey const& key, OpId const& opId) override {
    calls.push_back("noop " + std::to_string(key.value()));
    VantrelHelper::noopAck(key, opId);
  }
  void flush() override { calls.push_back("flush"); }

  std::vector<std::string> take() { return std::exchange(calls, {}); }

  std::vector<std::string> calls;
  std::vector<EntryConfig> records;
  std::function<void(std::string const&)> onCall;

 private:
  void say(char const* what, EntryConfig const& e) {
    calls.push_back(std::string(what) + " " + std::to_string(e.key().value()) + "@" +
                    std::to_string(e.tableIndexs() ? e.tableIndex(TableKey(0)) : 0xFFFFFFFF));
    records.push_back(e);
    if (onCall) onCall(calls.back());
  }
};

// An engine whose dependant tables succeed or fail as the test says.
template <class Base>
class Scripted : public Base {
 public:
  using Base::Base;
  bool processDependantTables(EntryConfig const& entry, EntryKey const& key) override {
    ++dependantCalls;
    return dependants ? dependants(entry, key) : true;
  }
  std::function<bool(EntryConfig const&, EntryKey const&)> dependants;
  int dependantCalls = 0;
};

// The names of a class and their types: "version U32", "versionInc (U32)", ...
inline std::vector<std::string> offered(Ostra::TypeInfo const& type) {
  std::vector<std::string> names;
  for (Ostra::Attribute const* a : type.attributes()) names.push_back(a->name + " " + a->type);
  return names;
}

// Facility lines, "HANDLE/LEVEL text", while it lives.
class FacilityLines {
 public:
  explicit FacilityLines(char const* settings) { Ostra::TraceManager::instance().settingsAre(settings); }
  std::vector<std::string> take() {
    std::vector<std::string> lines;
    std::istringstream in(text_.take());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

 private:
  FacilityText text_;
};

// A table that throws, while `oversize` is set, as for a record with an impossible count.
class Oversize : public Shoal::LocalTable<EntryConfig> {
 public:
  EntryConfig entry(EntryKey const& key) const override {
    if (oversize) throw Pallo::InvalidSizeException("too large");
    return LocalTable::entry(key);
  }
  bool oversize = false;
};

// A table that counts how often a record is read.
class CountingTable : public Shoal::LocalTable<EntryConfig> {
 public:
  EntryConfig entry(EntryKey const& key) const override {
    ++reads;
    return LocalTable::entry(key);
  }
  mutable U64 reads = 0;
};

// Ring-buffer records, "text [id, values...]", while it lives.
class RingRecords {
 public:
  RingRecords() : previous_(std::exchange(lg, &log_)) {
    log_.tapIs([this](std::string_view text, std::span<U64 const> values) {
      std::string line(text);
      line += " [";
      for (std::size_t i = 0; i < values.size(); ++i) line += (i ? "," : "") + std::to_string(values[i]);
      lines_.push_back(line + "]");
    });
  }
  ~RingRecords() { lg = previous_; }
  std::vector<std::string> take() { return std::exchange(lines_, {}); }

 private:
  std::vector<std::string> lines_;
  Lumelog::Log log_;
  Lumelog::Log* previous_;
};

// What put() writes; the OpId rises with each put unless it is given.
struct Put {
  U64 key;
  U32 ti;
  U32 prio = 10;
  U16 pg = 0;
  U64 opId = 0;
  U32 hdl = 0;  // 0: the key
  bool del = false;
};

template <class Engine>
class EngineWorld : public ::testing::Test {
 protected:
  using ScriptedEngine = Scripted<Engine>;

  EngineWorld() {
    setenv("LUMELOG_DISABLE", "1", 1);
    table = make<Shoal::LocalTable<EntryConfig>>("config");
    status = make<Shoal::LocalTable<EntryStatus>>("status");
    client = make<Client>(status);
    debugConfig = debugConfigFactory("debugConfig");
    debugStatus = debugStatusFactory("debugStatus");
  }

  template <class... More>
  void engineIs(More... more) {
    engine = make<ScriptedEngine>("engine", table, debugConfig, debugStatus, client, 1U, more...);
  }

  EntryConfig config(Put const& p) {
    U64 const opId = p.opId ? p.opId : (nextOpId += 0x10001);
    EntryConfig c(EntryKey(p.key), OpId(opId), p.hdl ? p.hdl : static_cast<U32>(p.key), p.pg, p.prio);
    c.tableIndexIs(TableKey(0), p.ti);
    c.isDelIs(p.del);
    return c;
  }
  void write(Put const& p) { table->entryQuietlyIs(config(p)); }
  virtual void handle(U64 key) { engine->handleEntry(EntryKey(key)); }
  std::vector<std::string> put(Put const& p) {
    write(p);
    handle(p.key);
    return client->take();
  }
  std::vector<std::string> remove(U64 key) {
    table->entryQuietlyDel(EntryKey(key));
    handle(key);
    return client->take();
  }
  U64 acknowledged(U64 key) { return status->entry(EntryKey(key)).opId().value(); }

  Ptr<Shoal::LocalTable<EntryConfig>> table;
  Ptr<Shoal::LocalTable<EntryStatus>> status;
  Ptr<Client> client;
  Ptr<DebugConfig> debugConfig;
  Ptr<DebugStatus> debugStatus;
  Ptr<ScriptedEngine> engine;
  U64 nextOpId = 0;
};

using Calls = std::vector<std::string>;

}  // namespace TestSupport
