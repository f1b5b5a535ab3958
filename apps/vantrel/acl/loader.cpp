// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/loader.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <iterator>
#include <set>
#include <stdexcept>
#include <tuple>

#include "apps/vantrel/acl/diff.h"
#include "apps/vantrel/acl/layout.h"

namespace Acl {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

namespace {

// How many entries a full table gives up at a time before others can take their places.
constexpr U64 sacrifice = 16;

Rule matchOf(Rule rule) {
  rule.action = {};
  return rule;
}

[[noreturn]] void foreign(EntryKey key, std::string const& why) {
  throw std::runtime_error(fmt::format(
      "the configuration table holds key {}, which this load cannot take over: {}", key.value(), why));
}

}  // namespace

Loader::Loader(Vantrel::Producer& producer, Vantrel::Acknowledgements& acknowledgements, U32 size)
    : producer_(producer), acknowledgements_(acknowledgements) {
  U32 const groups = producer.mapping().interleave();
  for (U32 pg = 0; pg < groups; ++pg)
    capacity_.push_back(producer.mapping().capacity(static_cast<U16>(pg), size));
  filled_.resize(groups);
}

void Loader::start(std::vector<Rule> const& rules) {
  U64 all = 0;
  for (U32 const capacity : capacity_) all += capacity;
  if (rules.size() > all)
    throw std::runtime_error(fmt::format("{} rules do not fit into {} positions", rules.size(), all));
  std::vector<Record> const records = readTable();
  agentWorks_ = producer_.anyStatus();
  compare(records, rules);
  auto const leaving = std::ranges::count_if(old_, [](Old const& old) { return !old.successor; });
  if (compared_) compared_(records.size(), static_cast<U64>(leaving));
  begin();
}

std::vector<EntryKey> Loader::keys() const {
  std::vector<EntryKey> keys;
  keys.reserve(targets_.size());
  for (Target const& target : targets_) keys.push_back(target.key);
  return keys;
}

std::vector<Loader::Record> Loader::readTable() {
  std::vector<Record> records;
  boost::unordered_flat_map<U32, U32> named;  // position -> by how many records
  Vantrel::TableConfig const& config = producer_.config();
  for (auto place = config.first(); place; place = config.next(*place)) {
    EntryConfig const entry = readEntry(config, place->key);
    if (entry == EntryConfig()) {
      damaged_.push_back(place->key);
      continue;
    }
    if (entry.tableIndexs() == 1) ++named[entry.tableIndex(TableKey(0))];
    if (entry.isDel()) {
      marked_.push_back(entry.key());
      continue;
    }
    if (entry.tableIndexs() != 1) foreign(entry.key(), "it has not exactly one position");
    auto const rule = decode(entry.dataWords().elements());
    if (!rule) foreign(entry.key(), "its data words are not those of a rule");
    U32 const ti = entry.tableIndex(TableKey(0));
    if (entry.pg() >= capacity_.size()) foreign(entry.key(), fmt::format("it is in group {}", entry.pg()));
    if (auto const wrong = producer_.mapping().violation(entry.pg(), ti)) foreign(entry.key(), *wrong);
    records.push_back({entry.key(), *rule, entry.pg(), entry.prio(), ti, false});
  }
  for (Record& record : records) record.contested = named[record.ti] > 1;
  std::ranges::sort(records, [](Record const& a, Record const& b) {
    return std::tie(a.prio, a.ti, a.key) < std::tie(b.prio, b.ti, b.key);
  });
  return records;
}

void Loader::compare(std::vector<Record> const& records, std::vector<Rule> const& rules) {
  std::vector<Held> held;
  held.reserve(records.size());
  for (Record const& record : records) held.push_back({record.rule, record.prio});
  Diff const difference = diff(held, rules);
  targets_.resize(rules.size());
  for (std::size_t i = 0; i < rules.size(); ++i) {
    targets_[i].rule = rules[i];
    targets_[i].prio = difference.placed[i].prio;
    if (difference.placed[i].held) keep(targets_[i], records[*difference.placed[i].held]);
  }
  for (std::size_t const i : difference.leftover)
    old_.push_back({records[i].key, records[i].pg, records[i].prio, records[i].ti, std::nullopt, false});
  giveUpSurplus();
  pairSuccessors(records);
  for (Target const& target : targets_)
    if (target.presence == Presence::Present) ++filled_[target.pg];
  for (Old const& old : old_) ++filled_[old.pg];
}

void Loader::keep(Target& target, Record const& record) {
  target.presence = Presence::Present;
  target.key = record.key;
  target.pg = record.pg;
  target.ti = record.ti;
  target.update = !(record.rule == target.rule);
  target.contested = record.contested;
  target.unawaited = true;
  ++counts_.kept;
}

// A group that has become too small for the entries that would stay in it: the last ones start anew
// elsewhere.
void Loader::giveUpSurplus() {
  std::vector<U32> stays(capacity_.size());
  bool changed = false;
  for (Target& target : targets_) {
    if (target.presence != Presence::Present || stays[target.pg]++ < capacity_[target.pg]) continue;
    old_.push_back({target.key, target.pg, target.prio, target.ti, std::nullopt, false});
    Target fresh;
    fresh.rule = target.rule;
    fresh.prio = target.prio;
    target = fresh;
    --counts_.kept;
    changed = true;
  }
  if (!changed) return;
  std::ranges::sort(
      old_, [](Old const& a, Old const& b) { return std::tie(a.prio, a.ti) < std::tie(b.prio, b.ti); });
}

// An old entry whose match is wanted at another rank goes when that one is there.
void Loader::pairSuccessors(std::vector<Record> const& records) {
  boost::unordered_flat_map<U64, Rule const*> ruleOf;
  for (Record const& record : records) ruleOf[record.key.value()] = &record.rule;
  boost::unordered_flat_map<Rule, std::vector<std::size_t>, std::hash<Rule>> absentByMatch;
  for (std::size_t i = targets_.size(); i-- > 0;)
    if (targets_[i].presence == Presence::Absent) absentByMatch[matchOf(targets_[i].rule)].push_back(i);
  for (Old& old : old_) {
    auto const at = absentByMatch.find(matchOf(*ruleOf[old.key.value()]));
    if (at == absentByMatch.end() || at->second.empty()) continue;
    old.successor = at->second.back();
    at->second.pop_back();
  }
}

void Loader::begin() {
  for (EntryKey const key : marked_) acknowledgements_.await(key, OpId::deleteAcknowledge());
  U64 marked = markDamaged();
  if (absent() > room()) marked += mark([](Old const& old) { return !old.successor; });
  marked += relieveOverfull();
  if (marked == 0)
    putRound();
  else
    stage_ = Stage::Clearing;
}

void Loader::advance() {
  removeMarked();
  if (stage_ == Stage::Putting && markReady() != 0)
    stage_ = Stage::Deleting;
  else if (stage_ == Stage::Clearing || absent() > 0)
    putRound();
  else
    confirm();
}

// An agent that was started anew meanwhile has to acknowledge everything again.
void Loader::confirm() {
  for (Target& target : targets_) target.unawaited = true;
  awaitUnwritten();
  stage_ = acknowledgements_.done() ? Stage::Finished : Stage::Confirming;
}

void Loader::leave() {
  producer_.removeAcknowledged();
  if (stage_ == Stage::Putting) mark([](Old const& old) { return !old.successor; });
}

void Loader::putRound() {
  chooseFresh();
  std::vector<Group> groups = arrange();
  for (std::size_t pg = 0; pg < groups.size(); ++pg) layOutGroup(groups[pg], static_cast<U16>(pg));
  writeMoves(groups);
  writeTargets(groups);
  awaitUnwritten();
  stage_ = Stage::Putting;
}

// As many as there is room for, in the order of the rules, each in the group with most room.
void Loader::chooseFresh() {
  std::set<std::pair<U32, U16>> roomy;  // how full counted from the emptiest, group
  U32 const most = std::ranges::max(capacity_);
  for (std::size_t pg = 0; pg < capacity_.size(); ++pg)
    if (filled_[pg] < capacity_[pg])
      roomy.emplace(most - (capacity_[pg] - filled_[pg]), static_cast<U16>(pg));
  for (Target& target : targets_) {
    if (target.presence != Presence::Absent) continue;
    if (roomy.empty()) return;
    auto const [full, pg] = *roomy.begin();
    roomy.erase(roomy.begin());
    target.presence = Presence::Fresh;
    target.pg = pg;
    if (++filled_[pg] < capacity_[pg]) roomy.emplace(full + 1, pg);
  }
}

// Everything that needs a place, by group, in wanted order; old entries stand where their priority puts them.
std::vector<Loader::Group> Loader::arrange() const {
  std::vector<Group> wanted(capacity_.size());
  for (std::size_t i = 0; i < targets_.size(); ++i) {
    Target const& target = targets_[i];
    if (target.presence == Presence::Absent) continue;
    std::optional<U32> offset;
    if (target.presence == Presence::Present) offset = producer_.mapping().offset(target.ti);
    wanted[target.pg].push_back({target.prio, offset, true, i, 0});
  }
  for (Group& group : wanted) tradePlaces(group);
  std::vector<Group> old(capacity_.size());
  for (std::size_t i = 0; i < old_.size(); ++i)
    if (!old_[i].marked)
      old[old_[i].pg].push_back({old_[i].prio, producer_.mapping().offset(old_[i].ti), false, i, 0});
  std::vector<Group> all(capacity_.size());
  for (std::size_t pg = 0; pg < all.size(); ++pg)
    std::ranges::merge(wanted[pg], old[pg], std::back_inserter(all[pg]), [](Item const& a, Item const& b) {
      if (a.prio != b.prio) return a.prio < b.prio;
      return a.offset && b.offset && *a.offset < *b.offset;
    });
  return all;
}

// Entries of one priority that are wanted in another order take one another's places, so that the spacing
// stays.
void Loader::tradePlaces(Group& group) {
  std::vector<U32> places;
  for (auto band = group.begin(); band != group.end();) {
    auto const end =
        std::find_if(band, group.end(), [&](Item const& item) { return item.prio != band->prio; });
    places.clear();
    for (auto item = band; item != end; ++item)
      if (item->offset) places.push_back(*item->offset);
    std::ranges::sort(places);
    for (auto place = places.begin(); band != end; ++band)
      if (band->offset) band->offset = *place++;
  }
}

void Loader::layOutGroup(Group& group, U16 pg) const {
  std::vector<std::optional<U32>> places;
  for (Item const& item : group) places.push_back(item.offset);
  std::vector<U32> const result = layOut(places, capacity_[pg]);
  for (std::size_t i = 0; i < group.size(); ++i) group[i].ti = producer_.mapping().position(pg, result[i]);
}

// While two records name one position, the engine may give it to either, and drops the other's claim for
// good. So whoever leaves a position is written before whoever comes. In a ring somebody has to come first:
// he is written again when the other has left. The same goes for an entry that stays where another one wanted
// to be.
void Loader::writeMoves(std::vector<Group> const& groups) {
  std::vector<Move> moves;
  for (Group const& group : groups)
    for (Item const& item : group)
      if (auto const from = positionOf(item); from && *from != item.ti) moves.push_back({item, *from});
  std::vector<std::size_t> early;
  for (std::size_t const i : leavingFirst(moves, early)) writeMove(moves[i].item);
  for (std::size_t const i : early)
    if (moves[i].item.wanted) renew(targets_[moves[i].item.index]);
}

std::optional<U32> Loader::positionOf(Item const& item) const {
  if (!item.wanted) return old_[item.index].ti;
  Target const& target = targets_[item.index];
  if (target.presence != Presence::Present) return std::nullopt;
  return target.ti;
}

// An order in which whoever leaves a position comes before those that come to it. `early` are those that had
// to be put before one that leaves, because they are in a ring with it.
std::vector<std::size_t> Loader::leavingFirst(std::vector<Move> const& moves,
                                              std::vector<std::size_t>& early) {
  boost::unordered_flat_map<U32, std::vector<std::size_t>> leaving;
  for (std::size_t i = 0; i < moves.size(); ++i) leaving[moves[i].from].push_back(i);
  enum class State : U8 { New, Open, Done };
  std::vector<State> states(moves.size());
  std::vector<std::size_t> order;
  std::vector<std::size_t> open;
  for (std::size_t start = 0; start < moves.size(); ++start) {
    if (states[start] == State::New) open.push_back(start);
    while (!open.empty()) {
      std::size_t const at = open.back();
      if (states[at] == State::New) {
        states[at] = State::Open;
        auto const there = leaving.find(moves[at].item.ti);
        if (there == leaving.end()) continue;
        for (std::size_t const other : there->second) {
          if (states[other] == State::New) open.push_back(other);
          if (states[other] == State::Open) early.push_back(at);
        }
      } else {
        open.pop_back();
        if (states[at] == State::Open) order.push_back(at);
        states[at] = State::Done;
      }
    }
  }
  return order;
}

void Loader::writeMove(Item const& item) {
  ++counts_.moved;
  if (item.wanted) return change(targets_[item.index], item.ti);
  producer_.move(old_[item.index].key, item.ti);
  old_[item.index].ti = item.ti;
}

void Loader::writeTargets(std::vector<Group> const& groups) {
  forTargets(groups, [this](Target& target, U32 ti) {
    if (target.presence == Presence::Present && target.update) change(target, ti);
    if (target.presence == Presence::Present && needsRenewal(target)) renew(target);
  });
  forTargets(groups, [this](Target& target, U32 ti) {
    if (target.presence == Presence::Fresh) add(target, ti);
  });
}

// Found in the table, and perhaps without a claim: another record named the position, or an earlier load was
// killed before it had written this one again. Or the hardware refused it, and may take it now.
bool Loader::needsRenewal(Target const& target) const {
  bool const isLate = agentWorks_ && !producer_.acknowledged(target.key);
  return target.unawaited && (target.contested || isRefused(target.key) || isLate);
}

void Loader::renew(Target& target) { written(target, producer_.move(target.key, target.ti)); }

void Loader::change(Target& target, U32 ti) {
  OpId const opId = target.update ? put(target, ti) : producer_.move(target.key, ti);
  counts_.updated += target.update;
  target.ti = ti;
  target.update = false;
  written(target, opId);
}

void Loader::add(Target& target, U32 ti) {
  target.key = producer_.freshKey();
  OpId const opId = put(target, ti);
  target.ti = ti;
  target.presence = Presence::Present;
  ++counts_.added;
  written(target, opId);
}

OpId Loader::put(Target const& target, U32 ti) {
  Words const words = encode(target.rule);
  return producer_.put({.key = target.key, .pg = target.pg, .prio = target.prio, .ti = ti, .data = words});
}

void Loader::written(Target& target, OpId opId) {
  target.unawaited = false;
  refused_.erase(target.key.value());
  if (handler_) handler_(target.key);
  acknowledgements_.await(target.key, opId);
}

// What an earlier load wrote.
void Loader::awaitUnwritten() {
  for (Target& target : targets_) {
    if (!target.unawaited) continue;
    target.unawaited = false;
    if (isRefused(target.key)) continue;
    if (auto const opId = producer_.awaited(target.key)) acknowledgements_.await(target.key, *opId);
  }
}

template <class Visit>
void Loader::forTargets(std::vector<Group> const& groups, Visit visit) {
  for (Group const& group : groups)
    for (Item const& item : group)
      if (item.wanted) visit(targets_[item.index], item.ti);
}

template <class Which>
U64 Loader::mark(Which which) {
  U64 marked = 0;
  for (Old& old : old_) {
    if (old.marked || !which(old)) continue;
    acknowledgements_.awaitDelete(old.key);
    producer_.markDeleted(old.key);
    if (handler_) handler_(old.key);
    old.marked = true;
    --filled_[old.pg];
    marked_.push_back(old.key);
    ++marked;
  }
  counts_.deleted += marked;
  return marked;
}

// What cannot be read is not known: whichever rules these were are written anew.
U64 Loader::markDamaged() {
  for (EntryKey const key : damaged_) {
    acknowledgements_.awaitDelete(key);
    producer_.markDeleted(key);
    marked_.push_back(key);
  }
  counts_.deleted += damaged_.size();
  return damaged_.size();
}

// Old entries whose successor is there, or that have none. When there is no such entry and no room, some
// others.
U64 Loader::markReady() {
  U64 const ready = mark([this](Old const& old) {
    if (!old.successor) return true;
    Target const& successor = targets_[*old.successor];
    return successor.presence == Presence::Present && !isRefused(successor.key);
  });
  if (ready != 0 || absent() == 0 || room() != 0) return ready;
  U64 given = 0;
  return mark([&](Old const&) { return given++ < sacrifice; });
}

// Groups that hold more than the positions they have left, because there are fewer positions than before.
U64 Loader::relieveOverfull() {
  auto const overfull = [this](Old const& old) { return filled_[old.pg] > capacity_[old.pg]; };
  U64 const marked = mark([&](Old const& old) { return !old.successor && overfull(old); });
  return marked + mark(overfull);
}

void Loader::removeMarked() {
  for (EntryKey const key : marked_) producer_.remove(key);
  marked_.clear();
}

U64 Loader::absent() const {
  return static_cast<U64>(
      std::ranges::count_if(targets_, [](Target const& t) { return t.presence == Presence::Absent; }));
}
U64 Loader::room() const {
  U64 room = 0;
  for (std::size_t pg = 0; pg < capacity_.size(); ++pg)
    room += capacity_[pg] > filled_[pg] ? capacity_[pg] - filled_[pg] : 0;
  return room;
}
U64 Loader::remaining() const {
  return static_cast<U64>(std::ranges::count_if(old_, [](Old const& old) { return !old.marked; })) + absent();
}

}  // namespace Acl
