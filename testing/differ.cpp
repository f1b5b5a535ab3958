// SPDX-License-Identifier: Apache-2.0
#include "testing/differ.h"

#include "ostra/piecewise_map.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace Testing {

using Vantrel::CState_s;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;

namespace {

// The text is only made when it is needed.
template <class... Parts>
void require(bool condition, Parts const&... parts) {
  if (condition) [[likely]]
    return;
  std::ostringstream what;
  (what << ... << parts);
  throw Difference(what.str());
}

bool sameRecord(ModelRecord const& m, CState_s const& c) {
  return m.opId == c.opId.value() && m.hdl == c.hdl && m.prio == c.prio && m.pg == c.pg && m.at == c.sti &&
         m.waitOpId == c.p.opId.value() && m.waitsFor == c.p.ti &&
         static_cast<U8>(m.why) == static_cast<U8>(c.p.type);
}

std::string shownEvents(std::vector<Event> const& events) {
  std::string text;
  for (Event const& e : events) text += "\n  " + print(e);
  return text.empty() ? " none" : text;
}

}  // namespace

Differ::Differ(EngineChoice const& engine) : choice_(engine), model_(engine), hardware_(engine) {
  world_.emplace(engine, *this, World::Trace::On);
  state_ = world_->engine()->state();
  model_.start();
  compare();
}

void Differ::run(Step const& step) {
  ++steps_;
  events_.clear();
  model_.events.clear();
  choices_.candidates.clear();
  choices_.victims.clear();
  choices_.order = order(step);
  world_->run(step);
  try {
    model_.run(step, choices_);
  } catch (Illegal const& error) {
    throw Difference(std::string("the model refuses: ") + error.what() +
                     "\nthe engine's events:" + shownEvents(events_));
  }
  compare();
}

std::string Differ::endsProcess(Step const& step) const {
  Model ahead = model_;
  try {
    ahead.run(step, {{}, {}, order(step), true});
  } catch (Fatal const& fatal) {
    return fatal.what();
  }
  return "";
}

// The keys of a walk or a clean-up in the order in which the engine will visit them.
std::vector<U64> Differ::order(Step const& step) const {
  std::vector<U64> keys;
  if (step.what == Do::Walk)
    for (auto place = world_->table().first(); place; place = world_->table().next(*place))
      keys.push_back(place->key.value());
  if (step.what == Do::Cleanup)
    for (auto const& [key, handle] : world_->engine()->keyToHandle()) keys.push_back(key.value());
  return keys;
}

void Differ::empty() {
  world_->failures().clear();
  model_.forgetFailures();
  std::set<U64> keys;
  for (auto const& [key, entry] : model_.table()) keys.insert(key);
  for (ModelRecord const& r : model_.records()) keys.insert(r.key);
  for (U64 key : keys) run(remove(key));
  if (auto const wakeUp = model_.wakeUp()) run(advance(*wakeUp - world_->wheel().now()));
  require(state_->cstate.empty() && model_.records().empty(), "records are left in an empty world");
  world_->engine()->handleToKeyDelAll();
  world_->engine()->keyToHandleDelAll();
  model_.forgetHandles();
}

std::optional<U64> Differ::idleClaim() const {
  for (ModelRecord const& r : model_.records())
    if (r.waitsFor != nowhere && !model_.occupant(r.waitsFor) && !model_.outOfOrderWith(r, r.waitsFor))
      return r.key;
  return std::nullopt;
}

void Differ::onEvent(EventKind kind, EntryConfig const& entry) {
  events_.push_back({kind, entry});
  if (kind >= EventKind::Status || !broken_.empty()) return;
  try {
    hardwareCall(kind, entry);
  } catch (Broken const& error) {
    broken_ = error.what();
  }
}

void Differ::hardwareCall(EventKind kind, EntryConfig const& entry) {
  CState_s const* const c = state_->record(entry.key());
  if (!c)
    throw Broken("a hardware call for a key without a record, key " + std::to_string(entry.key().value()));
  U32 const ti = entry.tableIndexs() ? entry.tableIndex(Vantrel::TableKey(0)) : Vantrel::noIndex;
  audit(*state_, choice_, {kind, entry.key().value(), ti});
  hardware_.call(kind, entry, c->prio, c->pg);
}

void Differ::onTrace(std::string_view text, std::span<U64 const> values) {
  if (values.size() != 2) return;
  if (text.starts_with("deadlock check key:")) choices_.candidates.push_back(values[1]);
  if (text.starts_with("found mixed ring key:")) choices_.victims.push_back(values[1]);
}

void Differ::compare() {
  require(broken_.empty(), "inside a hardware call: ", broken_);
  try {
    audit(*state_, choice_);
  } catch (Broken const& error) {
    throw Difference(std::string("after the step: ") + error.what());
  }
  compareEvents();
  compareRecords();
  if (!world_->engine()) return;
  compareHandles();
  compareRest();
}

void Differ::compareEvents() const {
  if (events_ == model_.events) return;
  throw Difference("events differ; the engine's:" + shownEvents(events_) +
                   "\nthe model's:" + shownEvents(model_.events));
}

void Differ::compareRecords() const {
  require(state_->cstate.size() == model_.records().size(), "the engine knows other keys than the model");
  std::size_t programmed = 0;
  for (ModelRecord const& m : model_.records()) {
    CState_s const* const c = state_->record(EntryKey(m.key));
    require(c && sameRecord(m, *c), "the records of key ", m.key, " differ");
    if (m.at != nowhere) ++programmed;
  }
  require(programmed == hardware_.size(),
          "the hardware holds another number of entries than the engine believes");
  bool const sameQueue =
      std::equal(state_->workq.begin(), state_->workq.end(), model_.workq().begin(), model_.workq().end(),
                 [](EntryKey const& a, U64 b) { return a.value() == b; });
  require(sameQueue, "the work queues differ");
  require(state_->blocked.size() == model_.blocked().size(), "the blocked sets differ");
  for (U64 key : model_.blocked())
    require(state_->blocked.contains(EntryKey(key)), "only the model has blocked key ", key);
}

void Differ::compareHandles() const {
  auto const& handles = world_->engine()->handleToKey();
  auto const& keys = world_->engine()->keyToHandle();
  require(handles.size() == model_.handleToKey().size(), "handleToKey differs in size");
  for (auto const& [handle, key] : model_.handleToKey()) {
    auto const at = handles.find(handle);
    require(at != handles.end() && at->second.value() == key, "handleToKey differs at ", handle);
  }
  require(keys.size() == model_.keyToHandle().size(), "keyToHandle differs in size");
  for (auto const& [key, handle] : model_.keyToHandle()) {
    auto const at = keys.find(EntryKey(key));
    require(at != keys.end() && at->second == handle, "keyToHandle differs at ", key);
  }
}

void Differ::compareRest() const {
  if (world_->counters() != model_.counters())
    throw Difference("counters differ; the engine's:\n  " + print(world_->counters()) + "\nthe model's:\n  " +
                     print(model_.counters()));
  require(world_->wheel().earliest() == model_.wakeUp(), "the armed wake-ups differ");
  require(world_->engine()->dirty() == model_.dirty(), "the dirty marks differ");
  if (world_->snapshot() != model_.snapshot())
    throw Difference("snapshots differ; the engine's:\n  " + print(world_->snapshot()) +
                     "\nthe model's:\n  " + print(model_.snapshot()));
  require(world_->statuses().size() == model_.statuses().size(), "the status tables differ in size");
  for (auto const& [key, opId] : model_.statuses())
    require(world_->statuses().entry(EntryKey(key)).opId().value() == opId, "the statuses of key ", key,
            " differ");
  for (ModelRecord const& m : model_.records())
    require(world_->engine()->currentOpId(EntryKey(m.key)).value() == m.opId, "currentOpId differs");
}

std::string differenceIn(Scenario const& scenario) {
  Differ differ(scenario.engine);
  U64 number = 0;
  try {
    for (Step const& step : scenario.steps) {
      ++number;
      differ.run(step);
    }
  } catch (Difference const& error) {
    return "step " + std::to_string(number) + " " + print(scenario.steps[number - 1]) + "\n" + error.what();
  }
  return "";
}

}  // namespace Testing
