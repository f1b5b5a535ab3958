// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/rehearsal.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "shoal/local_table.h"

namespace Acl {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::TableKey;
using Entries = std::map<EntryKey, EntryConfig>;
using Kind = Rehearsal::Kind;

template <class R>
Ostra::Ptr<Shoal::LocalTable<R>> copyOf(Shoal::Table<R> const* table, auto const& read) {
  auto copy = Ostra::make<Shoal::LocalTable<R>>();
  if (!table) return copy;
  for (auto place = table->first(); place; place = table->next(*place)) {
    R const record = read(*table, place->key);
    if (!(record == Shoal::RecordTraits<R>::empty())) copy->entryIs(record);
  }
  return copy;
}

// Those that are wanted.
Entries entriesOf(Vantrel::TableConfig const& table) {
  Entries entries;
  for (auto place = table.first(); place; place = table.next(*place)) {
    EntryConfig const entry = table.entry(place->key);
    if (!entry.isDel()) entries.emplace(entry.key(), entry);
  }
  return entries;
}

void acknowledgeAll(Vantrel::Acknowledgements const& waiting, Vantrel::TableStatus& status) {
  for (EntryKey const key : waiting.keys()) status.entryIs(EntryStatus(key, *waiting.awaited(key)));
}

U32 positionOf(EntryConfig const& entry) { return entry.tableIndex(TableKey(0)); }
Rule ruleOf(EntryConfig const& entry) { return decode(entry.dataWords().elements()).value_or(Rule()); }

std::optional<Kind> kindOf(EntryConfig const& before, EntryConfig const& after) {
  if (!(ruleOf(before) == ruleOf(after))) return Kind::Change;
  if (positionOf(before) != positionOf(after)) return Kind::Move;
  return std::nullopt;
}

void compareRule(Rehearsal& rehearsal, Entries& before, EntryConfig const& after, std::size_t rule) {
  auto const was = before.find(after.key());
  if (was == before.end()) {
    rehearsal.differences.push_back(
        {Kind::Add, rule, after.key(), std::nullopt, positionOf(after), ruleOf(after)});
    return;
  }
  if (auto const kind = kindOf(was->second, after))
    rehearsal.differences.push_back(
        {*kind, rule, after.key(), positionOf(was->second), positionOf(after), ruleOf(after)});
  before.erase(was);
}

// `before` has what no rule took over.
void compareRest(Rehearsal& rehearsal, Entries const& before) {
  std::vector<EntryConfig> rest;
  for (auto const& [key, entry] : before) rest.push_back(entry);
  std::ranges::sort(rest, {},
                    [](EntryConfig const& e) { return std::tuple(e.prio(), positionOf(e), e.key()); });
  for (EntryConfig const& entry : rest)
    rehearsal.differences.push_back(
        {Kind::Delete, std::nullopt, entry.key(), positionOf(entry), std::nullopt, ruleOf(entry)});
}

}  // namespace

U64 Rehearsal::count(Kind kind) const {
  return static_cast<U64>(std::ranges::count(differences, kind, &Difference::kind));
}

Rehearsal rehearse(Vantrel::TableConfig const* config, Vantrel::TableStatus const* status,
                   Vantrel::Mapping mapping, U32 size, std::vector<Rule> const& rules) {
  auto const wanted = copyOf<EntryConfig>(config, &Vantrel::readEntry);
  auto const acknowledged = copyOf<EntryStatus>(status, &Vantrel::readStatus);
  Entries before = entriesOf(*wanted);
  Vantrel::Producer producer(wanted, acknowledged, mapping);
  Vantrel::Acknowledgements waiting(acknowledged);
  Loader loader(producer, waiting, size);
  Rehearsal rehearsal;
  loader.onComparedIs([&](U64 present, U64 leaving) {
    rehearsal.present = present;
    rehearsal.leaving = leaving;
  });
  for (loader.start(rules); !loader.finished(); loader.advance())
    while (!waiting.done()) acknowledgeAll(waiting, *acknowledged);
  rehearsal.counts = loader.counts();
  std::vector<EntryKey> const keys = loader.keys();
  for (std::size_t i = 0; i < keys.size(); ++i) compareRule(rehearsal, before, wanted->entry(keys[i]), i);
  compareRest(rehearsal, before);
  return rehearsal;
}

}  // namespace Acl
