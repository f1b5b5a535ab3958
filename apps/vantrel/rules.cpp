// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <tuple>

#include "apps/vantrel/acl/parse.h"

namespace VantrelCommand {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::TableKey;

std::optional<U64> number(std::string_view text) {
  bool const hex = text.starts_with("0x");
  if (hex) text.remove_prefix(2);
  U64 value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool sameMatch(Acl::Rule a, Acl::Rule const& b) {
  a.action = b.action;
  return a == b;
}

}  // namespace

RuleList::RuleList(Vantrel::TableConfig const& table) {
  for (auto place = table.first(); place; place = table.next(*place)) {
    EntryConfig const entry = readEntry(table, place->key);
    if (entry.isDel()) continue;
    auto const rule = Acl::decode(entry.dataWords().elements());
    if (!rule || entry.tableIndexs() != 1)
      ++others_;
    else
      items_.push_back({0, entry.key(), entry.pg(), entry.prio(), entry.tableIndex(TableKey(0)), *rule});
  }
  std::ranges::sort(items_, {}, [](Item const& i) { return std::tuple(i.prio, i.ti, i.key); });
  for (std::size_t i = 0; i < items_.size(); ++i) {
    items_[i].line = i + 1;
    lines_[items_[i].key.value()] = i;
  }
}

RuleList::Item const* RuleList::of(EntryKey key) const {
  auto const at = lines_.find(key.value());
  return at == lines_.end() ? nullptr : &items_[at->second];
}

std::string RuleList::lineOf(EntryKey key) const {
  Item const* const item = of(key);
  return item ? fmt::format("line {}", item->line) : "";
}

EntryKey RuleList::named(std::string const& name) const {
  if (auto const key = number(name)) return EntryKey(*key);
  if (name.starts_with('@')) return keyOf(Acl::parse(name, "RULE").at(0), 0);
  auto const colon = name.rfind(':');
  if (colon == std::string::npos)
    throw std::runtime_error(fmt::format(
        "\"{}\" names no entry: expected a key, line:N, FILE:N, or a rule as it stands in a file", name));
  std::string const before = name.substr(0, colon), behind = name.substr(colon + 1);
  return before == "line" ? atLine(behind) : inFile(before, behind);
}

EntryKey RuleList::atLine(std::string const& text) const {
  auto const line = number(text);
  if (!line || *line == 0 || *line > items_.size())
    throw std::runtime_error(
        fmt::format("there is no line {}: the table has {} rules (vantrel ls rules)", text, items_.size()));
  return items_[*line - 1].key;
}

EntryKey RuleList::inFile(std::string const& file, std::string const& text) const {
  std::vector<std::size_t> lines;
  std::vector<Acl::Rule> const rules = Acl::parseFile(file, &lines);
  auto const at = std::ranges::find(lines, number(text).value_or(0));
  if (at == lines.end()) throw std::runtime_error(fmt::format("{} has no rule in line {}", file, text));
  auto const rule = rules.begin() + (at - lines.begin());
  auto const nth = std::count(rules.begin(), rule, *rule);
  return keyOf(*rule, static_cast<std::size_t>(nth));
}

EntryKey RuleList::keyOf(Acl::Rule const& rule, std::size_t nth) const {
  Item const* found = nullptr;
  for (Item const& item : items_) {
    if (item.rule == rule && nth-- == 0) return item.key;
    if (!found && sameMatch(item.rule, rule)) found = &item;
  }
  if (found) return found->key;
  throw std::runtime_error(fmt::format("no entry is wanted for the rule {}", Acl::text(rule)));
}

}  // namespace VantrelCommand
