// SPDX-License-Identifier: Apache-2.0
#include "testing/model/model.h"

#include <algorithm>
#include <sstream>

namespace Testing {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

constexpr U64 deleteMarker = 0xFFFFFFFFFFFF0000;

bool contains(std::vector<U64> const& keys, U64 key) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}
void drop(std::vector<U64>& keys, U64 key) { std::erase(keys, key); }
template <class Error, class... Parts>
void otherwise(bool condition, Parts const&... parts) {
  if (condition) [[likely]]
    return;
  std::ostringstream what;
  (what << ... << parts);
  throw Error(what.str());
}
template <class... Parts>
void require(bool condition, Parts const&... parts) {
  otherwise<Illegal>(condition, parts...);
}
void survive(bool condition, char const* assertion) { otherwise<Fatal>(condition, "assertion ", assertion); }
bool unchanged(U64 wanted, U64 programmed) {
  return (wanted & 0xFFFF) == (programmed & 0xFFFF) && (wanted >> 16) - (programmed >> 16) <= 65535;
}
bool samePriority(ModelRecord const& a, ModelRecord const& b) { return a.prio == b.prio && a.pg == b.pg; }

}  // namespace

Model::Model(EngineChoice const& engine) : engine_(engine), shift_(engine.shift()) {}

void Model::start() { fullWalk({}); }

void Model::run(Step const& step, Choices const& choices) {
  choices_ = &choices;
  candidatesTaken_ = 0;
  victimsTaken_ = 0;
  switch (step.what) {
    case Do::Put:
      table_[step.key()] = step.entry;
      if (!step.quiet) frontEndHandleEntry(step.key());
      break;
    case Do::Remove:
      table_.erase(step.key());
      if (!step.quiet) frontEndHandleEntry(step.key());
      break;
    case Do::Notify:
      frontEndHandleEntry(step.key());
      break;
    case Do::Walk:
      fullWalk(choices);
      break;
    case Do::Fail:
      fails_[step.key()] = step.times;
      break;
    case Do::Advance:
      advanceClock(step.seconds);
      break;
    case Do::Set:
      setAttribute(step);
      break;
    case Do::Debug:
      requestDebug(step.version);
      break;
    case Do::Show:
      break;
    case Do::Cleanup:
      cleanUp(choices);
      break;
  }
  require(candidatesTaken_ == choices.candidates.size(),
          "the deadlock check took more candidates than it should");
  require(victimsTaken_ == choices.victims.size(), "a victim where nothing was stuck");
  checkHardware();
  checkClaims();
  choices_ = nullptr;
}

Counters Model::counters() const {
  Counters c;
  c.tableCounter = tableCounter_;
  c.flushCounter = flushCounter_;
  c.initialFlushed = initialFlushed_;
  c.retryTimerSet = retryTimerSet_;
  c.failedKey = failed_;
  c.failedDepCnt = failedDepCnt_;
  for (ModelRecord const& r : records_)
    if (initialized_ && r.waitsFor != nowhere) ++c.numPending;
  c.numDeadlock = deadlockCount_;
  c.numMixedRings = numMixedRings_;
  return c;
}

void Model::frontEndHandleEntry(U64 key) {
  if (!smInitialized_) return;
  try {
    handleEntry(key);
  } catch (GiveUp const&) {
    scheduleRetry(key);
  }
}

void Model::fullWalk(Choices const& choices) {
  if (!smInitialized_) return;
  std::vector<U64> sorted = choices.order;
  std::sort(sorted.begin(), sorted.end());
  std::vector<U64> present;
  for (auto const& [key, entry] : table_) present.push_back(key);
  require(sorted == present, "a walk must visit each key of the table once");
  for (U64 key : choices.order) frontEndHandleEntry(key);
  flush();
  if (!initialFlushed_) {
    initialFlushed_ = true;
    flushCounter_ = (flushCounter_ + 1) % 256;
  }
}

void Model::scheduleRetry(U64 key) {
  if (!retryTimerSet_) {
    wakeUp_ = now_ + retryPeriod_;
    retryTimerSet_ = true;
  }
  if (contains(failed_, key)) return;
  failed_.push_back(key);
  std::sort(failed_.begin(), failed_.end());
}

void Model::retryPass() {
  retryTimerSet_ = false;
  std::optional<U64> last;
  while (true) {
    auto const next =
        std::find_if(failed_.begin(), failed_.end(), [&](U64 key) { return !last || key > *last; });
    if (next == failed_.end()) return;
    last = *next;
    failed_.erase(next);
    frontEndHandleEntry(*last);
  }
}

void Model::advanceClock(double seconds) {
  double const end = now_ + seconds;
  while (wakeUp_ && *wakeUp_ <= end) {
    now_ = std::max(now_, *wakeUp_);
    wakeUp_.reset();
    retryPass();
  }
  now_ = end;
}

void Model::requestDebug(U32 version) {
  if (debugVersion_ == version) return;
  debugVersion_ = version;
  if (smInitialized_) answerDebug();
}

void Model::setAttribute(Step const& step) {
  std::string const& name = step.attribute;
  auto const flag = [&] { return std::get<bool>(step.value); };
  auto const number = [&] { return std::get<U64>(step.value); };
  if (name == "initialized")
    (step.on == "sm" ? smInitialized_ : initialized_) = flag();
  else if (name == "initialFlushed")
    initialFlushed_ = flag();
  else if (name == "retryTimerSet")
    retryTimerSet_ = flag();
  else if (name == "retryPeriod")
    retryPeriod_ = std::holds_alternative<U64>(step.value) ? static_cast<double>(number())
                                                           : std::get<double>(step.value);
  else if (name == "retryDepsMaxCnt")
    retryDepsMaxCnt_ = static_cast<U32>(number());
  else if (name == "failedDepCnt")
    failedDepCnt_ = number();
  else if (name == "debugEnabled")
    debugEnabled_ = flag();
  else if (name == "dirty")
    dirty_ = flag();
  else if (name == "alwaysProcessPending")
    alwaysProcessPending_ = flag();
  else if (name == "deadlockCount")
    deadlockCount_ = static_cast<U32>(number());
  else if (name == "breakMixedRings")
    breakMixedRingsIs(flag());
  else
    throw Illegal("the model has no attribute " + name);
}

void Model::handleEntry(U64 key) {
  if (!initialized_) return;
  bool const changed = dispatch(key);
  if (changed || alwaysProcessPending_) drain();
  checkDeadlock();
}

EntryConfig Model::read(U64 key) const {
  auto const at = table_.find(key);
  return at == table_.end() ? EntryConfig() : at->second;
}

// One attempt; a scenario may have ordered the next few to fail.
bool Model::programDependants(U64 key) {
  auto const at = fails_.find(key);
  if (at == fails_.end() || at->second == 0) return true;
  if (at->second > 0) --at->second;
  return false;
}

EntryConfig Model::readWithDependants(U64 key) {
  for (U64 attempts = 0;;) {
    EntryConfig const entry = read(key);
    bool const done = programDependants(key);
    if (entry == EntryConfig() || entry.isDel() || done) return entry;
    if (++attempts < retryDepsMaxCnt_) continue;
    ++failedDepCnt_;
    throw GiveUp{};
  }
}

bool Model::dispatch(U64 key) {
  survive(initialized_, "initialized()");
  EntryConfig const entry = readWithDependants(key);
  auto const dump = [&] {
    if (debugEnabled_ && dirty_) dirty_ = false;
  };
  dump();
  bool const gone = entry == EntryConfig() || entry.isDel();
  bool const result = gone ? dispatchDelete(key, entry.isDel()) : dispatchEntry(entry, key);
  dump();
  return result;
}

bool Model::dispatchDelete(U64 key, bool ack) {
  bool const result = processDelete(key, false, ack);
  auto const at = keyToHandle_.find(key);
  if (at != keyToHandle_.end()) {
    handleToKey_.erase(at->second);
    keyToHandle_.erase(at);
  }
  return result;
}

bool Model::dispatchEntry(EntryConfig const& entry, U64 key) {
  U64 const h = entry.hdl();
  bool deleted = false;
  auto const owner = handleToKey_.find(h);
  if (owner == handleToKey_.end()) {
    handleToKey_[h] = key;
    keyToHandle_[key] = h;
  } else if (owner->second != key) {
    U64 const old = owner->second;
    deleted = processDelete(old, false, read(key).isDel());
    keyToHandle_.erase(old);
    keyToHandle_[key] = h;
    handleToKey_[h] = key;
  }
  bool const processed = processEntry(entry);
  return processed || deleted;
}

U32 Model::precedence(U16 pg, U32 ti) const {
  if (!engine_.atcam) {
    survive((U64{ti} >> shift_) == 0, "ti < ( 1UL << prioGrpShift() )");
    survive((U64{pg} >> (32 - shift_)) == 0, "pg < ( 1UL << ( 32 - prioGrpShift() ) )");
    return static_cast<U32>((U64{pg} << shift_) | ti);
  }
  U32 const offset = ti / engine_.maxPartitions;
  U32 const partition = ti % engine_.maxPartitions;
  survive(partition == pg, "pg == partition");
  survive(offset <= 0xFFFF, "offset < ( 1UL << 16 )");
  return static_cast<U32>(offset | (U64{partition} << shift_));
}

U32 Model::positionOf(U32 p) const {
  U32 const low = static_cast<U32>(p & ((U64{1} << shift_) - 1));
  if (!engine_.atcam) return low;
  return low * engine_.maxPartitions + static_cast<U32>(U64{p} >> shift_);
}

ModelRecord const* Model::below(U16 pg, U32 ti) const {
  U32 const p = precedence(pg, ti);
  ModelRecord const* nearest = nullptr;
  for (ModelRecord const& r : records_)
    if (r.at != nowhere && precedence(r.pg, r.at) < p)
      if (!nearest || precedence(r.pg, r.at) > precedence(nearest->pg, nearest->at)) nearest = &r;
  return nearest;
}

ModelRecord const* Model::above(U16 pg, U32 ti) const {
  U32 const p = precedence(pg, ti);
  ModelRecord const* nearest = nullptr;
  for (ModelRecord const& r : records_)
    if (r.at != nowhere && precedence(r.pg, r.at) > p)
      if (!nearest || precedence(r.pg, r.at) < precedence(nearest->pg, nearest->at)) nearest = &r;
  return nearest;
}

ModelRecord const* Model::occupant(U32 ti) const {
  for (ModelRecord const& r : records_)
    if (r.at == ti) return &r;
  return nullptr;
}

ModelRecord const* Model::outOfOrderWith(ModelRecord const& record, U32 ti) const {
  ModelRecord const* const lower = below(record.pg, ti);
  if (lower && lower->pg == record.pg && lower->prio > record.prio) return lower;
  ModelRecord const* const upper = above(record.pg, ti);
  if (upper && upper->pg == record.pg && upper->prio < record.prio) return upper;
  return nullptr;
}

ModelRecord* Model::find(U64 key) {
  for (ModelRecord& r : records_)
    if (r.key == key) return &r;
  return nullptr;
}

ModelRecord* Model::waiter(U32 ti) {
  for (ModelRecord& r : records_)
    if (r.waitsFor == ti) return &r;
  return nullptr;
}

void Model::endClaim(ModelRecord& r) {
  r.waitOpId = 0;
  r.waitsFor = nowhere;
  r.why = Wait::None;
}

void Model::wake(U32 ti) {
  ModelRecord const* const r = waiter(ti);
  if (r && !contains(workq_, r->key)) workq_.push_back(r->key);
}

// Every waiter of the group at a position in [lo, hi), from the lowest position upward.
void Model::wakeBetween(U16 pg, U64 lo, U64 hi) {
  std::vector<U32> positions;
  for (ModelRecord const& r : records_)
    if (r.waitsFor != nowhere && r.waitsFor >= lo && r.waitsFor < hi && r.pg == pg)
      positions.push_back(r.waitsFor);
  std::sort(positions.begin(), positions.end());
  for (U32 ti : positions) wake(ti);
}

bool Model::conflicts(EntryConfig const& entry) {
  dirty_ = true;
  U64 const key = entry.key().value();
  if (!find(key)) {
    ModelRecord fresh;
    fresh.key = key;
    fresh.hdl = entry.hdl();
    fresh.prio = entry.prio();
    fresh.pg = entry.pg();
    records_.push_back(fresh);
  }
  ModelRecord& r = *find(key);
  if (r.opId >= entry.opId().value()) {
    endClaim(r);
    return true;
  }
  U32 const ti = entry.tableIndex(TableKey(0));
  auto const blocked = [&] {
    if (!contains(blocked_, key)) blocked_.push_back(key);
    return true;
  };
  if (r.at == ti) {
    wake(ti);
  } else if (occupant(ti)) {
    claim(r, entry, ti, Wait::Occupied);
    return blocked();
  } else if (outOfOrderWith(r, ti)) {
    claim(r, entry, ti, Wait::Priority);
    return blocked();
  } else if (ModelRecord* const other = waiter(ti); other && other != &r) {
    endClaim(*other);
    ++claimsLost_;
  }
  endClaim(r);
  drop(blocked_, key);
  return false;
}

// The newest version keeps the claim on a position, and an equal one takes it over.
void Model::claim(ModelRecord& r, EntryConfig const& entry, U32 ti, Wait why) {
  ModelRecord* const holder = waiter(ti);
  if (holder && holder->waitOpId > entry.opId().value()) {
    survive(why == Wait::Priority || holder != &r, "c->key != cp->key");
    endClaim(r);
    ++claimsLost_;
    return;
  }
  if (holder && holder != &r) ++claimsLost_;
  if (holder) endClaim(*holder);
  endClaim(r);
  r.waitOpId = entry.opId().value();
  r.waitsFor = ti;
  r.why = why;
}

bool Model::processEntry(EntryConfig const& entry) {
  survive(initialized_, "initialized()");
  survive(entry.tableIndexs() == 1, "entry.tableIndexs() == 1");
  if (conflicts(entry)) return false;
  U64 const key = entry.key().value();
  U64 const opId = entry.opId().value();
  U32 const ti = entry.tableIndex(TableKey(0));
  ModelRecord& r = *find(key);
  if (r.at == nowhere) {
    r.at = ti;
    hardware(EventKind::Add, entry);
  } else {
    survive(opId > r.opId, "entry.opId() > c->opId");
    bool const same = unchanged(opId, r.opId);
    if (same && ti == r.at) statusIs(key, opId);
    if (!same) hardware(EventKind::Update, entry);
    if (ti != r.at) moveRecord(key, ti, entry);
  }
  r.opId = opId;
  dirty_ = true;
  return true;
}

void Model::moveRecord(U64 key, U32 to, EntryConfig const& entry) {
  ModelRecord& r = *find(key);
  U32 const from = r.at;
  r.at = to;
  hardware(EventKind::Move, entry);
  wake(from);
  wakeMoveRange(r, from, to);
}

// The waiters of the group in the stretch that the moved entry left behind, up to the next entry that bounds
// it.
void Model::wakeMoveRange(ModelRecord const& moved, U32 from, U32 to) {
  ModelRecord const* const prev = below(moved.pg, from);
  ModelRecord const* const next = above(moved.pg, from);
  U64 lo = 0;
  U64 hi = 0;
  if (from > to) {
    if (next && samePriority(*next, moved)) return;
    lo = U64{to} + 1;
    if (prev && prev->pg == moved.pg && prev->at > to) lo = U64{prev->at} + 1;
    hi = from;
  } else {
    if (prev && samePriority(*prev, moved)) return;
    lo = U64{from} + 1;
    hi = to;
    if (next && next->pg == moved.pg && next->at < to) hi = next->at;
  }
  wakeBetween(moved.pg, lo, hi);
}

bool Model::processDelete(U64 key, bool deadlock, bool ack) {
  survive(initialized_, "initialized()");
  ModelRecord* const r = find(key);
  if (!r) {
    ack ? statusIs(key, deleteMarker) : statusDel(key);
    return false;
  }
  endClaim(*r);
  ModelRecord const gone = *r;
  EntryConfig order(EntryKey(key), OpId(ack ? deleteMarker : gone.opId), gone.hdl, 0, gone.prio);
  if (gone.at == nowhere) {
    if (ack) statusIs(key, deleteMarker);
  } else {
    order.tableIndexIs(TableKey(0), gone.at);
    r->at = nowhere;
    wake(gone.at);
    wakeDeleteRange(gone);
    hardware(deadlock ? EventKind::DeleteDeadlock : EventKind::Delete, order);
  }
  std::erase_if(records_, [&](ModelRecord const& x) { return x.key == key; });
  drop(blocked_, key);
  dirty_ = true;
  return true;
}

// The waiters of the group between the neighbours of the entry that went; a neighbour of the same priority
// bounds what its side could have blocked to the gone entry's own position.
void Model::wakeDeleteRange(ModelRecord const& gone) {
  ModelRecord const* const prev = below(gone.pg, gone.at);
  ModelRecord const* const next = above(gone.pg, gone.at);
  bool const prevSame = prev && samePriority(*prev, gone);
  bool const nextSame = next && samePriority(*next, gone);
  if (prevSame && nextSame) return;
  U64 lo = 0;
  U64 hi = nowhere;
  if (prev && prev->pg == gone.pg) lo = U64{positionOf(precedence(prev->pg, prev->at))} + 1;
  if (next && next->pg == gone.pg) hi = positionOf(precedence(next->pg, next->at));
  if (nextSame) lo = U64{gone.at} + 1;
  if (prevSame) hi = gone.at;
  wakeBetween(gone.pg, lo, hi);
}

void Model::drain() {
  survive(initialized_, "initialized()");
  while (!workq_.empty()) {
    U64 const key = workq_.front();
    workq_.erase(workq_.begin());
    retry(key);
  }
}

// With breakMixedRings a key that fails loses its claim and is retried by the front end.
void Model::retry(U64 key) {
  try {
    dispatch(key);
  } catch (GiveUp const&) {
    if (!breakMixedRings_) {
      ++lostInDrain_;
      throw;
    }
    if (ModelRecord* const r = find(key)) endClaim(*r);
    dirty_ = true;
    scheduleRetry(key);
  }
}

void Model::checkDeadlock() {
  breakRings();
  if (breakMixedRings_) breakMixedRings();
}

void Model::breakRings() {
  std::vector<U64> visited;
  while (!blocked_.empty()) {
    U64 const start = nextCandidate();
    drop(blocked_, start);
    if (ringFrom(start, visited)) breakRing(start);
  }
}

U64 Model::nextCandidate() {
  if (blocked_.size() > 1) ++choicesMade_;
  if (choices_ && choices_->foreseen) return blocked_.front();
  require(choices_ && candidatesTaken_ < choices_->candidates.size(),
          "the deadlock check stopped while keys were blocked");
  U64 const candidate = choices_->candidates[candidatesTaken_++];
  require(contains(blocked_, candidate), "a candidate that is not blocked: ", candidate);
  return candidate;
}

// Follows who waits for whom, from `start`; true when that leads back to it.
bool Model::ringFrom(U64 start, std::vector<U64>& visited) {
  for (U64 key = start; !contains(visited, key);) {
    visited.push_back(key);
    ModelRecord const* const r = find(key);
    survive(r != nullptr, "c");
    EntryConfig const config = read(key);
    if (config == EntryConfig()) return false;
    bool const waitsToMove = r->at != nowhere && r->waitsFor != nowhere && r->waitsFor != r->at &&
                             config.tableIndexs() > 0 && config.tableIndex(TableKey(0)) == r->waitsFor;
    if (!waitsToMove || r->why != Wait::Occupied) return false;
    ModelRecord const* const holder = occupant(r->waitsFor);
    survive(holder || breakMixedRings_, "PValue");
    if (!holder) return false;
    if (holder->key == start) return true;
    key = holder->key;
  }
  return false;
}

void Model::breakRing(U64 start) {
  takeOutAndBack(start);
  ++deadlockCount_;
}

void Model::takeOutAndBack(U64 key) {
  processDelete(key, true, false);
  retry(key);
  drain();
}

// Every claim is tried again when the search is switched on: its wake-up may have been lost before.
void Model::breakMixedRingsIs(bool v) {
  if (v && !breakMixedRings_) {
    std::map<U32, U64> claims;
    for (ModelRecord const& r : records_)
      if (r.waitsFor != nowhere) claims[r.waitsFor] = r.key;
    for (auto const& [ti, key] : claims) wake(ti);
  }
  breakMixedRings_ = v;
}

void Model::breakMixedRings() {
  while (auto const victim = nextMixedVictim()) {
    takeOutAndBack(*victim);
    ++numMixedRings_;
    breakRings();
  }
}

// No ring may stand when the check ends.
std::optional<U64> Model::nextMixedVictim() {
  std::vector<U64> const legal = cheapestOfEachRing();
  if (legal.empty()) return std::nullopt;
  if (choices_ && choices_->foreseen) return legal.front();
  require(choices_ && victimsTaken_ < choices_->victims.size(), "a ring that is stuck was not broken, key ",
          legal.front());
  U64 const victim = choices_->victims[victimsTaken_++];
  require(contains(legal, victim), "a victim that is not the cheapest of a stuck ring: ", victim);
  return victim;
}

// A member that is rewritten before it is moved takes two calls, as out and back does; one that is only moved
// takes one.
std::vector<U64> Model::cheapestOfEachRing() const {
  std::vector<U64> all;
  for (ModelRecord const& start : records_) {
    std::vector<ModelRecord const*> const ring = ringOf(start);
    bool stuck = !ring.empty();
    for (ModelRecord const* a : ring) {
      if (mayStillGo(*a)) stuck = false;
      for (ModelRecord const* b : ring)
        if (contradict(*a, *b)) stuck = false;
    }
    if (!stuck) continue;
    ModelRecord const* best = nullptr;
    for (ModelRecord const* r : ring) {
      bool const better = !best || (unchanged(r->waitOpId, r->opId) == unchanged(best->waitOpId, best->opId)
                                        ? r->at > best->at
                                        : unchanged(best->waitOpId, best->opId));
      if (better) best = r;
    }
    if (!contains(all, best->key)) all.push_back(best->key);
  }
  return all;
}

// The entries from one to the next that it waits for, back to the first; empty when that does not come back.
std::vector<ModelRecord const*> Model::ringOf(ModelRecord const& start) const {
  std::vector<ModelRecord const*> ring;
  for (ModelRecord const* r = &start; ring.size() < records_.size(); r = obstacleOf(*r)) {
    if (!r) return {};
    ring.push_back(r);
    if (obstacleOf(*r) == &start) return ring;
  }
  return {};
}

ModelRecord const* Model::obstacleOf(ModelRecord const& r) const {
  if (r.at == nowhere || r.why == Wait::None) return nullptr;
  return r.why == Wait::Occupied ? occupant(r.waitsFor) : outOfOrderWith(r, r.waitsFor);
}

// Whether both cannot have what they claim.
bool Model::contradict(ModelRecord const& a, ModelRecord const& b) const {
  return a.pg == b.pg && precedence(a.pg, a.waitsFor) < precedence(b.pg, b.waitsFor) && a.prio > b.prio;
}

bool Model::mayStillGo(ModelRecord const& r) const {
  EntryConfig const config = read(r.key);
  bool const asClaimed = config.tableIndexs() > 0 && config.tableIndex(TableKey(0)) == r.waitsFor;
  return contains(workq_, r.key) || config == EntryConfig() || config.isDel() || !asClaimed;
}

void Model::answerDebug() {
  if (debugVersion_ == snapshot_.version) return;
  snapshot_ = Snapshot{};
  for (ModelRecord const& r : records_) {
    if (debugVersion_ == 0) break;
    if (r.waitsFor != nowhere) snapshot_.pending[r.waitsFor] = r.key;
    if (r.waitsFor != nowhere) snapshot_.pendingOpId[r.key] = r.waitOpId;
    if (r.at != nowhere) snapshot_.status[r.at] = r.key;
    if (r.at != nowhere) snapshot_.statusOpId[r.key] = r.opId;
  }
  snapshot_.version = debugVersion_;
}

void Model::cleanUp(Choices const& choices) {
  std::vector<U64> sorted = choices.order;
  std::sort(sorted.begin(), sorted.end());
  std::vector<U64> handled;
  for (auto const& [key, handle] : keyToHandle_) handled.push_back(key);
  require(sorted == handled, "the cleanup must visit each key that has a handle once");
  for (U64 key : choices.order) {
    processDelete(key, false, false);
    statusDel(key);
  }
  flush();
}

void Model::hardware(EventKind kind, EntryConfig const& entry) {
  events.push_back({kind, entry});
  checkHardware();
}

void Model::statusIs(U64 key, U64 opId) {
  statuses_[key] = opId;
  events.push_back({EventKind::Status, EntryConfig(EntryKey(key), OpId(opId), 0, 0, 0)});
}

void Model::statusDel(U64 key) {
  statuses_.erase(key);
  events.push_back({EventKind::StatusDel, EntryConfig(EntryKey(key), OpId(0), 0, 0, 0)});
}

void Model::flush() { events.push_back({EventKind::Flush, EntryConfig()}); }

void Model::checkHardware() const {
  for (ModelRecord const& a : records_)
    for (ModelRecord const& b : records_) {
      if (&a == &b || a.at == nowhere || b.at == nowhere) continue;
      require(a.at != b.at, "two entries at position ", a.at);
      bool const ordered =
          a.pg != b.pg || precedence(a.pg, a.at) > precedence(b.pg, b.at) || a.prio <= b.prio;
      require(ordered, "order broken between positions ", a.at, " and ", b.at);
    }
}

void Model::checkClaims() const {
  for (ModelRecord const& a : records_)
    for (ModelRecord const& b : records_)
      require(&a == &b || a.waitsFor == nowhere || a.waitsFor != b.waitsFor, "two entries wait for position ",
              a.waitsFor);
}

}  // namespace Testing
