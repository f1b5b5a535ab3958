// SPDX-License-Identifier: Apache-2.0
#include "tests/hw/outliving.h"

#include <fmt/format.h>

namespace TestHw {

using Hw::Outcome;
using Kind = Hw::Outcome::Kind;

Outcome OutlivingDriver::write(EntryConfig const& entry, U32 ti, U64 token) {
  return answer({entry.key(), ti, entry, token});
}

Outcome OutlivingDriver::erase(EntryKey const& key, U32 ti, U64 token) {
  return answer({key, ti, {}, token});
}

Outcome OutlivingDriver::answer(Call call) {
  if (diesAt != 0 && arrived + 1 >= diesAt) return {Kind::Later, ""};
  ++arrived;
  calls.push_back(fmt::format("{} {}@{}", call.entry ? "write" : "erase", call.key.value(), call.ti));
  Kind const kind = mood ? mood() : Kind::Done;
  if (kind == Kind::Unknown && unknown_++ % 2 != 0) carryOut(call);  // not the first time
  if (kind != Kind::Done) return {kind, "a mood"};
  if (isLate) {
    late.push_back(std::move(call));
    return {Kind::Later, ""};
  }
  carryOut(call);
  return {};
}

void OutlivingDriver::completeOne(std::size_t which) {
  U64 const token = late.at(which).token;
  carryOutLate(which);
  completed(token, {});
}

void OutlivingDriver::carryOutLate(std::size_t which) {
  Call const call = late.at(which);
  late.erase(late.begin() + static_cast<std::ptrdiff_t>(which));
  carryOut(call);
}

void OutlivingDriver::carryOut(Call const& call) {
  if (call.entry) {
    if (unreadable.contains(call.ti)) hardware.brokenIs(fmt::format("write at {}, not erased yet", call.ti));
    return hardware.write(*call.entry, call.ti);
  }
  if (unreadable.erase(call.ti) != 0) return hardware.put(call.ti, {});
  bool const before = hardware.holds(call.key);
  hardware.erase(call.key, call.ti);
  if (before && !hardware.holds(call.key) && staying.contains(call.key))
    hardware.brokenIs(fmt::format("key {} is wanted, and is absent", call.key.value()));
}

std::optional<std::optional<Hw::Held>> OutlivingDriver::readBack(U32 ti) {
  if (!readsBack) return std::nullopt;
  auto const& there = hardware.at(ti);
  return there ? std::optional(Hw::Held{there->key(), there->opId()}) : std::optional<Hw::Held>();
}

void OutlivingDriver::contents(Visitor const& visit) {
  for (U32 ti = 0; ti < hardware.size(); ++ti) {
    if (unreadable.contains(ti))
      visit(ti, nullptr);
    else if (auto const& entry = hardware.at(ti))
      visit(ti, &*entry);
  }
}

class Agent::VictimsMayGo : public Hw::Executor {
 public:
  VictimsMayGo(Ostra::Ptr<Status> status, OutlivingDriver& driver, Ostra::Ptr<Keel::TimerWheel const> wheel)
      : Executor("executor", std::move(status), driver, std::move(wheel)), driver_(driver) {}
  void deleteEntryDeadlock(EntryConfig const& record) override {
    driver_.staying.erase(record.key());
    Executor::deleteEntryDeadlock(record);
  }

 private:
  OutlivingDriver& driver_;
};

Agent::Agent(Ostra::Ptr<Config> config, OutlivingDriver& driver)
    : driver_(driver),
      config_(std::move(config)),
      executor_(Ostra::make<VictimsMayGo>(status_, driver, wheel_)),
      engine_(Ostra::make<Vantrel::FastVantrelImpl>("engine", config_, nullptr, nullptr, executor_, 1U)) {
  driver_.staying.clear();
  for (U32 ti = 0; ti < driver.hardware.size(); ++ti) {
    auto const& held = driver.hardware.at(ti);
    if (!held || driver.unreadable.contains(ti)) continue;
    EntryConfig const wanted = config_->entry(held->key());
    if (!wanted.empty() && !wanted.isDel() && wanted.pg() == held->pg() && wanted.prio() == held->prio())
      driver.staying.insert(held->key());
  }
}

Agent::~Agent() {
  executor_->detach();
  frontEnd_ = nullptr;
  engine_ = nullptr;
}

Hw::Adopted Agent::adopt(std::function<bool(EntryConfig const&)> const& fits) {
  return Hw::adopt(*engine_, *executor_, driver_, *config_, fits);
}

void Agent::readTable(std::vector<EntryKey> const& unwanted) {
  frontEnd_ = vantrelSmFactory(config_, status_, nullptr, nullptr, engine_, nullptr, wheel_);
  for (EntryKey const& key : unwanted) frontEnd_->handleEntry(key);
}

Hw::Adopted Agent::start(std::function<bool(EntryConfig const&)> const& fits) {
  Hw::Adopted adopted = adopt(fits);
  readTable(adopted.unwanted);
  return adopted;
}

}  // namespace TestHw
