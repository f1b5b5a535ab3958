// SPDX-License-Identifier: Apache-2.0
// Hardware: the agent's back end. The engine calls an executor, which makes a driver follow:
//
//   engine --> Hw::Executor --> Hw::SimulatedTcam (--hw sim), NullHardware (--hw null),
//                               or Hw::XdpTcam (--hw xdp:INTERFACE)
//
// Ownership: holds references to the status table; refers to the log.
// Threading: the agent's event loop, which polls fds().
// Errors: the constructor throws what prevents a start: a --sim-state file that is no such file, or is used
//   by another agent.
#pragma once

#include <array>
#include <string>

#include "apps/vantreld/log.h"
#include "apps/vantreld/options.h"
#include "apps/vantreld/validator.h"
#include "hw/adoption.h"
#include "hw/simulated_tcam.h"
#include "keel/timerfd_wheel.h"
#include "ostra/publish.h"

namespace Vantreld {

// Programs nothing, does that at once, and does not have it acknowledged.
class NullHardware final : public Ostra::Entity, public Hw::Driver {
 public:
  class Notifiee : public Ostra::NotifieeOf<NullHardware const> {
   public:
    virtual void onWrites() {}
  };
  NullHardware() : Entity("hardware") {}
  U64 writes() const { return writes_; }

  Hw::Outcome write(Vantrel::EntryConfig const&, U32, U64) override { return done(); }
  Hw::Outcome erase(Vantrel::EntryKey const&, U32, U64) override { return done(); }

  bool acknowledges() const override { return false; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  Hw::Outcome done() {
    scalarIs("writes", writes_, writes_ + 1, &Notifiee::onWrites);
    return {};
  }
  U64 writes_ = 0;
};

class Hardware {
 public:
  Hardware(Options const& options, Ostra::Ptr<Vantrel::TableStatus> status, Log& err);
  ~Hardware();
  Hardware(Hardware const&) = delete;
  Hardware& operator=(Hardware const&) = delete;

  // What the engine calls.
  Ostra::Ptr<Hw::Executor> const& executor() const { return executor_; }
  void publish(Ostra::Publisher& publisher) const;

  // Readable when late calls are completed, or are to be tried again; dispatch() does it.
  std::array<int, 2> fds() const;
  void dispatch();
  // Waits for that, for some milliseconds at most, and does it.
  void wait();
  // So much is queued that the engine must wait.
  bool isCrowded() const { return executor_->behind() >= mostBehind; }
  bool isRelaxed() const { return executor_->behind() <= mostBehind / 2; }

  // What hardware holds from an earlier run is shown to the engine, once.
  void adopt(Vantrel::FastVantrelImpl& engine, Vantrel::TableConfig const& wanted,
             Validator const& validator);
  // Its entries that the table does not have. Empties the list.
  std::vector<Vantrel::EntryKey> unwanted() { return std::exchange(adopted_.unwanted, {}); }
  Hw::Adopted const& adopted() const { return adopted_; }
  // When adopt() was cut short: what it left is erased.
  void eraseRest();

  // What it was asked to do, and what it holds. Empty but with --hw sim.
  std::string summary() const;
  U64 violations() const { return sim_ ? sim_->violations() : 0; }

 private:
  static constexpr U64 mostBehind = 256;
  class Watcher;

  void makeDriver(Options const& options);
  void makeSimulated(Options const& options);
  void takeState(std::string const& path);

  Log& err_;
  Ostra::Ptr<Hw::SimulatedTcam> sim_;  // null but with --hw sim
  Ostra::Ptr<Ostra::Entity> entity_;   // what is published: that, or the one that takes its place
  Hw::Driver* driver_ = nullptr;       // the same object
  Ostra::Ptr<Keel::TimerfdWheel> const wheel_;
  Ostra::Ptr<Hw::Executor> executor_;
  std::unique_ptr<Watcher> watcher_;
  bool adoptionBegan_ = false;
  Hw::Adopted adopted_;
};

}  // namespace Vantreld
