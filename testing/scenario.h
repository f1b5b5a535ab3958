// SPDX-License-Identifier: Apache-2.0
// Scenarios: the steps that a front end and its engine are given, one a line, and the events that follow, one
// a line. docs/formats/scenario.md describes both.
//
// Invariants: a parsed step has every field in range; print(parse(line)) means the same as line.
// Ownership: plain values.
// Threading: none.
// Errors: ScenarioError, one sentence that says what was expected and what came instead.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ostra/value.h"
#include "vantrel/core/entry.h"

namespace Testing {

class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Which engine a scenario runs on: its first line, or the defaults.
struct EngineChoice {
  bool atcam = false;
  U32 maxPartitions = 0;  // of an algorithmic TCAM; at least 1 there
  U32 prioGrpShift = 0;   // meaningful only with hasShift
  bool hasShift = false;
  U32 shift() const { return hasShift ? prioGrpShift : atcam ? 16 : 19; }
  friend bool operator==(EngineChoice const&, EngineChoice const&) = default;
};

enum class Do : U8 { Put, Remove, Notify, Walk, Fail, Advance, Set, Debug, Show, Cleanup };

struct Step {
  Do what = Do::Show;
  bool quiet = false;          // put, remove: the table changes without a notification
  Vantrel::EntryConfig entry;  // put: the record; remove, notify, fail: its key
  std::int64_t times = 0;      // fail: how many attempts; -1 all, 0 none
  double seconds = 0.0;        // advance
  U32 version = 0;             // debug
  std::string on, attribute;   // set: "engine", "sm" or empty, and the attribute's name
  Ostra::Value value;          // set
  U64 key() const { return entry.key().value(); }
};

struct Scenario {
  EngineChoice engine;
  std::vector<Step> steps;
};

// Make single steps, for tests and generators.
Step put(Vantrel::EntryConfig const& entry, bool quiet = false);
Step remove(U64 key, bool quiet = false);
Step notify(U64 key);
Step walk();
Step fail(U64 key, std::int64_t times);
Step advance(double seconds);
Step set(std::string attribute, Ostra::Value value, std::string on = "");
Step debug(U32 version);
Step show();
Step cleanup();
// One record with one position and no data.
Vantrel::EntryConfig record(U64 key, U64 opId, U32 hdl, U16 pg, U32 prio, U32 ti);

using Line = std::variant<EngineChoice, Step>;
// Throws ScenarioError. The caller must check whether an engine line is allowed here.
Line parseLine(std::string_view line);
// Throws ScenarioError that begins with "NAME:LINE: ".
Scenario parseScenario(std::string_view name, std::string_view text);
std::string print(EngineChoice const& engine);
std::string print(Step const& step);
std::string print(Scenario const& scenario);

enum class EventKind : U8 { Add, Update, Move, Delete, DeleteDeadlock, Status, StatusDel, Flush };

// One call that reached the hardware client or the status table; a status carries its key and opId in
// `entry`.
struct Event {
  EventKind kind;
  Vantrel::EntryConfig entry;
  friend bool operator==(Event const&, Event const&) = default;
};

// What the debug output holds.
struct Snapshot {
  U32 version = 0;
  std::map<U32, U64> pending;      // position waited for -> key
  std::map<U64, U64> pendingOpId;  // waiting key -> the version it waits with
  std::map<U32, U64> status;       // position programmed -> key
  std::map<U64, U64> statusOpId;   // programmed key -> the version in hardware
  friend bool operator==(Snapshot const&, Snapshot const&) = default;
};

struct Counters {
  U32 tableCounter = 0;
  U32 flushCounter = 0;
  bool initialFlushed = false;
  bool retryTimerSet = false;
  std::vector<U64> failedKey;
  U64 failedDepCnt = 0;
  U32 numPending = 0;
  U32 numDeadlock = 0;
  U32 numMixedRings = 0;
  friend bool operator==(Counters const&, Counters const&) = default;
};

// One ring-buffer trace record: the text up to its first value, and all values, the engine's identifier
// first.
struct TraceRecord {
  std::string message;
  std::vector<U64> values;
};

std::string printInput(U64 line);
std::string print(Event const& event);
std::string print(Snapshot const& snapshot);
std::string print(Counters const& counters);
std::string print(TraceRecord const& record);

}  // namespace Testing
