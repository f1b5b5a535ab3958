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

#include <algorithm>
#include <cmath>
#include <exception>
#include <list>
#include <map>
#include <random>
#include <utility>

#include "ostra/clock.h"
#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"

namespace Hw {

using Vantrel::EntryStatus;
using Vantrel::TableKey;

namespace {

constexpr U32 nowhere = 0xFFFFFFFF;
// The first pause before a call is made again, and the longest, seconds.
constexpr double firstPause = 0.001;
constexpr double longestPause = 1.0;

U32 positionOf(Executor::EntryConfig const& record) { return record.tableIndex(TableKey(0)); }

}  // namespace

// What the engine believes of a key: where it is, and what its order is judged by.
struct Executor::Known {
  U32 ti;
  U32 prio;
  U16 pg;
};

struct Executor::Call {
  // What becomes of the key's status in the end.
  enum class Status { Stays, Is, Goes };

  EntryKey key;
  Known order;                         // the key's, for rule 2
  EntryConfig const* entry = nullptr;  // what is to be written
  U32 to = nowhere;                    // where; nowhere: it is done, or nothing is to be written
  U32 from = nowhere;                  // what is to be erased; likewise
  Status status = Status::Stays;
  OpId opId;                          // the status
  std::optional<EntryConfig> kept{};  // the entry, once the call is queued
  U64 token = 0;                      // not 0: a step is under way
  unsigned tries = 0;                 // of the step at hand
  double notBefore = 0;               // when it may be tried again

  bool isDone() const { return to == nowhere && from == nowhere; }
  bool endsTheKey() const { return status == Status::Goes || opId == OpId::deleteAcknowledge(); }
};

class Executor::Alarm : public Keel::TimerWheel::Notifiee {
 public:
  Alarm(Executor& executor, Ostra::Ptr<Keel::TimerWheel const> wheel) : executor_(executor) {
    notifierIs(std::move(wheel));
    hasNotificationActiveIs(true);
  }
  void onTime() override { executor_.wake(); }

 private:
  Executor& executor_;
};

struct Executor::State {
  State(Executor& executor, Ostra::Ptr<Keel::TimerWheel const> wheel) : alarm(executor, std::move(wheel)) {}

  Ostra::PiecewiseMap<EntryKey, Known> known;
  std::list<Call> queue;
  std::map<EntryKey, Call> unwritten;  // the newest of each key
  std::size_t underWay = 0;
  U64 lastToken = 0;
  bool flushOwed = false;
  double now = 0;  // when the queue was last looked through
  unsigned statusTries = 0;
  double statusNotBefore = 0;
  std::minstd_rand random;
  Alarm alarm;

  // A pause that doubles with each try. A quarter of it is chance, so that what failed together does not come
  // back together.
  double pause(unsigned tries) {
    double const whole = std::min(longestPause, firstPause * std::exp2(std::min(tries, 30U)));
    return whole * std::uniform_real_distribution<>(0.75, 1.0)(random);
  }
};

Executor::Executor(std::string name, Ostra::Ptr<Vantrel::TableStatus> tableStatus, Driver& driver,
                   Ostra::Ptr<Keel::TimerWheel const> wheel)
    : VantrelHelper(std::move(name), std::move(tableStatus)),
      driver_(driver),
      failed_(std::make_unique<Reasons>()),
      state_(std::make_unique<State>(*this, std::move(wheel))) {
  driver_.completedIs([this](U64 token, Outcome const& outcome) { completed(token, outcome); });
}

Executor::~Executor() { driver_.completedIs(nullptr); }

// ---- The engine's calls

void Executor::addEntry(EntryConfig const& entry) {
  Known& known = state_->known[entry.key()];
  known = {positionOf(entry), entry.prio(), entry.pg()};
  take({.key = entry.key(),
        .order = known,
        .entry = &entry,
        .to = known.ti,
        .status = Call::Status::Is,
        .opId = entry.opId()});
}

// Before a move it names the new position, and is acknowledged there.
void Executor::updateEntry(EntryConfig const& entry) {
  auto const at = state_->known.find(entry.key());
  if (at == state_->known.end()) return addEntry(entry);
  Known const& known = at->second;
  bool const stays = positionOf(entry) == known.ti;
  take({.key = entry.key(),
        .order = known,
        .entry = &entry,
        .to = known.ti,
        .status = stays ? Call::Status::Is : Call::Status::Stays,
        .opId = entry.opId()});
}

void Executor::moveEntry(EntryConfig const& entry) {
  auto const at = state_->known.find(entry.key());
  if (at == state_->known.end()) return addEntry(entry);
  U32 const old = std::exchange(at->second.ti, positionOf(entry));
  take({.key = entry.key(),
        .order = at->second,
        .entry = &entry,
        .to = at->second.ti,
        .from = old == at->second.ti ? nowhere : old,
        .status = Call::Status::Is,
        .opId = entry.opId()});
}

void Executor::deleteEntry(EntryConfig const& record) { remove(record); }
void Executor::deleteEntryDeadlock(EntryConfig const& record) { remove(record); }

void Executor::remove(EntryConfig const& record) {
  auto const at = state_->known.find(record.key());
  Known const known = at == state_->known.end() ? Known{positionOf(record), 0, 0} : at->second;
  if (at != state_->known.end()) state_->known.erase(at);
  bool const asked = record.opId() == OpId::deleteAcknowledge();
  take({.key = record.key(),
        .order = known,
        .from = known.ti,
        .status = asked ? Call::Status::Is : Call::Status::Goes,
        .opId = record.opId()});
}

void Executor::delAck(EntryKey const& key) {
  take({.key = key, .order = {}, .status = Call::Status::Is, .opId = OpId::deleteAcknowledge()});
}
void Executor::delStatus(EntryKey const& key) {
  take({.key = key, .order = {}, .status = Call::Status::Goes, .opId = {}});
}
void Executor::noopAck(EntryKey const& key, OpId const& opId) {
  take({.key = key, .order = {}, .status = Call::Status::Is, .opId = opId});
}

void Executor::flush() {
  state_->flushOwed = true;
  if (state_->queue.empty()) pass();
}

// ---- The queue

// Most often nothing is queued, and the call is done at once.
void Executor::take(Call call) {
  if (state_->queue.empty() && advance(call)) return;
  Call& queued = state_->queue.emplace_back(std::move(call));
  if (queued.entry) queued.entry = &queued.kept.emplace(*queued.entry);
  if (state_->queue.size() > 1 && advance(queued)) state_->queue.pop_back();
  countersAre();
  rearm();
}

// Takes the steps that may be taken now. True when the call is done.
bool Executor::advance(Call& call) {
  while (!call.isDone() || !mayBegin(call)) {
    bool const room = state_->underWay < driver_.mostAtOnce();
    if (call.token != 0 || !room || call.notBefore > state_->now || !mayBegin(call)) return false;
    begin(call);
  }
  end(call);
  return true;
}

// Rules 1 and 2.
bool Executor::mayBegin(Call const& call) const {
  for (Call const& earlier : state_->queue) {
    if (&earlier == &call) return true;
    if (earlier.key == call.key) return false;
    if (call.to == nowhere || earlier.from == nowhere) continue;
    if (earlier.from == call.to) return false;
    if (earlier.order.pg != call.order.pg) continue;
    if (earlier.from < call.to ? earlier.order.prio > call.order.prio : earlier.order.prio < call.order.prio)
      return false;
  }
  return true;
}

void Executor::begin(Call& call) {
  call.token = ++state_->lastToken;
  ++state_->underWay;
  Outcome outcome;
  try {
    outcome = call.to != nowhere ? driver_.write(*call.entry, call.to, call.token)
                                 : driver_.erase(call.key, call.from, call.token);
  } catch (std::exception const& error) {
    outcome = {Outcome::Kind::Again, error.what()};
  }
  if (outcome.kind != Outcome::Kind::Later) settle(call, outcome);
}

void Executor::settle(Call& call, Outcome const& outcome) {
  call.token = 0;
  --state_->underWay;
  bool const isWrite = call.to != nowhere;
  bool const isDone = outcome.kind == Outcome::Kind::Done;
  bool const isRefused = outcome.kind == Outcome::Kind::Refused && isWrite;
  if (!isDone && !isRefused) return tryAgain(call);
  (isWrite ? call.to : call.from) = nowhere;
  call.tries = 0;
  if (isWrite && isDone) failedDel(call.key);
  if (isRefused) failedIs(call.key, outcome.reason);
}

void Executor::tryAgain(Call& call) {
  call.notBefore = Ostra::now() + state_->pause(call.tries++);
  scalarIs("retries", retries_, retries_ + 1, &Notifiee::onRetries);
}

// What is not in hardware is not acknowledged. A delete is.
void Executor::end(Call const& call) {
  if (call.endsTheKey()) failedDel(call.key);
  if (call.status == Call::Status::Stays || failed_->contains(call.key)) return;
  if (!state_->unwritten.contains(call.key) && writeStatus(call)) return;
  Call& waiting = state_->unwritten[call.key];
  waiting.key = call.key;
  waiting.status = call.status;
  waiting.opId = call.opId;
  countersAre();
  rearm();
}

void Executor::completed(U64 token, Outcome const& outcome) {
  auto const at = std::ranges::find(state_->queue, token, &Call::token);
  if (at == state_->queue.end()) return;
  settle(*at, outcome);
  pass();
}

// Lets everyone who may, in order.
void Executor::pass() {
  state_->now = Ostra::now();
  for (auto at = state_->queue.begin(); at != state_->queue.end();) {
    auto const call = at++;
    if (advance(*call)) state_->queue.erase(call);
  }
  if (state_->queue.empty() && std::exchange(state_->flushOwed, false)) driver_.flush();
  countersAre();
  rearm();
}

// ---- Acknowledgements

bool Executor::writeStatus(Call const& call) {
  if (!tableStatus()) return true;
  try {
    if (call.status == Call::Status::Goes)
      tableStatus()->entryDel(call.key);
    else
      tableStatus()->entryIs(EntryStatus(call.key, call.opId));
    return true;
  } catch (std::exception const&) {
    return false;
  }
}

void Executor::writeStatuses() {
  std::erase_if(state_->unwritten, [this](auto const& waiting) { return writeStatus(waiting.second); });
  state_->statusTries = state_->unwritten.empty() ? 0 : state_->statusTries + 1;
  state_->statusNotBefore = Ostra::now() + state_->pause(state_->statusTries);
}

// ---- Time

void Executor::wake() {
  if (!state_->unwritten.empty() && state_->statusNotBefore <= Ostra::now()) writeStatuses();
  pass();
}

// For every call that was too early when the queue was last looked through, though its time may have come
// since. What has waited for its time and now waits for others is tried when those are done.
void Executor::rearm() {
  std::optional<double> next;
  auto const notLaterThan = [&](double time) { next = next ? std::min(*next, time) : time; };
  if (!state_->unwritten.empty()) notLaterThan(state_->statusNotBefore);
  for (Call const& call : state_->queue)
    if (call.token == 0 && call.notBefore > state_->now) notLaterThan(call.notBefore);
  if (next) state_->alarm.timeMinIs(*next);
}

// ---- What others see

void Executor::countersAre() {
  scalarIs("behind", behind_, state_->queue.size(), &Notifiee::onBehind);
  scalarIs("unwritten", unwritten_, state_->unwritten.size(), &Notifiee::onUnwritten);
}

void Executor::failedIs(EntryKey const& key, std::string const& reason) {
  memberIs("failed", *failed_, key, reason, &Notifiee::onFailed);
}
void Executor::failedDel(EntryKey const& key) {
  if (!failed_->empty()) memberDel("failed", *failed_, key, &Notifiee::onFailed);
}

Ostra::TypeInfo const& Executor::staticType() {
  using E = Executor;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<E>("Hw::Executor", &VantrelHelper::staticType())
                                          .attribute("behind", &E::behind)
                                          .attribute("retries", &E::retries)
                                          .attribute("unwritten", &E::unwritten)
                                          .collection("failed", &E::failed);
  return type;
}

}  // namespace Hw
