// SPDX-License-Identifier: Apache-2.0
#include "apps/demo/show.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "apps/vantrel/acl/match.h"
#include "ostra/mount_ask.h"

namespace Demo {
namespace {

using Json = nlohmann::json;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::TableKey;

// Reads an entity's attributes, or the members of one of its collections, from the agent.
Json attributesOf(Ostra::Asker& agent, std::string const& entity) {
  Json values;
  agent.ask(Json{{"verb", "read"}, {"entity", entity}}.dump(),
            [&](std::string_view line) { values = Json::parse(line).at("values"); });
  return values;
}
std::vector<std::pair<U64, U64>> membersOf(Ostra::Asker& agent, std::string const& entity,
                                           std::string const& collection) {
  std::vector<std::pair<U64, U64>> members;
  agent.ask(Json{{"verb", "read"}, {"entity", entity}, {"attribute", collection}}.dump(),
            [&](std::string_view line) {
              Json const answer = Json::parse(line);
              for (Json const& member : answer.at("members"))
                members.emplace_back(member.at(0).get<U64>(), member.at(1).get<U64>());
            });
  return members;
}

// The smallest value that at least `share` of all do not exceed.
double quantile(std::vector<double>& values, double share) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  auto const rank = static_cast<std::size_t>(share * static_cast<double>(values.size()));
  return values[std::min(rank, values.size() - 1)];
}

std::string socketOf(std::string const& dir) { return dir + "/mgmt.sock"; }

}  // namespace

Show::Show(std::string dir, Vantrel::Mapping mapping, U32 size, double patience)
    : dir_(std::move(dir)),
      size_(size),
      patience_(patience),
      tables_(dir_),
      producer_(tables_.config(), tables_.status(), mapping, tables_.changes()),
      acknowledgements_(tables_.status()),
      planner_({.size = size}) {
  acknowledgements_.onAcknowledgedIs([this](EntryKey key) { acknowledged(key); });
}

void Show::await(EntryKey key) { written_[key.value()] = Clock::now(); }

void Show::acknowledged(EntryKey key) {
  auto const at = written_.find(key.value());
  if (at == written_.end()) return;
  milliseconds_.push_back(std::chrono::duration<double, std::milli>(Clock::now() - at->second).count());
  written_.erase(at);
}

void Show::untilDone(Clock::time_point deadline) {
  while (!acknowledgements_.done()) {
    if (Clock::now() > deadline)
      throw std::runtime_error(fmt::format("{} entries not acknowledged after {} seconds, key {} among them",
                                           acknowledgements_.outstanding(), patience_,
                                           acknowledgements_.keys().front().value()));
    tables_.wait(0.1);
  }
}

void Show::said(std::string const& what, U64 writes, Clock::time_point started) const {
  fmt::print("  {:<50}{:>7} writes{:>9.1f} ms{:>7} entries\n", what, writes,
             std::chrono::duration<double, std::milli>(Clock::now() - started).count(), wanted().size());
}

void Show::load(std::string const& what, Rules const& rules) {
  auto const started = Clock::now();
  auto const deadline =
      started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(patience_));
  U64 writes = 0;
  Acl::Loader loader(producer_, acknowledgements_, size_);
  loader.onWrittenIs([&](EntryKey key) {
    await(key);
    if (++writes % 64 == 0) tables_.wait(0);
  });
  loader.start(rules);
  while (!loader.finished()) {
    untilDone(deadline);
    loader.advance();
  }
  said(what, writes, started);
  loaded_.added += loader.counts().added;
  loaded_.moved += loader.counts().moved;
  loaded_.deleted += loader.counts().deleted;
  plan(rules);
}

void Show::plan(Rules const& rules) {
  std::vector<Planning::Match> list;
  for (Acl::Rule const& rule : rules) list.push_back(Acl::matchOf(rule));
  planner_.assign(list);
  for (Planning::Write const& write : planner_.takeWrites()) {
    planned_.added += write.what == Planning::Do::Add;
    planned_.moved += write.what == Planning::Do::Move;
    planned_.deleted += write.what == Planning::Do::Delete;
  }
}

Show::Entries Show::wanted() const {
  Entries entries;
  auto const& table = *tables_.config();
  for (auto place = table.first(); place; place = table.next(*place))
    entries.push_back(readEntry(table, place->key));
  return entries;
}

// The classes, of at least two entries, of equal group and priority: those may trade places.
std::vector<Show::Entries> Show::interchangeable() const {
  std::map<std::pair<U16, U32>, Entries> classes;
  for (EntryConfig const& e : wanted()) classes[{e.pg(), e.prio()}].push_back(e);
  std::vector<Entries> found;
  for (auto& [group, entries] : classes)
    if (entries.size() >= 2) found.push_back(std::move(entries));
  return found;
}

void Show::rotate(Entries const& ring) {
  for (std::size_t i = 0; i < ring.size(); ++i) {
    U32 const place = ring[(i + 1) % ring.size()].tableIndex(TableKey(0));
    acknowledgements_.await(ring[i].key(), producer_.move(ring[i].key(), place));
    await(ring[i].key());
  }
}

void Show::tradePlaces(std::size_t rings) {
  auto const started = Clock::now();
  U64 writes = 0, made = 0;
  for (Entries& entries : interchangeable()) {
    if (made == rings) break;
    entries.resize(std::min(entries.size(), 2 + made % 3));
    rotate(entries);
    writes += entries.size();
    ++made;
  }
  untilDone(started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(patience_)));
  said(fmt::format("{} rings of entries that want each other's places", made), writes, started);
}

std::vector<Placed> Show::hardwareRow() const {
  std::map<U64, EntryConfig> entries;
  for (EntryConfig const& e : wanted()) entries.emplace(e.key().value(), e);
  std::vector<Placed> row;
  Ostra::Asker agent(socketOf(dir_));
  for (auto const& [ti, key] : membersOf(agent, "hardware", "positions")) {
    auto const e = entries.find(key);
    if (e == entries.end())
      throw std::runtime_error(fmt::format("key {} is in hardware and not wanted", key));
    row.push_back({static_cast<U32>(ti), e->second.pg(), e->second.prio()});
  }
  return row;
}

bool Show::report(std::size_t columns, bool colours) {
  Ostra::Asker agent(socketOf(dir_));
  Json const hardware = attributesOf(agent, "hardware");
  Json const engine = attributesOf(agent, "engine");
  std::vector<Placed> const row = hardwareRow();
  auto const late = static_cast<U64>(std::ranges::count_if(
      wanted(), [this](EntryConfig const& e) { return !producer_.acknowledged(e.key()); }));
  U64 const violations = hardware.at("violations").get<U64>();
  auto const line = [](char const* left, U64 n, char const* right, std::string const& value) {
    fmt::print("  {:<18}{:>8}    {:<40}{:>10}\n", left, n, right, value);
  };
  auto const count = [&hardware](char const* name) { return hardware.at(name).get<U64>(); };
  fmt::print("\n");
  line("entries", row.size(), "entries acknowledged", std::to_string(wanted().size() - late));
  U64 const rings = engine.at("deadlockCount").get<U64>() + engine.at("numMixedRings").get<U64>();
  line("adds", count("adds"), "rings broken", std::to_string(rings));
  line("updates", count("updates"), "order violations", std::to_string(violations));
  line("moves", count("moves"), "write to acknowledgement, median",
       fmt::format("{:.2f} ms", quantile(milliseconds_, 0.5)));
  line("deletes", count("deletes") + count("deadlockDeletes"), "write to acknowledgement, 99 of 100",
       fmt::format("{:.2f} ms", quantile(milliseconds_, 0.99)));
  auto const lists = [](char const* how, Acl::Loader::Counts const& n) {
    fmt::print("  {:<42}{:>6} adds{:>6} moves{:>6} deletes\n", how, n.added, n.moved, n.deleted);
  };
  fmt::print("\n");
  lists("the lists, kept in order (as loaded)", loaded_);
  lists("the same, ordered where rules overlap", planned_);
  fmt::print("\n{}", picture(row, columns, colours));
  fmt::print("{:<10}positions from left to right, bars as high as the priority: they never fall\n", "");
  return late == 0 && violations == 0 && row.size() == wanted().size() && inOrder(row);
}

}  // namespace Demo
