// SPDX-License-Identifier: Apache-2.0
// SimulatedTcam as a driver. A call is judged when it is carried out, which may be later; what it does to the
// row goes into the file first, because that can fail.
#include <fmt/format.h>

#include <exception>
#include <utility>

#include "hw/contents_file.h"
#include "hw/simulated_tcam.h"
#include "ostra/clock.h"
#include "ostra/exception.h"
#include "ostra/piecewise_map.h"

namespace Hw {

using Kind = Outcome::Kind;

class VANTREL_LOCAL SimulatedTcam::Alarm : public Keel::TimerWheel::Notifiee {
 public:
  Alarm(SimulatedTcam& tcam, Ostra::Ptr<Keel::TimerWheel const> wheel) : tcam_(tcam) {
    notifierIs(std::move(wheel));
    hasNotificationActiveIs(true);
  }
  void onTime() override { tcam_.complete(); }

 private:
  SimulatedTcam& tcam_;
};

SimulatedTcam::SimulatedTcam(std::string name, Ostra::Ptr<Vantrel::TableStatus> tableStatus, U32 size)
    : VantrelHelper(std::move(name), std::move(tableStatus)),
      size_(size),
      mood_{.capacity = size},
      entries_(std::make_unique<Ostra::PiecewiseMap<EntryKey, Entry>>()),
      wheel_(Ostra::make<Keel::TimerfdWheel>()),
      alarm_(std::make_unique<Alarm>(*this, wheel_)) {
  violationHandlerIs(nullptr);
}

SimulatedTcam::~SimulatedTcam() = default;

void SimulatedTcam::latencyIs(U32 us) {
  addLatencyIs(us);
  updateLatencyIs(us);
  moveLatencyIs(us);
  deleteLatencyIs(us);
}

void SimulatedTcam::rateIs(std::string_view name, double& rate, double share) {
  if (!(share >= 0 && share <= 1))
    throw Ostra::AttributeException(fmt::format("{}: expected a share from 0 to 1, found {}", name, share));
  scalarIs(name, rate, share, &Notifiee::onMood);
}

Outcome SimulatedTcam::write(EntryConfig const& entry, U32 ti, U64 token) {
  return answer(token, latencyOfWrite(entry.key(), ti), {entry.key(), ti, &entry});
}

// The erase that ends a move takes no time.
Outcome SimulatedTcam::erase(EntryKey const& key, U32 ti, U64 token) {
  return answer(token, leaving_.contains(key) ? 0 : latency_.del, {key, ti, nullptr});
}

U32 SimulatedTcam::latencyOfWrite(EntryKey const& key, U32 ti) const {
  if ((latency_.add | latency_.update | latency_.move) == 0) return 0;
  auto const known = entries_->find(key);
  if (known == entries_->end()) return latency_.add;
  return known->second.ti == ti ? latency_.update : latency_.move;
}

Outcome SimulatedTcam::answer(U64 token, U32 us, Step const& step) {
  countOne("writes", count_.writes);
  if (isDead()) return {Kind::Later, ""};
  Kind const kind = draw();
  if (us == 0) return carryOut(kind, step);
  Late& late = late_.emplace(Ostra::now() + us * 1e-6, Late{token, kind, step, {}})->second;
  if (step.entry) late.step.entry = &late.kept.emplace(*step.entry);
  alarm_->timeMinIs(late_.begin()->first);
  return {Kind::Later, ""};
}

Kind SimulatedTcam::draw() {
  if (mood_.busy + mood_.refused + mood_.unknown == 0) return Kind::Done;
  double const at = std::uniform_real_distribution<>(0, 1)(random_);
  if (at < mood_.busy) return Kind::Again;
  if (at < mood_.busy + mood_.refused) return Kind::Refused;
  return at < mood_.busy + mood_.refused + mood_.unknown ? Kind::Unknown : Kind::Done;
}

Outcome SimulatedTcam::carryOut(Kind kind, Step const& step) try {
  switch (kind) {
    case Kind::Again:
      return {kind, "the bus is busy"};
    case Kind::Refused:
      return {kind, "the entry cannot be expressed"};
    case Kind::Unknown:
      if (std::bernoulli_distribution()(random_)) stepNow(step);
      return {kind, "no answer in time"};
    default:
      return stepNow(step);
  }
} catch (Shoal::NoSpaceException const& full) {
  return {Kind::Again, full.what()};
}

void SimulatedTcam::complete() {
  while (!late_.empty() && late_.begin()->first <= Ostra::now() && !isDead()) {
    auto const done = late_.extract(late_.begin());  // the entry stays where it is
    completed(done.mapped().token, carryOut(done.mapped().kind, done.mapped().step));
  }
  if (!late_.empty() && !isDead()) alarm_->timeMinIs(late_.begin()->first);
}

Outcome SimulatedTcam::stepNow(Step const& step) {
  return step.entry ? writeNow(*step.entry, step.ti) : eraseNow(step.key, step.ti);
}

Outcome SimulatedTcam::writeNow(EntryConfig const& entry, U32 ti) {
  auto const known = entries_->find(entry.key());
  if (known != entries_->end() && known->second.ti == ti) {
    if (file_) file_->holds(ti, entry);
    countOne("updates", count_.updates);
    known->second.opId = entry.opId();
    return {};
  }
  if (positions_.size() >= mood_.capacity)
    return {Kind::Refused, fmt::format("the hardware is full: it holds {} entries", positions_.size())};
  if (unreadable_.contains(ti) || !isFree("write", entry.key(), ti)) return {};
  if (known != entries_->end())
    moveNow(known->second, entry, ti);
  else
    addNow(entry, ti);
  return {};
}

void SimulatedTcam::addNow(EntryConfig const& record, U32 ti) {
  if (file_) file_->holds(ti, record);
  countOne("adds", count_.adds);
  (*entries_)[record.key()] = {record.key(), record.opId(), record.pg(), record.prio(), ti};
  auto const here = order_.try_emplace({record.pg(), ti}, record.prio()).first;
  memberIs("positions", positions_, ti, record.key(), &Notifiee::onPosition);
  checkOrder("write", here);
}

void SimulatedTcam::moveNow(Entry& entry, EntryConfig const& record, U32 ti) {
  if (auto const old = leaving_.find(entry.key); old != leaving_.end()) {
    broken(Rule::KeyAbsent,
           fmt::format("write at {}: {} is at position {} too", ti, describe(entry), old->second.ti));
    return;
  }
  if (file_) file_->holds(ti, record);
  countOne("moves", count_.moves);
  leaving_.emplace(entry.key, entry);
  entry.ti = ti;
  entry.opId = record.opId();
  auto const here = order_.try_emplace({entry.pg, ti}, entry.prio).first;
  memberIs("positions", positions_, ti, entry.key, &Notifiee::onPosition);
  checkOrder("write", here);
}

Outcome SimulatedTcam::eraseNow(EntryKey const& key, U32 ti) {
  auto const holder = positions_.find(ti);
  if (holder != positions_.end() && holder->second != key) {
    broken(Rule::PositionOfEntry,
           fmt::format("erase of key {} at {}: {}", key.value(), ti, describe(*at(ti))));
    return {};
  }
  if (file_) file_->isFree(ti);
  unreadable_.erase(ti);
  if (holder != positions_.end()) forget(key, ti);
  return {};
}

// A key that is at two positions stays at the other one.
void SimulatedTcam::forget(EntryKey const& key, U32 ti) {
  auto const old = leaving_.find(key);
  auto const known = entries_->find(key);
  order_.erase({known->second.pg, ti});
  if (old == leaving_.end()) {
    countOne("deletes", count_.deletes);
    entries_->erase(known);
  } else {
    if (known->second.ti == ti) known->second = old->second;
    leaving_.erase(old);
  }
  memberDel("positions", positions_, ti, &Notifiee::onPosition);
}

std::optional<std::optional<Held>> SimulatedTcam::readBack(U32 ti) {
  auto const held = at(ti);
  return held ? std::optional(Held{held->key, held->opId}) : std::optional<Held>();
}

U64 SimulatedTcam::contentsFileIs(std::string const& path) {
  file_ = std::make_unique<ContentsFile>(path);
  std::set<U32> beyond;
  file_->each([&](U32 ti, EntryConfig const* entry) {
    if (ti >= size_)
      beyond.insert(ti);
    else if (!entry || !inherit({entry->key(), entry->opId(), entry->pg(), entry->prio(), ti}))
      unreadable_.insert(ti);
  });
  for (U32 const ti : beyond) file_->isFree(ti);
  return beyond.size();
}

// False for a key that is at two positions already, as only a damaged file has it.
bool SimulatedTcam::inherit(Entry const& held) {
  if (!entries_->try_emplace(held.key, held).second && !leaving_.emplace(held.key, held).second) return false;
  positions_.emplace(held.ti, held.key);
  order_.emplace(std::pair(held.pg, held.ti), held.prio);
  return true;
}

void SimulatedTcam::contents(Visitor const& visit) {
  if (!file_) return;
  file_->each(
      [&](U32 ti, EntryConfig const* entry) { visit(ti, unreadable_.contains(ti) ? nullptr : entry); });
}

}  // namespace Hw
