// SPDX-License-Identifier: Apache-2.0
// The queue and its rules.
//
//   queue:   move 3 5->6   | add 7@5     | add 9@8          add 7 waits: 3 is not gone from position 5 yet.
//            write done,   | (waits)     | (under way)      add 9 overtook: it agrees with 3 at 5, whose
//            erase again   |             |                  priority is less
//
// A call is a write, an erase, or both in this order, and then what its key's status becomes. It leaves the
// queue with its last step.
#include "hw/executor.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cmath>
#include <exception>
#include <list>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>

#include "ostra/clock.h"
#include "ostra/piecewise_map.h"
#include "ostra/time_slice.h"
#include "ostra/type_info.h"
#include "vantrel/core/probe.h"

namespace Hw {

using Vantrel::DataKey;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;
using Vantrel::TableKey;

namespace {

constexpr U32 nowhere = Vantrel::VantrelHelper::Programmed::nowhere;
// The first pause before a call is made again, and the longest, seconds.
constexpr double firstPause = 0.001;
constexpr double longestPause = 1.0;
// How long the loop is held by acknowledgements that can be written at last.
constexpr double sliceSeconds = 0.002;

U32 positionOf(EntryConfig const& record) { return record.tableIndex(TableKey(0)); }

// What the engine believes of a key: where it is, and what its order is judged by.
struct Place {
  U32 ti = nowhere;
  U32 prio = 0;
  U16 pg = 0;
  bool isUnknown = false;  // nobody knows its group and priority

  Place at(U32 other) const { return {other, prio, pg, isUnknown}; }
};

struct Call {
  // What becomes of the key's status in the end.
  enum class Status { Stays, Is, Goes };

  EntryKey key;
  Place order;                         // the key's, for rule 2
  EntryConfig const* entry = nullptr;  // what is to be written
  U32 to = nowhere;                    // where; nowhere: it is done, or nothing is to be written
  U32 from = nowhere;                  // what is to be erased; likewise
  Status status = Status::Stays;
  OpId opId;                 // the status
  bool isUnchanged = false;  // nothing is to be written at `order`, unless the key was refused
  bool endsKey = false;      // the engine knows the key no longer

  bool isDone() const { return to == nowhere && from == nowhere; }
  bool isWrite() const { return to != nowhere; }
  U32 position() const { return isWrite() ? to : from; }
};

// A call in the queue.
struct Queued : Call {
  explicit Queued(Call const& call) : Call(call) {}

  U64 token = 0;                    // not 0: a step is under way
  unsigned tries = 0;               // of the step at hand
  double notBefore = 0;             // when it may be tried again
  std::optional<EntryConfig> kept;  // the entry

  void nextStep() {
    (isWrite() ? to : from) = nowhere;
    tries = 0;
  }
};

std::string describe(Call const& call) {
  return fmt::format("{} of key {} at position {}", call.isWrite() ? "write" : "erase", call.key.value(),
                     call.position());
}

// The two would be out of order, one at `a`'s position and one at `ti`.
bool contradict(Place const& a, Place const& b, U32 ti) {
  if (a.isUnknown) return true;
  if (a.pg != b.pg) return false;
  return a.ti < ti ? a.prio > b.prio : a.prio < b.prio;
}

}  // namespace

class VANTREL_LOCAL Executor::Queue : public Keel::TimerWheel::Notifiee {
 public:
  Queue(Executor& executor, Driver& driver, Ostra::Ptr<Keel::TimerWheel const> wheel);
  ~Queue() override { driver_.completedIs(nullptr); }

  // False when hardware holds the entry from an earlier run.
  bool add(EntryConfig const& entry);
  void update(EntryConfig const& entry);
  void move(EntryConfig const& entry);
  void remove(EntryConfig const& record);
  void acknowledge(EntryKey const& key, OpId const& opId);
  void take(Call const& call);
  void flush();
  void inherit(U32 ti, EntryConfig const* entry);
  U64 eraseInherited();
  void detach();
  bool isDetached() const { return detached_; }
  void onTime() override;

 private:
  Place programmed(char const* call, EntryKey const& key) const;
  bool takeOver(EntryConfig const& entry, U32 ti);
  // What becomes of a key's status when hardware did what it was asked for.
  Call::Status done() const { return acknowledges_ ? Call::Status::Is : Call::Status::Stays; }
  // No call is queued, and no key is owed anything.
  bool isQuiet() const {
    return queue_.empty() && refused_.empty() && unwritten_.empty() && leftThere_.empty();
  }
  void enqueue(Call const& call, Outcome const* outcome = nullptr);
  bool advance(Queued& call);
  bool hasTime(Queued const& call) const;
  bool isOwed(Call const& call) const;
  void writeRefused(Queued& call);
  bool mayBegin(Queued const& call) const;
  void begin(Queued& call);
  void isBegun(Queued& call, Outcome const& outcome);
  Outcome write(EntryConfig const& entry, U32 ti);
  Outcome erase(EntryKey const& key, U32 ti);
  void settle(Queued& call, Outcome const& outcome);
  void stepIsDone(Queued& call);
  void leaveOut(Queued& call, std::string const& reason);
  bool wasDone(Call const& call, Outcome const& outcome);
  bool wasLeftThere(EntryConfig const& entry) const;
  std::optional<std::optional<Held>> readBack(U32 ti);
  void tryAgain(Queued& call, Outcome const& outcome);
  void end(Call const& call);
  void statusIs(Call const& call);
  void completed(U64 token, Outcome const& outcome);
  void pass();
  void flushWhenDone();
  bool writeStatus(EntryKey const& key, Call::Status status, OpId const& opId);
  void writeStatuses();
  double pause(unsigned tries);
  void rearm();
  void problemIs(std::string const& problem);
  void countersAre();
  void failedIs(EntryConfig const& entry, std::string const& reason);
  void failedDel(EntryKey const& key);

  Executor& executor_;
  Driver& driver_;
  bool const acknowledges_;
  struct Inherited {
    EntryKey key;
    OpId opId;
    Place order;
  };
  boost::unordered_flat_map<U32, Inherited> inherited_;  // by position
  // Adopted as another version than an earlier run left there, which is this one, and not written since.
  boost::unordered_flat_map<U64, OpId> leftThere_;  // by key
  std::list<Queued> queue_;
  struct Unwritten {
    Call::Status status;
    OpId opId;
    bool operator==(Unwritten const&) const = default;
  };
  std::map<EntryKey, Unwritten> unwritten_;  // the newest of each key
  std::map<EntryKey, EntryConfig> refused_;
  std::size_t underWay_ = 0;
  U64 lastToken_ = 0;
  bool flushOwed_ = false;
  unsigned flushTries_ = 0;
  double flushNotBefore_ = 0;
  bool detached_ = false;
  double now_ = 0;  // when the queue was last looked through
  unsigned statusTries_ = 0;
  double statusNotBefore_ = 0;
  std::minstd_rand random_;
};

Executor::Queue::Queue(Executor& executor, Driver& driver, Ostra::Ptr<Keel::TimerWheel const> wheel)
    : executor_(executor), driver_(driver), acknowledges_(driver.acknowledges()) {
  notifierIs(std::move(wheel));
  hasNotificationActiveIs(true);
  driver_.completedIs([this](U64 token, Outcome const& outcome) { completed(token, outcome); });
}

// The executor keeps no index of its own: while nothing is queued, it need not know any key but the call's.
Place Executor::Queue::programmed(char const* call, EntryKey const& key) const {
  auto const* const known = executor_.VantrelHelper::programmed(key);
  if (!known)
    throw std::logic_error(
        fmt::format("{} of key {}: the engine did not say where it is (programmedIs)", call, key.value()));
  return {known->ti, known->prio, known->pg};
}

bool Executor::Queue::add(EntryConfig const& entry) {
  Place const place{positionOf(entry), entry.prio(), entry.pg()};
  bool const isThere = !inherited_.empty() && takeOver(entry, place.ti);
  take({.key = entry.key(),
        .order = place,
        .entry = isThere ? nullptr : &entry,
        .to = isThere ? nowhere : place.ti,
        .status = done(),
        .opId = entry.opId()});
  return !isThere;
}

// False when it is not there.
bool Executor::Queue::takeOver(EntryConfig const& entry, U32 ti) {
  auto const at = inherited_.find(ti);
  if (at == inherited_.end() || at->second.key != entry.key()) return false;
  if (at->second.opId != entry.opId()) leftThere_[entry.key().value()] = at->second.opId;
  inherited_.erase(at);
  return true;
}

// Before a move it names the new position, and is acknowledged there.
void Executor::Queue::update(EntryConfig const& entry) {
  Place const place = programmed("update", entry.key());
  take({.key = entry.key(),
        .order = place,
        .entry = &entry,
        .to = place.ti,
        .status = positionOf(entry) == place.ti ? done() : Call::Status::Stays,
        .opId = entry.opId()});
}

void Executor::Queue::move(EntryConfig const& entry) {
  Place const old = programmed("move", entry.key());
  U32 const ti = positionOf(entry);
  take({.key = entry.key(),
        .order = old.at(ti),
        .entry = &entry,
        .to = ti,
        .from = old.ti == ti ? nowhere : old.ti,
        .status = done(),
        .opId = entry.opId()});
}

void Executor::Queue::remove(EntryConfig const& record) {
  Place const place = programmed("delete", record.key());
  bool const asked = record.opId() == OpId::deleteAcknowledge();
  take({.key = record.key(),
        .order = place,
        .from = place.ti,
        .status = asked || !acknowledges_ ? done() : Call::Status::Goes,
        .opId = record.opId(),
        .endsKey = true});
}

void Executor::Queue::acknowledge(EntryKey const& key, OpId const& opId) {
  auto const* const known = executor_.VantrelHelper::programmed(key);
  take({.key = key,
        .order = known ? Place{known->ti, known->prio, known->pg} : Place{},
        .status = Call::Status::Is,
        .opId = opId,
        .isUnchanged = known != nullptr});
}

void Executor::Queue::flush() {
  flushOwed_ = !detached_;
  if (queue_.empty()) pass();
}

// Most often nobody waits, and hardware does each step at once. Inlined, so that such a call costs little
// more than the driver's work.
[[gnu::always_inline]] inline void Executor::Queue::take(Call const& call) {
  if (detached_) return;
  if (!isQuiet()) return enqueue(call);
  if (call.isWrite()) {
    Outcome const outcome = write(*call.entry, call.to);
    if (outcome.kind != Outcome::Kind::Done) return enqueue(call, &outcome);
  }
  if (call.from != nowhere) {
    Outcome const outcome = erase(call.key, call.from);
    if (outcome.kind != Outcome::Kind::Done) {
      Call rest = call;
      rest.to = nowhere;
      return enqueue(rest, &outcome);
    }
  }
  if (call.status != Call::Status::Stays) statusIs(call);
}

// `outcome`: of its first step, which was begun.
void Executor::Queue::enqueue(Call const& call, Outcome const* outcome) {
  Queued taken(call);
  if (outcome) isBegun(taken, *outcome);
  if (queue_.empty() && advance(taken)) return;
  auto const queued = queue_.insert(queue_.end(), std::move(taken));
  if (queued->entry) queued->entry = &queued->kept.emplace(*queued->entry);
  if (queue_.size() > 1 && advance(*queued)) queue_.erase(queued);
  countersAre();
  rearm();
}

// Takes the steps that may be taken now. True when the call is done. What allows its first step allows the
// others: no earlier call can come in between.
bool Executor::Queue::advance(Queued& call) {
  if (call.token != 0 || !hasTime(call) || (!queue_.empty() && !mayBegin(call))) return false;
  while (!call.isDone()) {
    if (!hasTime(call)) return false;
    begin(call);
    if (call.token != 0) return false;
  }
  if (isOwed(call)) {
    writeRefused(call);
    return advance(call);
  }
  end(call);
  return true;
}

// The driver takes its next step now, if it has one.
bool Executor::Queue::hasTime(Queued const& call) const {
  if (call.isDone()) return true;
  return call.notBefore <= now_ && (underWay_ == 0 || underWay_ < driver_.mostAtOnce());
}

bool Executor::Queue::isOwed(Call const& call) const {
  return call.isUnchanged && refused_.contains(call.key);
}

// What the entry was refused as, in the version at hand, where the engine believes it to be.
void Executor::Queue::writeRefused(Queued& call) {
  EntryConfig const& refused = refused_.at(call.key);
  EntryConfig& entry = call.kept.emplace(call.key, call.opId, refused.hdl(), refused.pg(), refused.prio());
  entry.tableIndexIs(TableKey(0), call.order.ti);
  for (U32 i = 0; i < refused.datas(); ++i) entry.dataIs(DataKey(i), refused.data(DataKey(i)));
  call.entry = &entry;
  call.to = call.order.ti;
  call.isUnchanged = false;
}

// Rules 1 and 2.
bool Executor::Queue::mayBegin(Queued const& call) const {
  for (Queued const& earlier : queue_) {
    if (&earlier == &call) return true;
    if (earlier.key == call.key) return false;
    if (!call.isWrite() || earlier.from == nowhere) continue;
    if (earlier.from == call.to) return false;
    if (contradict(earlier.order.at(earlier.from), call.order, call.to)) return false;
  }
  return true;
}

void Executor::Queue::begin(Queued& call) {
  isBegun(call, call.isWrite() ? write(*call.entry, call.to) : erase(call.key, call.from));
}

void Executor::Queue::isBegun(Queued& call, Outcome const& outcome) {
  call.token = lastToken_;
  ++underWay_;
  if (outcome.kind != Outcome::Kind::Later) settle(call, outcome);
}

Outcome Executor::Queue::write(EntryConfig const& entry, U32 ti) try {
  return driver_.write(entry, ti, ++lastToken_);
} catch (std::exception const& error) {
  return {Outcome::Kind::Unknown, error.what()};
}

Outcome Executor::Queue::erase(EntryKey const& key, U32 ti) try {
  return driver_.erase(key, ti, ++lastToken_);
} catch (std::exception const& error) {
  return {Outcome::Kind::Unknown, error.what()};
}

void Executor::Queue::settle(Queued& call, Outcome const& outcome) {
  call.token = 0;
  --underWay_;
  if (outcome.kind == Outcome::Kind::Done || wasDone(call, outcome)) return stepIsDone(call);
  if (outcome.kind == Outcome::Kind::Refused && call.isWrite()) return leaveOut(call, outcome.reason);
  tryAgain(call, outcome);
}

void Executor::Queue::stepIsDone(Queued& call) {
  if (call.isWrite() && !refused_.empty()) failedDel(call.key);
  if (!leftThere_.empty()) leftThere_.erase(call.key.value());
  call.nextStep();
}

void Executor::Queue::leaveOut(Queued& call, std::string const& reason) {
  failedIs(*call.entry, reason);
  call.nextStep();
  if (call.from != nowhere) call.status = Call::Status::Goes;  // soon it is nowhere
}

// A version that was there before the write proves nothing: another run may have given it to other contents.
bool Executor::Queue::wasDone(Call const& call, Outcome const& outcome) {
  if (outcome.kind != Outcome::Kind::Unknown) return false;
  if (call.isWrite() && wasLeftThere(*call.entry)) return false;
  auto const there = readBack(call.position());
  if (!there) return false;
  if (call.isWrite()) return *there == Held{call.key, call.entry->opId()};
  return !*there || (*there)->key != call.key;
}

bool Executor::Queue::wasLeftThere(EntryConfig const& entry) const {
  auto const at = leftThere_.find(entry.key().value());
  return at != leftThere_.end() && at->second == entry.opId();
}

std::optional<std::optional<Held>> Executor::Queue::readBack(U32 ti) try {
  return driver_.readBack(ti);
} catch (std::exception const&) {
  return std::nullopt;
}

void Executor::Queue::tryAgain(Queued& call, Outcome const& outcome) {
  if (call.tries == 0) problemIs(fmt::format("{}: {}; it is tried again", describe(call), outcome.reason));
  call.notBefore = Ostra::now() + pause(call.tries++);
  executor_.scalarIs("retries", executor_.retries_, executor_.retries_ + 1, &Executor::Notifiee::onRetries);
}

// What is not in hardware is not acknowledged. A delete is.
void Executor::Queue::end(Call const& call) {
  if (call.endsKey && !refused_.empty()) failedDel(call.key);
  if (call.status == Call::Status::Stays) return;
  if (call.status == Call::Status::Is && !refused_.empty() && refused_.contains(call.key)) return;
  statusIs(call);
}

void Executor::Queue::statusIs(Call const& call) {
  bool const isFirst = unwritten_.empty() || !unwritten_.contains(call.key);
  if (isFirst && writeStatus(call.key, call.status, call.opId)) return;
  unwritten_[call.key] = {call.status, call.opId};
  countersAre();
  rearm();
}

void Executor::Queue::completed(U64 token, Outcome const& outcome) {
  auto const at = std::ranges::find(queue_, token, &Queued::token);
  if (at == queue_.end() || outcome.kind == Outcome::Kind::Later) return;
  settle(*at, outcome);
  pass();
}

// Lets everyone who may, in order. Whoever sees an acknowledgement may queue another call meanwhile.
void Executor::Queue::pass() {
  now_ = Ostra::now();
  for (auto at = queue_.begin(); at != queue_.end();) at = advance(*at) ? queue_.erase(at) : std::next(at);
  flushWhenDone();
  countersAre();
  rearm();
}

void Executor::Queue::flushWhenDone() {
  if (!flushOwed_ || !queue_.empty() || flushNotBefore_ > now_) return;
  try {
    driver_.flush();
    flushOwed_ = false;
    flushTries_ = 0;
  } catch (std::exception const& error) {
    if (flushTries_ == 0) problemIs(fmt::format("flush: {}; it is tried again", error.what()));
    flushNotBefore_ = now_ + pause(flushTries_++);
  }
}

void Executor::Queue::inherit(U32 ti, EntryConfig const* entry) {
  if (entry)
    inherited_[ti] = {entry->key(), entry->opId(), {ti, entry->prio(), entry->pg()}};
  else
    inherited_[ti] = {EntryKey(0), {}, {.ti = ti, .prio = 0, .pg = 0, .isUnknown = true}};
}

U64 Executor::Queue::eraseInherited() {
  auto const strays = std::exchange(inherited_, {});
  for (auto const& [ti, stray] : strays)
    take({.key = stray.key, .order = stray.order, .from = ti, .opId = {}});
  return strays.size();
}

void Executor::Queue::detach() {
  detached_ = true;
  flushOwed_ = false;
  queue_.clear();
  unwritten_.clear();
  inherited_.clear();
  countersAre();
}

bool Executor::Queue::writeStatus(EntryKey const& key, Call::Status status, OpId const& opId) {
  auto const& table = executor_.tableStatus();
  if (!table) return true;
  try {
    if (status == Call::Status::Goes) {
      table->entryDel(key);
    } else {
      table->entryIs(EntryStatus(key, opId));
      VANTREL_PROBE(acknowledge, key.value(), opId.value());
    }
    return true;
  } catch (std::exception const& error) {
    if (unwritten_.empty())
      problemIs(fmt::format("acknowledgement of key {}: {}; it is tried again", key.value(), error.what()));
    return false;
  }
}

// Once there was no space for one, only removals are tried. Whoever sees one may replace it by a newer one.
void Executor::Queue::writeStatuses() {
  Ostra::TimeSlice slice(sliceSeconds);
  bool isFull = false;
  bool isOver = false;
  for (auto at = unwritten_.begin(); at != unwritten_.end() && !isOver; isOver = slice.over()) {
    Unwritten const tried = at->second;
    bool const isTried = !isFull || tried.status == Call::Status::Goes;
    bool const isWritten = isTried && writeStatus(at->first, tried.status, tried.opId);
    bool const isNewest = at->second == tried;
    isFull = isFull || !isWritten;
    at = isWritten && isNewest ? unwritten_.erase(at) : std::next(at);
  }
  statusTries_ = isFull ? statusTries_ + 1 : 0;
  statusNotBefore_ = Ostra::now() + (isFull ? pause(statusTries_) : 0);
}

void Executor::Queue::onTime() {
  if (!unwritten_.empty() && statusNotBefore_ <= Ostra::now()) writeStatuses();
  pass();
}

// Doubles with each try. A quarter of it is chance, so that what failed together does not come back together.
double Executor::Queue::pause(unsigned tries) {
  double const whole = std::min(longestPause, firstPause * std::exp2(std::min(tries, 30U)));
  return whole * std::uniform_real_distribution<>(0.75, 1.0)(random_);
}

// For every call that was too early when the queue was last looked through, though its time may have come
// since. What has waited for its time and now waits for others is tried when those are done.
void Executor::Queue::rearm() {
  std::optional<double> next;
  auto const notLaterThan = [&](double time) { next = next ? std::min(*next, time) : time; };
  if (!unwritten_.empty()) notLaterThan(statusNotBefore_);
  if (flushOwed_ && queue_.empty()) notLaterThan(flushNotBefore_);
  for (Queued const& call : queue_)
    if (call.token == 0 && call.notBefore > now_) notLaterThan(call.notBefore);
  if (next) timeMinIs(*next);
}

void Executor::Queue::problemIs(std::string const& problem) {
  executor_.scalarIs("problem", executor_.problem_, problem, &Executor::Notifiee::onProblem);
}
void Executor::Queue::countersAre() {
  executor_.scalarIs("behind", executor_.behind_, queue_.size(), &Executor::Notifiee::onBehind);
  executor_.scalarIs("unwritten", executor_.unwritten_, unwritten_.size(), &Executor::Notifiee::onUnwritten);
}
void Executor::Queue::failedIs(EntryConfig const& entry, std::string const& reason) {
  executor_.memberIs("failedOpId", *executor_.failedOpId_, entry.key(), entry.opId(),
                     &Executor::Notifiee::onFailedOpId);
  refused_.insert_or_assign(entry.key(), entry);
  executor_.memberIs("failed", *executor_.failed_, entry.key(), reason, &Executor::Notifiee::onFailed);
}
void Executor::Queue::failedDel(EntryKey const& key) {
  if (refused_.erase(key) == 0) return;
  executor_.memberDel("failed", *executor_.failed_, key, &Executor::Notifiee::onFailed);
  executor_.memberDel("failedOpId", *executor_.failedOpId_, key, &Executor::Notifiee::onFailedOpId);
}

Executor::Executor(std::string name, Ostra::Ptr<Vantrel::TableStatus> tableStatus, Driver& driver,
                   Ostra::Ptr<Keel::TimerWheel const> wheel)
    : VantrelHelper(std::move(name), std::move(tableStatus)),
      failed_(std::make_unique<Reasons>()),
      failedOpId_(std::make_unique<Versions>()),
      queue_(std::make_unique<Queue>(*this, driver, std::move(wheel))) {}

Executor::~Executor() = default;

void Executor::addEntry(EntryConfig const& entry) { ++(queue_->add(entry) ? calls_.adds : calls_.adopted); }
void Executor::updateEntry(EntryConfig const& entry) {
  ++calls_.updates;
  queue_->update(entry);
}
void Executor::moveEntry(EntryConfig const& entry) {
  ++calls_.moves;
  queue_->move(entry);
}
void Executor::deleteEntry(EntryConfig const& record) {
  if (!queue_->isDetached()) ++calls_.deletes;
  queue_->remove(record);
}
void Executor::deleteEntryDeadlock(EntryConfig const& record) {
  ++calls_.deadlockDeletes;
  queue_->remove(record);
}
void Executor::delAck(EntryKey const& key) {
  queue_->take({.key = key,
                .order = {},
                .status = Call::Status::Is,
                .opId = OpId::deleteAcknowledge(),
                .endsKey = true});
}
void Executor::delStatus(EntryKey const& key) {
  queue_->take({.key = key, .order = {}, .status = Call::Status::Goes, .opId = {}, .endsKey = true});
}
void Executor::noopAck(EntryKey const& key, OpId const& opId) { queue_->acknowledge(key, opId); }
void Executor::flush() {
  if (!queue_->isDetached()) ++calls_.flushes;
  queue_->flush();
}
void Executor::inherit(U32 ti, EntryConfig const* entry) { queue_->inherit(ti, entry); }
U64 Executor::eraseInherited() { return queue_->eraseInherited(); }
void Executor::detach() { queue_->detach(); }

Ostra::TypeInfo const& Executor::staticType() {
  using E = Executor;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<E>("Hw::Executor", &VantrelHelper::staticType())
                                          .attribute("behind", &E::behind)
                                          .attribute("retries", &E::retries)
                                          .attribute("problem", &E::problem)
                                          .attribute("unwritten", &E::unwritten)
                                          .attribute("adopted", &E::adopted)
                                          .attribute("adds", &E::adds)
                                          .attribute("updates", &E::updates)
                                          .attribute("moves", &E::moves)
                                          .attribute("deletes", &E::deletes)
                                          .attribute("deadlockDeletes", &E::deadlockDeletes)
                                          .attribute("flushes", &E::flushes)
                                          .collection("failed", &E::failed)
                                          .collection("failedOpId", &E::failedOpId);
  return type;
}

}  // namespace Hw
