// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/hardware.h"

#include <fmt/format.h>
#include <poll.h>

#include <stdexcept>

#include "apps/vantreld/xdp_hardware.h"
#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"
#include "shoal/error.h"

namespace Vantreld {
namespace {

constexpr int longestWaitMs = 2;

}  // namespace

Ostra::TypeInfo const& NullHardware::staticType() {
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<NullHardware>("Vantreld::NullHardware").attribute("writes", &NullHardware::writes);
  return type;
}

// Says what goes wrong.
class Hardware::Watcher : public Hw::Executor::Notifiee {
 public:
  Watcher(Ostra::Ptr<Hw::Executor const> executor, Log& err) : err_(err) {
    notifierIs(std::move(executor));
    hasNotificationActiveIs(true);
  }
  void onProblem() override { err_.provoked("hardware: {}", notifier()->problem()); }
  void onFailed(Vantrel::EntryKey const& key) override {
    auto const at = notifier()->failed().find(key);
    if (at != notifier()->failed().end())
      err_.provoked("key {} is refused by the hardware: {}", key.value(), at->second);
  }

 private:
  Log& err_;
};

Hardware::Hardware(Options const& options, Ostra::Ptr<Vantrel::TableStatus> status, Log& err)
    : err_(err), wheel_(Ostra::make<Keel::TimerfdWheel>()) {
  makeDriver(options);
  executor_ = Ostra::make<Hw::Executor>("executor", std::move(status), *driver_, wheel_);
  watcher_ = std::make_unique<Watcher>(executor_, err_);
}

Hardware::~Hardware() = default;

void Hardware::makeDriver(Options const& options) {
  if (options.hardware == HardwareKind::Xdp) {
    auto const xdp = makeXdp(options.xdp);
    entity_ = xdp.entity;
    driver_ = xdp.driver;
  } else if (options.hardware == HardwareKind::Sim) {
    makeSimulated(options);
    entity_ = sim_;
    driver_ = &*sim_;
  } else {
    auto const null = Ostra::make<NullHardware>();
    entity_ = null;
    driver_ = &*null;
  }
}

void Hardware::makeSimulated(Options const& options) {
  SimOptions const& o = options.sim;
  sim_ = Ostra::make<Hw::SimulatedTcam>("hardware", nullptr, options.size);
  sim_->violationHandlerIs([this](Hw::Violation const& v) { err_.provoked("VIOLATION: {}", v.what()); });
  sim_->latencyIs(o.latencyUs);
  sim_->busyRateIs(o.busy);
  sim_->refusedRateIs(o.refused);
  sim_->unknownRateIs(o.unknown);
  if (o.capacity != 0) sim_->capacityIs(o.capacity);
  sim_->diesAtIs(o.diesAt);
  sim_->atOnceIs(o.atOnce);
  if (!o.state.empty()) takeState(o.state);
}

void Hardware::takeState(std::string const& path) try {
  U64 const beyond = sim_->contentsFileIs(path);
  if (beyond != 0)
    err_.say("{}: {} entries lay beyond position {} and are gone", path, beyond, sim_->size() - 1);
} catch (Shoal::WriterLockedException const& e) {
  throw std::runtime_error(fmt::format("--sim-state: {}; give each agent a file of its own", e.what()));
} catch (Shoal::FileException const& e) {
  throw std::runtime_error(
      fmt::format("--sim-state: {}; give the file of an earlier run, or a name that is not taken", e.what()));
}

void Hardware::publish(Ostra::Publisher& publisher) const {
  publisher.exportObject("hardware", entity_);
  publisher.exportObject("executor", executor_);
}

std::array<int, 2> Hardware::fds() const { return {wheel_->fd(), sim_ ? sim_->fd() : -1}; }

void Hardware::dispatch() {
  if (sim_) sim_->dispatch();
  wheel_->dispatch();
}

void Hardware::wait() {
  auto const watched = fds();
  std::array<pollfd, 2> ready{{{watched[0], POLLIN, 0}, {watched[1], POLLIN, 0}}};
  ::poll(ready.data(), ready.size(), longestWaitMs);
  dispatch();
}

void Hardware::adopt(Vantrel::FastVantrelImpl& engine, Vantrel::TableConfig const& wanted,
                     Validator const& validator) {
  if (std::exchange(adoptionBegan_, true)) return;
  adopted_ = Hw::adopt(engine, *executor_, *driver_, wanted,
                       [&](Vantrel::EntryConfig const& entry) { return !validator.fault(entry); });
}

void Hardware::eraseRest() {
  if (adoptionBegan_) executor_->eraseInherited();
}

std::string Hardware::summary() const {
  if (!sim_) return "";
  Hw::Executor::Calls const& calls = executor_->calls();
  return fmt::format(
      "{} adds, {} updates, {} moves, {} deletes, {} deletes to break rings, {} flushes, {} violations; "
      "entries left: {}",
      calls.adds, calls.updates, calls.moves, calls.deletes, calls.deadlockDeletes, calls.flushes,
      sim_->violations(), sim_->entries());
}

}  // namespace Vantreld
