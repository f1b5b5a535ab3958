// SPDX-License-Identifier: Apache-2.0
#include "testing/world.h"

#include <string>
#include <utility>

#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"
#include "vantrel/core/trace.h"

namespace Testing {

using Ostra::make;
using Ostra::Ptr;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::OpId;

namespace {

constexpr U32 traceIdentifier = 1;

// Whether a value that came in a step fits an attribute's type.
bool fits(std::string const& type, Ostra::Value const& value) {
  if (type == "bool") return std::holds_alternative<bool>(value);
  if (type == "double") return std::holds_alternative<double>(value) || std::holds_alternative<U64>(value);
  if (type == "text") return std::holds_alternative<std::string>(value);
  auto const* number = std::get_if<U64>(&value);
  U64 const max = type == "U8" ? 0xFF : type == "U16" ? 0xFFFF : type == "U32" ? 0xFFFFFFFF : ~U64{0};
  return number && *number <= max;
}

}  // namespace

void Failures::timesIs(U64 key, std::int64_t times) {
  if (times == 0)
    times_.erase(key);
  else
    times_[key] = times;
}

bool Failures::attempt(U64 key) {
  if (times_.empty()) return true;
  auto const at = times_.find(key);
  if (at == times_.end()) return true;
  if (at->second > 0 && --at->second == 0) times_.erase(at);
  return false;
}

// Reports each hardware call to the listener and does nothing else.
class World::Client : public Vantrel::VantrelHelper {
 public:
  Client(World& world, Ptr<Vantrel::TableStatus> statuses)
      : VantrelHelper("dryRunClient", std::move(statuses)), world_(world) {}
  void addEntry(EntryConfig const& entry) override { tell(EventKind::Add, entry); }
  void deleteEntry(EntryConfig const& entry) override { tell(EventKind::Delete, entry); }
  void deleteEntryDeadlock(EntryConfig const& entry) override { tell(EventKind::DeleteDeadlock, entry); }
  void moveEntry(EntryConfig const& entry) override { tell(EventKind::Move, entry); }
  void updateEntry(EntryConfig const& entry) override { tell(EventKind::Update, entry); }
  void flush() override { tell(EventKind::Flush, EntryConfig()); }

 private:
  void tell(EventKind kind, EntryConfig const& entry) {
    if (!world_.muted_) world_.listener_.onEvent(kind, entry);
  }
  World& world_;
};

// Reports each write to the listener, the removal of an absent key too.
class World::Statuses : public Shoal::LocalTable<EntryStatus> {
 public:
  explicit Statuses(World& world) : LocalTable("TableStatus"), world_(world) {}
  void entryIs(EntryStatus const& status) override {
    LocalTable::entryIs(status);
    if (!world_.muted_) world_.listener_.onEvent(EventKind::Status, {status.key(), status.opId(), 0, 0, 0});
  }
  void entryDel(EntryKey const& key) override {
    LocalTable::entryDel(key);
    if (!world_.muted_) world_.listener_.onEvent(EventKind::StatusDel, {key, OpId(0), 0, 0, 0});
  }

 private:
  World& world_;
};

// An engine whose dependant tables fail on order.
template <class Engine>
class World::Dependants : public Engine {
 public:
  template <class... Args>
  explicit Dependants(Failures& failures, Args&&... args)
      : Engine(std::forward<Args>(args)...), failures_(failures) {}
  bool processDependantTables(EntryConfig const&, EntryKey const& key) override {
    return failures_.attempt(key.value());
  }

 private:
  Failures& failures_;
};

World::World(EngineChoice const& choice, Listener& listener, Trace trace)
    : listener_(listener),
      log_(std::make_unique<Lumelog::Log>()),
      previousLog_(std::exchange(Vantrel::lg, log_.get())),
      wheel_(make<Keel::VirtualWheel>()),
      table_(make<Shoal::LocalTable<EntryConfig>>("TableConfig")),
      statuses_(make<Statuses>(*this)),
      client_(make<Client>(*this, statuses_)),
      debugConfig_(Vantrel::debugConfigFactory("debugConfig")),
      debugStatus_(Vantrel::debugStatusFactory("debugStatus")),
      flushStatus_(make<Vantrel::VantrelFlushStatus>("flushStatus")) {
  if (trace == Trace::On)
    log_->tapIs([this](std::string_view text, std::span<U64 const> values) {
      if (!muted_) listener_.onTrace(text, values);
    });
  makeEngine(choice);
  frontEnd_ =
      Vantrel::vantrelSmFactory(table_, statuses_, debugConfig_, debugStatus_, engine_, flushStatus_, wheel_);
}

World::~World() {
  muted_ = true;
  if (engine_) engine_->initializedIs(true);  // its clean-up is an operation of an engine that runs
  cleanUp();
  Vantrel::lg = previousLog_;
}

void World::makeEngine(EngineChoice const& choice) {
  if (choice.atcam)
    engine_ = make<Dependants<Vantrel::FastVantrelAtcamImpl>>(failures_, "dryRun", table_, debugConfig_,
                                                              debugStatus_, client_, traceIdentifier,
                                                              choice.maxPartitions);
  else
    engine_ = make<Dependants<Vantrel::FastVantrelImpl>>(failures_, "dryRun", table_, debugConfig_,
                                                         debugStatus_, client_, traceIdentifier);
  if (choice.hasShift) engine_->prioGrpShiftIs(choice.prioGrpShift);
}

Shoal::LocalTable<EntryStatus> const& World::statuses() const { return *statuses_; }

void World::check(Step const& step) const {
  if (step.what == Do::Set) static_cast<void>(target(step));
}

void World::run(Step const& step) {
  switch (step.what) {
    case Do::Put:
      return runPut(step);
    case Do::Remove:
      return runRemove(step);
    case Do::Notify:
      return table_->notifyEntry(step.entry.key());
    case Do::Walk:
      return table_->notifyEntryColl();
    case Do::Fail:
      return failures_.timesIs(step.key(), step.times);
    case Do::Advance:
      return wheel_->advance(step.seconds);
    case Do::Set: {
      Target const at = target(step);
      return at.attribute->write(*at.object, step.value);
    }
    case Do::Debug:
      return debugConfig_->versionIs(step.version);
    case Do::Show:
      return;
    case Do::Cleanup:
      return cleanUp();
  }
}

void World::runPut(Step const& step) {
  table_->entryQuietlyIs(step.entry);
  if (!step.quiet) table_->notifyEntry(step.entry.key());
}

void World::runRemove(Step const& step) {
  table_->entryQuietlyDel(step.entry.key());
  if (!step.quiet) table_->notifyEntry(step.entry.key());
}

// The object that has the attribute, and how to write it there.
World::Target World::target(Step const& step) const {
  Ostra::Described* const objects[] = {step.on == "sm" ? nullptr : engine_.get(),
                                       step.on == "engine" ? nullptr : frontEnd_.get()};
  Target found{nullptr, nullptr};
  for (Ostra::Described* object : objects) {
    if (!object) continue;
    for (Ostra::Attribute const* attribute : object->typeInfo().attributes()) {
      if (attribute->name != step.attribute || attribute->kind != Ostra::AttributeKind::Scalar) continue;
      if (found.object)
        throw ScenarioError("expected \"on\" \"engine\" or \"sm\" with \"" + step.attribute +
                            "\", which both have");
      found = {object, attribute};
    }
  }
  std::string const where = step.on.empty() ? "engine or sm" : step.on;
  if (!found.object || !found.attribute->write)
    throw ScenarioError("expected a scalar attribute of " + where + " that can be written, got \"" +
                        step.attribute + "\"");
  if (!fits(found.attribute->type, step.value))
    throw ScenarioError("expected \"value\" for \"" + step.attribute + "\" of type " + found.attribute->type +
                        ", got " + Ostra::toText(step.value));
  return found;
}

void World::cleanUp() {
  frontEnd_ = nullptr;
  engine_ = nullptr;
}

Snapshot World::snapshot() const {
  Snapshot s;
  s.version = debugStatus_->version();
  for (auto const& [ti, key] : debugStatus_->pending()) s.pending[ti] = key.value();
  for (auto const& [key, opId] : debugStatus_->pendingOpId()) s.pendingOpId[key.value()] = opId.value();
  for (auto const& [ti, key] : debugStatus_->status()) s.status[ti] = key.value();
  for (auto const& [key, opId] : debugStatus_->statusOpId()) s.statusOpId[key.value()] = opId.value();
  return s;
}

Counters World::counters() const {
  Counters c;
  c.tableCounter = flushStatus_->tableCounter();
  c.flushCounter = flushStatus_->flushCounter();
  c.initialFlushed = frontEnd_->initialFlushed();
  c.retryTimerSet = frontEnd_->retryTimerSet();
  for (auto const& [key, waiting] : frontEnd_->failedKey()) c.failedKey.push_back(key.value());
  c.failedDepCnt = engine_->failedDepCnt();
  c.numPending = engine_->numPending();
  c.numDeadlock = engine_->numDeadlock();
  c.numMixedRings = engine_->numMixedRings();
  return c;
}

}  // namespace Testing
