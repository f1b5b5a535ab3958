// SPDX-License-Identifier: Apache-2.0
// Hardware that outlives its agents, and agents that adopt what it holds: for tests.
//
//   OutlivingDriver: [ contents ] --contents()--> Agent 1 ... killed at call 7
//                         '----------contents()--> Agent 2 ...
//
// Invariants: a key that is held and wanted with the same group and priority is not absent while an agent
//   runs, but for the victim of a ring; what breaks that is kept in hardware.broken().
// Ownership: an agent refers to the driver; of two agents the first must be gone.
// Threading: one thread.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "hw/adoption.h"
#include "keel/virtual_wheel.h"
#include "shoal/local_table.h"
#include "tests/hw/true_hardware.h"
#include "vantrel/vantrel.h"

namespace TestHw {

using Config = Shoal::LocalTable<EntryConfig>;
using Status = Shoal::LocalTable<Vantrel::EntryStatus>;

class OutlivingDriver : public Hw::Driver {
 public:
  explicit OutlivingDriver(U32 size) : hardware(size) {}

  Hw::Outcome write(EntryConfig const& entry, U32 ti, U64 token) override;
  Hw::Outcome erase(EntryKey const& key, U32 ti, U64 token) override;
  std::size_t mostAtOnce() const override { return most; }
  std::optional<std::optional<Hw::Held>> readBack(U32 ti) override;
  void contents(Visitor const& visit) override;
  // Completes a late call. One that the hardware's death left unanswered is carried out or not.
  void completeOne(std::size_t which);
  void carryOutLate(std::size_t which);
  std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

  TrueHardware hardware;
  std::set<U32> unreadable;
  std::set<EntryKey> staying;      // keys that must not become absent
  std::vector<std::string> calls;  // that arrived alive
  U64 arrived = 0;                 // their number
  U64 diesAt = 0;                  // the number of the first call that it does not live to do; 0: it lives
  std::size_t most = 1;
  bool isLate = false;
  bool readsBack = false;
  // What comes of a call; null: it is done.
  std::function<Hw::Outcome::Kind()> mood;

  struct Call {
    EntryKey key;
    U32 ti;
    std::optional<EntryConfig> entry;  // of a write
    U64 token;
  };
  std::vector<Call> late;

 private:
  Hw::Outcome answer(Call call);
  void carryOut(Call const& call);
  unsigned unknown_ = 0;
};

class Agent {
 public:
  Agent(Ostra::Ptr<Config> config, OutlivingDriver& driver);
  // Killed: hardware stays as it is.
  ~Agent();

  // Adopts, and reads the table.
  Hw::Adopted start(std::function<bool(EntryConfig const&)> const& fits = nullptr);
  Hw::Adopted adopt(std::function<bool(EntryConfig const&)> const& fits = nullptr);
  void readTable(std::vector<EntryKey> const& unwanted);
  bool isSettled() const { return executor_->behind() == 0 && driver_.late.empty(); }
  OpId acknowledged(EntryKey const& key) const { return status_->entry(key).opId(); }

  Vantrel::FastVantrelImpl& engine() { return *engine_; }
  Hw::Executor& executor() { return *executor_; }
  Keel::VirtualWheel& wheel() { return *wheel_; }
  U64 victims() const { return executor_->calls().deadlockDeletes; }

 private:
  class VictimsMayGo;
  OutlivingDriver& driver_;
  Ostra::Ptr<Keel::VirtualWheel> const wheel_ = Ostra::make<Keel::VirtualWheel>(100.0);
  Ostra::Ptr<Config> const config_;
  Ostra::Ptr<Status> const status_ = Ostra::make<Status>();
  Ostra::Ptr<Hw::Executor> const executor_;
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine_;
  Ostra::Ptr<Vantrel::VantrelSm> frontEnd_;
};

}  // namespace TestHw
