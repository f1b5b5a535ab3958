// SPDX-License-Identifier: Apache-2.0
// World: a real front end and a real engine in one process, with a configuration table and a status table in
// memory, a clock that stands still until it is moved, a hardware client that only reports its calls, and
// dependant tables that fail on request. Dry runs, differential tests, fuzzers and the shrinker run on it.
//
// Invariants: the hardware client writes no status: each reported status was written by its base class.
// Ownership: owns all of it; the listener is the caller's and outlives the world.
// Threading: one world at a time in a process: while it lives it is the process's clock and its trace log.
// Errors: ScenarioError from check(), for a step that is wrong for this engine.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <memory>
#include <span>
#include <string_view>

#include "keel/virtual_wheel.h"
#include "lumelog/tap.h"
#include "ostra/type_info.h"
#include "shoal/local_table.h"
#include "testing/scenario.h"
#include "vantrel/vantrel.h"

namespace Testing {

// How many of the next attempts to program a key's dependants fail.
class Failures {
 public:
  void timesIs(U64 key, std::int64_t times);
  // Counts one attempt. Returns whether it succeeds.
  bool attempt(U64 key);
  // How many of the key's next attempts fail; -1 all.
  std::int64_t times(U64 key) const {
    auto const at = times_.find(key);
    return at == times_.end() ? 0 : at->second;
  }
  void clear() { times_.clear(); }

 private:
  boost::unordered_flat_map<U64, std::int64_t> times_;
};

class World {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // Called from inside the engine's call.
    virtual void onEvent(EventKind kind, Vantrel::EntryConfig const& entry) = 0;
    // A ring-buffer record: its text with % where values stand, and all values, the engine's identifier
    // first.
    virtual void onTrace(std::string_view text, std::span<U64 const> values) {
      static_cast<void>(text);
      static_cast<void>(values);
    }
  };

  enum class Trace : U8 { Off, On };

  // The listener is called for what creating the front end does, before this returns. While the world lives
  // the process's trace records go to the listener with Trace::On, and nowhere otherwise.
  World(EngineChoice const& choice, Listener& listener, Trace trace);
  World(World const&) = delete;
  World& operator=(World const&) = delete;
  ~World();

  // Throws for a step that sets an unknown attribute. Unlike in a running agent, every writable attribute
  // may be set.
  void check(Step const& step) const;
  void run(Step const& step);

  Snapshot snapshot() const;
  Counters counters() const;

  // Null after a cleanup.
  Ostra::Ptr<Vantrel::FastVantrelImpl> const& engine() const { return engine_; }
  Ostra::Ptr<Vantrel::VantrelSm> const& frontEnd() const { return frontEnd_; }
  Shoal::LocalTable<Vantrel::EntryConfig> const& table() const { return *table_; }
  Shoal::LocalTable<Vantrel::EntryStatus> const& statuses() const;
  Keel::VirtualWheel const& wheel() const { return *wheel_; }
  Failures& failures() { return failures_; }
  Failures const& failures() const { return failures_; }

 private:
  class Client;
  class Statuses;
  template <class Engine>
  class Dependants;

  void makeEngine(EngineChoice const& choice);
  void runPut(Step const& step);
  void runRemove(Step const& step);
  struct Target {
    Ostra::Described* object;
    Ostra::Attribute const* attribute;
  };
  Target target(Step const& step) const;
  void cleanUp();

  Listener& listener_;
  std::unique_ptr<Lumelog::Log> log_;
  Lumelog::Log* const previousLog_;
  bool muted_ = false;
  Failures failures_;
  Ostra::Ptr<Keel::VirtualWheel> wheel_;
  Ostra::Ptr<Shoal::LocalTable<Vantrel::EntryConfig>> table_;
  Ostra::Ptr<Statuses> statuses_;
  Ostra::Ptr<Client> client_;
  Ostra::Ptr<Vantrel::DebugConfig> debugConfig_;
  Ostra::Ptr<Vantrel::DebugStatus> debugStatus_;
  Ostra::Ptr<Vantrel::VantrelFlushStatus> flushStatus_;
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine_;
  Ostra::Ptr<Vantrel::VantrelSm> frontEnd_;
};

}  // namespace Testing
