// SPDX-License-Identifier: Apache-2.0
#include "bench/engine/floor.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>

namespace Bench {

using Vantrel::EntryStatus;
using Vantrel::noIndex;
using Vantrel::PendingType;

namespace {

// An empty array is not asked, here as in the engine.
Vantrel::CState_s* at(Pcvoid_t array, Word_t index) {
  if (!array) return nullptr;
  PPvoid_t const slot = JudyLGet(array, index, PJE0);
  return slot ? static_cast<Vantrel::CState_s*>(*slot) : nullptr;
}
void put(Pvoid_t& array, Word_t index, void* value) { *JudyLIns(&array, index, PJE0) = value; }

}  // namespace

// The pool gets the records back in the order in which a fresh one has them.
Floor::~Floor() {
  std::vector<CState*> records;
  for (auto const& [key, record] : cstate_) records.push_back(record);
  std::ranges::sort(records, std::greater<>());
  for (CState* record : records) pool_.cstateFree(record);
  for (Pvoid_t* array : {&pending_, &current_, &precedence_}) JudyLFreeArray(array, PJE0);
  Judy1FreeArray(&workqSet_, PJE0);
}

Places Floor::placesIn(Pcvoid_t array) {
  Places all;
  Word_t ti = 0;
  for (PPvoid_t slot = JudyLFirst(array, &ti, PJE0); slot; slot = JudyLNext(array, &ti, PJE0)) {
    auto const* const c = static_cast<CState*>(*slot);
    all.emplace_back(static_cast<U32>(ti), c->key, c->opId);
  }
  return all;
}

// The whole record is read, as for programming it, not only its version and handle.
EntryConfig Floor::read(EntryKey key) const {
  EntryConfig entry = table_->LocalTable::entry(key);
  benchmark::DoNotOptimize(&entry);
  benchmark::ClobberMemory();
  return entry;
}

// On its way while other data of the key are read.
Vantrel::CState_s& Floor::find(EntryKey key) {
  CState* const c = cstate_.find(key)->second;
  __builtin_prefetch(c);
  return *c;
}

EntryConfig Floor::head(EntryKey key) const {
  EntryConfig entry = read(key);
  benchmark::DoNotOptimize(handleToKey_.find(entry.hdl())->second);
  return entry;
}

Vantrel::CState_s& Floor::enter(EntryConfig const& entry) {
  CState*& slot = cstate_.try_emplace(entry.key(), nullptr).first->second;
  slot = pool_.cstateAlloc();
  *slot = {entry.key(),  OpId(),    {OpId(), noIndex, PendingType::None}, entry.hdl(), noIndex,
           entry.prio(), entry.pg()};
  return *slot;
}

void Floor::neighbours(U32 pti) {
  Word_t below = pti, above = pti;
  PPvoid_t const previous = JudyLPrev(precedence_, &below, PJE0);
  PPvoid_t const next = JudyLNext(precedence_, &above, PJE0);
  // Their priorities are read: two records that nothing else touches.
  if (previous) benchmark::DoNotOptimize(static_cast<CState*>(*previous)->prio);
  if (next) benchmark::DoNotOptimize(static_cast<CState*>(*next)->prio);
}

// What decides whether the entry may take the position: its occupant, its neighbours, its claim.
void Floor::lookUp(CState const& c, U32 ti) {
  benchmark::DoNotOptimize(at(current_, ti));
  neighbours(pti(c, ti));
  benchmark::DoNotOptimize(at(pending_, ti));
}

void Floor::enterAt(CState& c, U32 ti) {
  put(current_, ti, &c);
  put(precedence_, pti(c, ti), &c);
  c.sti = ti;
}

void Floor::leave(CState const& c) {
  JudyLDel(&current_, c.sti, PJE0);
  JudyLDel(&precedence_, pti(c, c.sti), PJE0);
}

void Floor::add(EntryKey key) {
  EntryConfig const entry = read(key);
  handleToKey_.try_emplace(entry.hdl(), key);
  keyToHandle_.try_emplace(key, entry.hdl());
  CState& c = enter(entry);
  U32 const ti = entry.tableIndex(TableKey(0));
  lookUp(c, ti);
  enterAt(c, ti);
  c.opId = entry.opId();
}

void Floor::update(EntryKey key) {
  CState& c = find(key);
  EntryConfig const entry = head(key);
  benchmark::DoNotOptimize(at(pending_, c.sti));
  c.opId = entry.opId();
}

void Floor::acknowledge(EntryKey key) {
  CState& c = find(key);
  EntryConfig const entry = head(key);
  benchmark::DoNotOptimize(at(pending_, c.sti));
  status_->entryQuietlyIs(EntryStatus(key, entry.opId()));
  c.opId = entry.opId();
}

void Floor::move(EntryKey key) {
  CState& c = find(key);
  EntryConfig const entry = head(key);
  U32 const ti = entry.tableIndex(TableKey(0));
  U32 const old = c.sti;
  lookUp(c, ti);
  leave(c);
  enterAt(c, ti);
  c.opId = entry.opId();
  benchmark::DoNotOptimize(at(pending_, old));
  neighbours(pti(c, old));
}

void Floor::claim(CState& c, EntryConfig const& entry) {
  U32 const ti = entry.tableIndex(TableKey(0));
  benchmark::DoNotOptimize(at(current_, ti));
  put(pending_, ti, &c);
  c.p = {entry.opId(), ti, PendingType::Occupied};
}

void Floor::blockedAndFollowed(CState& c) {
  blocked_.insert(c.key);
  blocked_.erase(blocked_.begin());
  benchmark::DoNotOptimize(cstate_.find(c.key)->second->p.ti);
  read(c.key);
}

void Floor::block(EntryKey key) {
  EntryConfig const entry = read(key);
  handleToKey_.try_emplace(entry.hdl(), key);
  keyToHandle_.try_emplace(key, entry.hdl());
  CState& c = enter(entry);
  claim(c, entry);
  blockedAndFollowed(c);
}

void Floor::blockMove(EntryKey key) {
  CState& c = find(key);
  EntryConfig const entry = head(key);
  claim(c, entry);
  blockedAndFollowed(c);
  benchmark::DoNotOptimize(at(current_, c.p.ti));
}

void Floor::queue(U32 ti) {
  CState* const waiter = at(pending_, ti);
  if (waiter && Judy1Set(&workqSet_, waiter->key.value(), PJE0)) workq_.push_back(waiter->key);
}

EntryKey Floor::takeQueued() {
  EntryKey const key = workq_.front();
  workq_.pop_front();
  Judy1Unset(&workqSet_, key.value(), PJE0);
  return key;
}

// Claims of other groups are met and passed over.
void Floor::wakeBetween(CState const& c, Word_t lo, Word_t hi) {
  if (!pending_) return;
  for (PPvoid_t slot = JudyLFirst(pending_, &lo, PJE0); slot && lo < hi;
       slot = JudyLNext(pending_, &lo, PJE0))
    if (static_cast<CState*>(*slot)->pg == c.pg) queue(static_cast<U32>(lo));
}

void Floor::withdraw(CState& c) {
  leave(c);
  queue(c.sti);
  Word_t const mask = (Word_t{1} << shift_) - 1;
  Word_t below = pti(c, c.sti), above = below;
  PPvoid_t const previous = JudyLPrev(precedence_, &below, PJE0);
  PPvoid_t const next = JudyLNext(precedence_, &above, PJE0);
  auto const* const before = previous ? static_cast<CState*>(*previous) : nullptr;
  auto const* const after = next ? static_cast<CState*>(*next) : nullptr;
  Word_t lo = 0, hi = noIndex;
  if (before && before->pg == c.pg) lo = (below & mask) + 1;
  if (after && after->pg == c.pg) hi = above & mask;
  if (after && after->samePriority(c)) lo = c.sti + 1;
  if (before && before->samePriority(c)) hi = c.sti;
  if (lo < hi) wakeBetween(c, lo, hi);
  cstate_.erase(c.key);
  pool_.cstateFree(&c);
}

void Floor::forgetHandles(EntryKey key) {
  auto const handle = keyToHandle_.find(key);
  handleToKey_.erase(handle->second);
  keyToHandle_.erase(handle);
}

void Floor::remove(EntryKey key) {
  CState& c = find(key);
  read(key);
  withdraw(c);
  forgetHandles(key);
}

void Floor::unblock(EntryKey key) {
  CState& c = *cstate_.find(key)->second;
  JudyLDel(&pending_, c.p.ti, PJE0);
  cstate_.erase(key);
  pool_.cstateFree(&c);
  forgetHandles(key);
}

void Floor::programWoken() {
  EntryKey const key = takeQueued();
  CState& c = find(key);
  EntryConfig const entry = head(key);
  U32 const ti = entry.tableIndex(TableKey(0));
  lookUp(c, ti);
  JudyLDel(&pending_, ti, PJE0);
  enterAt(c, ti);
  c.opId = entry.opId();
  c.p = {OpId(), noIndex, PendingType::None};
}

void Floor::removeWaking(EntryKey key) {
  remove(key);
  programWoken();
}

void Floor::moveWoken() {
  EntryKey const key = takeQueued();
  CState& c = find(key);
  EntryConfig const entry = head(key);
  U32 const ti = entry.tableIndex(TableKey(0));
  U32 const old = c.sti;
  lookUp(c, ti);
  JudyLDel(&pending_, ti, PJE0);
  blocked_.erase(key);
  if (old != noIndex) leave(c);
  enterAt(c, ti);
  c.opId = entry.opId();
  c.p = {OpId(), noIndex, PendingType::None};
  if (old == noIndex) return;
  queue(old);
  neighbours(pti(c, old));
}

void Floor::closeRing(EntryKey first) {
  blockMove(first);
  Vantrel::FastState::Keys seen;
  for (EntryKey key = first; seen.insert(key).second;) {
    CState const& c = *cstate_.find(key)->second;
    EntryConfig const entry = read(key);
    key = at(current_, entry.tableIndex(TableKey(0)))->key;
    benchmark::DoNotOptimize(c.p.ti);
  }
  CState& victim = *cstate_.find(first)->second;
  JudyLDel(&pending_, victim.p.ti, PJE0);
  withdraw(victim);
  EntryConfig const entry = head(first);
  CState& again = enter(entry);
  claim(again, entry);
  blocked_.insert(first);
  while (!workq_.empty()) moveWoken();
}

void Floor::walk() {
  Table const& table = *table_;
  for (auto place = table.LocalTable::first(); place; place = table.LocalTable::next(*place)) add(place->key);
}

}  // namespace Bench
