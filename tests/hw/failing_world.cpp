// SPDX-License-Identifier: Apache-2.0
#include "tests/hw/failing_world.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>

#include "ostra/clock.h"
#include "ostra/piecewise_map.h"
#include "shoal/error.h"

namespace TestHw {

using Hw::Outcome;
using Kind = Hw::Outcome::Kind;

U64 Met::allCalls() const { return std::accumulate(std::begin(calls), std::end(calls), U64{0}); }

Met& Met::operator+=(Met const& other) {
  steps += other.steps;
  for (unsigned i = 0; i < fates; ++i) calls[i] += other.calls[i];
  completions += other.completions;
  most = std::max(most, other.most);
  victims += other.victims;
  refusedAbsent += other.refusedAbsent;
  statusesRefused += other.statusesRefused;
  retries += other.retries;
  flushes += other.flushes;
  return *this;
}

std::string Met::text() const {
  return fmt::format(
      "{} steps, {} calls: {} done, {} late, {} busy, {} refused, {} unknown but done, {} unknown and not, "
      "{} "
      "thrown; {} completions, {} at once, {} tried again; {} victims of rings, {} absent because refused, "
      "{} "
      "acknowledgements without space",
      steps, allCalls(), calls[0], calls[1], calls[2], calls[3], calls[4], calls[5], calls[6], completions,
      most, retries, victims, refusedAbsent, statusesRefused);
}

std::string toText(Step const& step) {
  switch (step.kind) {
    case Step::Kind::Put:
      return fmt::format("put {}@{}", step.key, step.ti);
    case Step::Kind::PutSame:
      return fmt::format("put {}@{} unchanged", step.key, step.ti);
    case Step::Kind::Mark:
      return fmt::format("mark {}", step.key);
    default:
      return fmt::format("remove {}", step.key);
  }
}

namespace {

bool isThere(TrueHardware const& hardware, EntryKey const& key, Ledger::Line const& line) {
  auto const& there = hardware.at(line.ti);
  if (line.isWrite) return there && there->key() == key && there->opId() == line.opId;
  return !there || there->key() != key;
}

}  // namespace

void Ledger::add(EntryKey const& key, Line const& line) {
  lines_[key.value()].push_back(line);
  dropWhatIsNotAskedFor(key);
}

Ledger::Line* Ledger::next(EntryKey const& key, bool isWrite, U32 ti, OpId opId) {
  auto& lines = lines_[key.value()];
  while (!lines.empty()) {
    Line& line = lines.front();
    if (line.isWrite == isWrite && line.ti == ti && (!isWrite || line.opId == opId)) return &line;
    if (!line.perhaps || !isThere(hardware_, key, line)) return nullptr;
    done(key);
  }
  return nullptr;
}

void Ledger::done(EntryKey const& key, bool isRefused) {
  auto& lines = lines_[key.value()];
  if (lines.front().isWrite) refused_[key.value()] = isRefused;
  lines.erase(lines.begin());
  dropWhatIsNotAskedFor(key);
}

void Ledger::dropWhatIsNotAskedFor(EntryKey const& key) {
  auto& lines = lines_[key.value()];
  while (!lines.empty() && lines.front().ifRefused && !refused(key)) lines.erase(lines.begin());
}

// The executor may have read back that the call was done.
bool Ledger::isOpen(EntryKey const& key) const {
  bool isRefused = refused(key);
  for (Line const& line : lines_[key.value()]) {
    if (line.ifRefused && !isRefused) continue;
    if (!line.perhaps || !isThere(hardware_, key, line)) return true;
    if (line.isWrite) isRefused = false;
  }
  return false;
}

bool Ledger::isOpen() const {
  for (U64 key = 1; key < lines_.size(); ++key)
    if (isOpen(EntryKey(key))) return true;
  return false;
}

Outcome FailingDriver::write(EntryConfig const& entry, U32 ti, U64 token) {
  return answer({entry.key(), ti, entry, token});
}

Outcome FailingDriver::erase(EntryKey const& key, U32 ti, U64 token) { return answer({key, ti, {}, token}); }

Outcome FailingDriver::answer(Call call) {
  bool const isWrite = call.entry.has_value();
  Ledger::Line const* const line =
      ledger_.next(call.key, isWrite, call.ti, isWrite ? call.entry->opId() : OpId());
  if (!line)
    hardware_.brokenIs(fmt::format("the engine did not ask for the {} of key {} at {} now",
                                   isWrite ? "write" : "erase", call.key.value(), call.ti));
  else if (line->triedAt == Ostra::now())
    hardware_.brokenIs(fmt::format("key {} is tried again without a pause", call.key.value()));
  checkUnderWay(call);
  Fate const fate = faults_ ? faults_->ofCall() : Fate::Done;
  ++met_.calls[static_cast<unsigned>(fate)];
  if (fate != Fate::Later) return settle(call, fate);
  late_.push_back(std::move(call));
  met_.most = std::max<U64>(met_.most, late_.size());
  return {Kind::Later, ""};
}

void FailingDriver::checkUnderWay(Call const& call) {
  if (late_.size() >= shape_.mostAtOnce) hardware_.brokenIs("more calls at once than the driver takes");
  for (Call const& other : late_)
    if (other.key == call.key || other.ti == call.ti)
      hardware_.brokenIs(fmt::format("two calls at once of key {} at {} and of key {} at {}",
                                     call.key.value(), call.ti, other.key.value(), other.ti));
}

void FailingDriver::completeOne(std::size_t which) {
  Call const call = late_.at(which);
  late_.erase(late_.begin() + static_cast<std::ptrdiff_t>(which));
  ++met_.completions;
  Fate const fate = faults_ ? faults_->ofCompletion() : Fate::Done;
  if (fate != Fate::Done) ++met_.calls[static_cast<unsigned>(fate)];
  completed(call.token, settle(call, fate));
}

Outcome FailingDriver::settle(Call const& call, Fate fate) {
  bool const isWrite = call.entry.has_value();
  Ledger::Line* const line = ledger_.next(call.key, isWrite, call.ti, isWrite ? call.entry->opId() : OpId());
  if (!line) return {};  // reported when it was begun
  line->triedAt = Ostra::now();
  switch (fate) {
    case Fate::Done:
      carryOut(call);
      ledger_.done(call.key);
      return {};
    case Fate::Again:
      return {Kind::Again, "busy"};
    case Fate::Refused:
      if (!isWrite) return {Kind::Refused, "not now"};
      ledger_.done(call.key, true);
      return {Kind::Refused, "it cannot be expressed"};
    case Fate::UnknownDone:
      carryOut(call);
      [[fallthrough]];
    case Fate::UnknownNot:
      line->perhaps = shape_.readsBack;
      return {Kind::Unknown, "no answer"};
    default:
      line->perhaps = shape_.readsBack;
      throw std::runtime_error("the driver throws");
  }
}

void FailingDriver::flush() {
  ++met_.flushes;
  if (ledger_.isOpen()) hardware_.brokenIs("a flush before what was queued earlier");
}

void FailingDriver::carryOut(Call const& call) {
  if (call.entry) return hardware_.write(*call.entry, call.ti);
  bool const before = hardware_.holds(call.key);
  hardware_.erase(call.key, call.ti);
  if (!before || hardware_.holds(call.key)) return;
  bool const withdrawn = ledger_.next(call.key, false, call.ti, OpId())->withdraws;
  if (!withdrawn && !ledger_.refused(call.key))
    hardware_.brokenIs(fmt::format("key {} is wanted, and is absent", call.key.value()));
  if (!withdrawn) ++met_.refusedAbsent;
}

std::optional<std::optional<Hw::Held>> FailingDriver::readBack(U32 ti) {
  if (!shape_.readsBack) return std::nullopt;
  auto const& there = hardware_.at(ti);
  return there ? std::optional(Hw::Held{there->key(), there->opId()}) : std::optional<Hw::Held>();
}

void PlainHardware::write(EntryConfig const& entry, U32 ti) {
  hardware.write(entry, ti);
  noopAck(entry.key(), entry.opId());
}

void PlainHardware::addEntry(EntryConfig const& entry) { write(entry, entry.tableIndex(position)); }

// Before a move it is acknowledged by the move.
void PlainHardware::updateEntry(EntryConfig const& entry) {
  U32 const ti = hardware.positionsOf(entry.key()).at(0);
  if (ti == entry.tableIndex(position))
    write(entry, ti);
  else
    hardware.write(entry, ti);
}

void PlainHardware::moveEntry(EntryConfig const& entry) {
  U32 const old = hardware.positionsOf(entry.key()).at(0);
  write(entry, entry.tableIndex(position));
  hardware.erase(entry.key(), old);
}

void PlainHardware::deleteEntry(EntryConfig const& record) {
  hardware.erase(record.key(), record.tableIndex(position));
  if (record.opId() == OpId::deleteAcknowledge())
    delAck(record.key());
  else
    delStatus(record.key());
}

EngineWorld::EngineWorld(Shape const& shape) : shape_(shape), action_(shape.ranks.size() + 1) {}

void EngineWorld::engineIs(Ostra::Ptr<Vantrel::VantrelHelper> helper) {
  engine_ = Ostra::make<Vantrel::FastVantrelImpl>("engine", config_, nullptr, nullptr, std::move(helper), 1U);
}

void EngineWorld::run(Step const& step) {
  EntryKey const key(step.key);
  if (step.kind == Step::Kind::Remove) {
    config_->entryQuietlyDel(key);
  } else {
    EntryConfig entry = record(step.key, step.ti, step.kind == Step::Kind::Put);
    entry.isDelIs(step.kind == Step::Kind::Mark);
    config_->entryQuietlyIs(entry);
  }
  engine_->handleEntry(key);
}

void EngineWorld::again(EntryKey const& key) {
  run({Step::Kind::Put, key.value(), config_->entry(key).tableIndex(position)});
}

EntryConfig EngineWorld::record(U64 key, U32 ti, bool isAnother) {
  if (isAnother) ++action_[key];
  Rank const& rank = shape_.ranks[key - 1];
  EntryConfig entry(EntryKey(key), OpId(++version_ << 16 | action_[key]), static_cast<U32>(key), rank.pg,
                    rank.prio);
  entry.tableIndexIs(position, ti);
  return entry;
}

bool EngineWorld::wants(EntryKey const& key) const {
  EntryConfig const record = config_->entry(key);
  return !record.empty() && !record.isDel();
}

PerfectWorld::PerfectWorld(Shape const& shape)
    : EngineWorld(shape), plain_(Ostra::make<PlainHardware>(status_, shape.positions)) {
  engineIs(plain_);
}

// Notes what the engine asks for before it is carried out.
class FailingWorld::WatchedExecutor : public Hw::Executor {
 public:
  WatchedExecutor(FailingWorld& world)
      : Executor("executor", world.status_, world.driver_, world.wheel_), world_(world) {}
  void addEntry(EntryConfig const& entry) override {
    at_[entry.key()] = entry.tableIndex(position);
    note(entry, true, at_[entry.key()]);
    Executor::addEntry(entry);
  }
  void updateEntry(EntryConfig const& entry) override {
    note(entry, true, at_[entry.key()]);
    Executor::updateEntry(entry);
  }
  void moveEntry(EntryConfig const& entry) override {
    U32 const old = std::exchange(at_[entry.key()], entry.tableIndex(position));
    note(entry, true, at_[entry.key()]);
    note(entry, false, old);
    Executor::moveEntry(entry);
  }
  void deleteEntry(EntryConfig const& record) override {
    if (world_.wants(record.key()) && !world_.isWithdrawn_)
      world_.hardware_.brokenIs(
          fmt::format("the engine deletes key {}, which is wanted", record.key().value()));
    note(record, false, record.tableIndex(position), true);
    Executor::deleteEntry(record);
  }
  void deleteEntryDeadlock(EntryConfig const& record) override {
    ++world_.met_.victims;
    note(record, false, record.tableIndex(position), true);
    Executor::deleteEntryDeadlock(record);
  }

  void noopAck(EntryKey const& key, OpId const& opId) override {
    world_.ledger_.add(
        key, {.isWrite = true, .ti = at_[key], .opId = opId, .withdraws = false, .ifRefused = true});
    Executor::noopAck(key, opId);
    if (failed().contains(key) && world_.status_->entry(key).opId() == opId)
      world_.hardware_.brokenIs(fmt::format("key {} is acknowledged and was refused", key.value()));
  }

 private:
  void note(EntryConfig const& entry, bool isWrite, U32 ti, bool withdraws = false) {
    world_.ledger_.add(entry.key(), {isWrite, ti, entry.opId(), withdraws, false});
  }
  FailingWorld& world_;
  std::map<EntryKey, U32> at_;
};

// No space for a while; and no older version after a newer one.
class FailingWorld::WatchedStatus : public Status {
 public:
  explicit WatchedStatus(FailingWorld& world) : world_(world) {}
  void entryIs(Vantrel::EntryStatus const& record) override {
    if (!world_.isFull_ && world_.faults_ && world_.faults_->statusFills()) world_.isFull_ = true;
    if (world_.isFull_) {
      ++world_.met_.statusesRefused;
      throw Shoal::NoSpaceException("the status table is full");
    }
    OpId& newest = newest_[record.key()];
    if (record.opId() != OpId::deleteAcknowledge()) {
      if (record.opId() < newest)
        world_.hardware_.brokenIs(fmt::format("key {} is acknowledged in version {:x} after {:x}",
                                              record.key().value(), record.opId().value(), newest.value()));
      newest = record.opId();
    }
    Status::entryIs(record);
  }

 private:
  FailingWorld& world_;
  std::map<EntryKey, OpId> newest_;
};

FailingWorld::FailingWorld(Shape const& shape, Faults& faults)
    : EngineWorld(shape),
      hardware_(shape.positions),
      ledger_(shape.ranks.size(), hardware_),
      driver_(shape_, hardware_, ledger_, met_),
      faults_(&faults),
      status_(Ostra::make<WatchedStatus>(*this)),
      executor_(Ostra::make<WatchedExecutor>(*this)) {
  driver_.faultsAre(&faults);
  engineIs(executor_);
}

// The engine's clean-up must not reach hardware.
FailingWorld::~FailingWorld() {
  executor_->detach();
  engine_ = nullptr;
  executor_ = nullptr;
}

void FailingWorld::run(Step const& step) {
  ++met_.steps;
  EngineWorld::run(step);
  look();
}

void FailingWorld::completeOne(std::size_t which) {
  driver_.completeOne(which);
  look();
}

void FailingWorld::advance(double seconds) {
  wheel_->advance(seconds);
  look();
}

void FailingWorld::flush() {
  flushesBefore_ = met_.flushes;
  executor_->flush();
}

void FailingWorld::look() {
  met_.retries = executor_->retries();
  if (executor_->unwritten() != 0) return;
  for (std::size_t i = 1; i <= keys(); ++i) lookAt(key(i));
}

// Whatever is acknowledged is in hardware, in this version, or in one with the same match and action.
void FailingWorld::lookAt(EntryKey const& key) {
  OpId const acknowledged = status_->entry(key).opId();
  if (acknowledged == OpId() || acknowledged == OpId::deleteAcknowledge()) return;
  if (ledger_.isOpen(key) || executor_->failed().contains(key)) return;
  auto const held = hardware_.versionOf(key);
  if (!held || (*held != acknowledged && held->low() != acknowledged.low()) || *held > acknowledged)
    hardware_.brokenIs(fmt::format("key {} is acknowledged in version {:x} and is not in hardware",
                                   key.value(), acknowledged.value()));
}

bool FailingWorld::isSettled() const {
  return late() == 0 && executor_->behind() == 0 && executor_->unwritten() == 0;
}

std::vector<EntryKey> FailingWorld::settle() {
  faults_ = nullptr;
  driver_.faultsAre(nullptr);
  isFull_ = false;
  for (int i = 0; i < 50 && !isSettled(); ++i) {
    while (late() != 0) completeOne(0);
    if (!isSettled()) advance(2);
  }
  if (!isSettled()) hardware_.brokenIs("it does not end");
  if (flushesBefore_ == met_.flushes) hardware_.brokenIs("a flush was forgotten");
  look();
  std::vector<EntryKey> failed;
  for (auto const& [key, reason] : executor_->failed()) failed.push_back(key);
  std::ranges::sort(failed);
  for (EntryKey const& key : failed)
    if (!wants(key)) hardware_.brokenIs(fmt::format("key {} has failed and is not wanted", key.value()));
  for (std::size_t i = 1; i <= keys(); ++i)
    if (ledger_.isOpen(key(i))) hardware_.brokenIs(fmt::format("calls of key {} were not made", i));
  return failed;
}

std::string FailingWorld::withdraw(Faults& faults) {
  isWithdrawn_ = true;
  driver_.faultsAre(&faults);
  engine_ = nullptr;
  auto const failed = settle();
  if (!broken().empty()) return broken();
  for (std::size_t i = 1; i <= keys(); ++i) {
    OpId const acknowledged = status_->entry(key(i)).opId();
    if (hardware_.holds(key(i))) return fmt::format("key {} is in hardware", i);
    if (acknowledged != OpId() && acknowledged != OpId::deleteAcknowledge())
      return fmt::format("key {} is acknowledged", i);
  }
  return failed.empty() ? "" : "a key has failed";
}

// An unchanged version is written where the version before was refused, and else only acknowledged.
std::string FailingWorld::difference(PerfectWorld const& perfect) {
  for (U32 ti = 0; ti < shape_.positions; ++ti) {
    auto const& wanted = perfect.hardware().at(ti);
    auto const& held = hardware_.at(ti);
    auto const& any = held ? held : wanted;
    if (any && executor_->failed().contains(any->key())) continue;
    if (held.has_value() != wanted.has_value() ||
        (held && (held->key() != wanted->key() || held->opId().low() != wanted->opId().low())))
      return "hardware holds " + hardware_.text() + ", and is to hold " + perfect.hardware().text();
  }
  for (std::size_t i = 1; i <= keys(); ++i) {
    if (executor_->failed().contains(key(i))) {
      if (engine_->currentOpId(key(i)) == config_->entry(key(i)).opId())
        return fmt::format("key {} was tried again and is still refused", i);
    } else if (status_->entry(key(i)) != perfect.status().entry(key(i))) {
      return fmt::format("key {} is acknowledged in version {:x} instead of {:x}", i,
                         status_->entry(key(i)).opId().value(),
                         perfect.status().entry(key(i)).opId().value());
    }
  }
  return "";
}

}  // namespace TestHw
