// SPDX-License-Identifier: Apache-2.0
#include "bench/report/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace Bench {
namespace {

constexpr std::array sides{"ours", "floor", "peer"};
constexpr char const* base = "10000";  // the size that growth is counted from
constexpr char const* ownLine = "also:";

bool isSide(std::string const& text) { return std::ranges::count(sides, text) != 0; }

bool isNumber(std::string const& text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

std::string grouped(std::string digits) {
  for (std::size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, ",");
  return digits;
}

// Three digits that say something.
std::string shown(double value) {
  if (value == 0) return "0";
  if (value < 10) return fmt::format("{:.2f}", value);
  if (value < 100) return fmt::format("{:.1f}", value);
  return grouped(fmt::format("{:.0f}", value));
}
std::string shown(std::optional<double> value) { return value ? shown(*value) : ""; }

std::string shownSize(std::string const& size) { return isNumber(size) ? grouped(size) : size; }

std::optional<double> quotient(std::optional<double> a, std::optional<double> b) {
  if (!a || !b || *b == 0) return std::nullopt;
  return *a / *b;
}

void append(std::string& to, std::vector<std::string> const& cells, std::vector<std::size_t> const& widths) {
  std::string line = fmt::format("  {:<{}}", cells[0], widths[0]);
  for (std::size_t i = 1; i < cells.size(); ++i) line += fmt::format("  {:>{}}", cells[i], widths[i]);
  line.erase(line.find_last_not_of(' ') + 1);
  to += line + '\n';
}

std::string heading(std::string const& side, std::string const& counter) {
  return side == "ours" ? counter : counter + " " + side;
}

}  // namespace

Name Name::parsed(std::string const& name) {
  auto const first = name.find('/');
  auto const second = first == std::string::npos ? first : name.find('/', first + 1);
  auto const end = second == std::string::npos ? second : std::min(name.find('/', second + 1), name.size());
  if (end == std::string::npos || !isSide(name.substr(first + 1, second - first - 1)))
    throw std::invalid_argument(
        fmt::format("benchmark \"{}\": expected CASE/SIDE/SIZE with SIDE ours, floor or peer", name));
  return {name.substr(0, first), name.substr(first + 1, second - first - 1),
          name.substr(second + 1, end - second - 1)};
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  std::size_t const middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

Table::Table(std::string group, std::string title, std::string unit)
    : group_(std::move(group)), title_(std::move(title)), unit_(std::move(unit)) {}

Table::Line& Table::line(std::string const& what, std::string const& size) {
  auto const same = [&](Line const& l) { return l.what == what && l.size == size; };
  auto const at = std::ranges::find_if(lines_, same);
  if (at != lines_.end()) return *at;
  return lines_.emplace_back(Line{what, size, {}, {}});
}

Table::Line const* Table::find(std::string const& what, std::string const& size) const {
  auto const same = [&](Line const& l) { return l.what == what && l.size == size; };
  auto const at = std::ranges::find_if(lines_, same);
  return at == lines_.end() ? nullptr : &*at;
}

void Table::add(Name const& name, std::map<std::string, double> const& figures) {
  line(name.what, name.size);  // before the lines that belong to it
  for (auto const& [key, value] : figures) {
    if (key == "ns")
      line(name.what, name.size).figure[name.side].push_back(value);
    else if (key.starts_with(ownLine))
      line(name.what + ", " + key.substr(std::string(ownLine).size()), name.size)
          .figure[name.side]
          .push_back(value);
    else
      line(name.what, name.size).counters[name.side][key].push_back(value);
  }
}

void Table::note(std::string const& text) {
  if (std::ranges::count(notes_, text) == 0) notes_.push_back(text);
}

std::optional<double> Table::figure(Line const& line, std::string const& side) const {
  auto const at = line.figure.find(side);
  if (at == line.figure.end()) return std::nullopt;
  return median(at->second);
}

// Of each round by itself, and of those the median: a drift from one round to the next meets both sides.
std::optional<double> Table::ratio(Line const& line, std::string const& side, std::string const& to) const {
  auto const a = line.figure.find(side);
  auto const b = line.figure.find(to);
  if (a == line.figure.end() || b == line.figure.end()) return std::nullopt;
  if (a->second.size() != b->second.size()) return quotient(figure(line, side), figure(line, to));
  Values all;
  for (std::size_t round = 0; round < a->second.size(); ++round)
    if (auto const one = quotient(a->second[round], b->second[round])) all.push_back(*one);
  if (all.empty()) return std::nullopt;
  return median(all);
}

std::optional<double> Table::growth(Line const& line) const {
  if (!isNumber(line.size) || std::stod(line.size) <= std::stod(base)) return std::nullopt;
  Line const* const from = find(line.what, base);
  return from ? quotient(figure(line, "ours"), figure(*from, "ours")) : std::nullopt;
}

bool Table::has(std::string const& side) const {
  return std::ranges::any_of(lines_, [&](Line const& l) { return l.figure.contains(side); });
}

bool Table::grows() const {
  return std::ranges::any_of(lines_, [&](Line const& l) { return growth(l).has_value(); });
}

std::vector<std::pair<std::string, std::string>> Table::columns() const {
  std::vector<std::pair<std::string, std::string>> all;
  for (char const* side : sides)
    for (Line const& l : lines_)
      if (auto const at = l.counters.find(side); at != l.counters.end())
        for (auto const& [name, values] : at->second)
          if (std::ranges::count(all, std::pair<std::string, std::string>(side, name)) == 0)
            all.emplace_back(side, name);
  return all;
}

std::vector<std::string> Table::heads() const {
  std::vector<std::string> all{"", "size", "ours"};
  if (has("floor")) all.insert(all.end(), {"floor", "ours/floor"});
  if (has("peer")) all.insert(all.end(), {"peer", "peer/ours"});
  if (grows()) all.emplace_back("growth");
  for (auto const& [side, counter] : columns()) all.push_back(heading(side, counter));
  return all;
}

std::vector<std::string> Table::cells(Line const& line) const {
  auto const ours = figure(line, "ours"), floor = figure(line, "floor"), peer = figure(line, "peer");
  std::vector<std::string> all{line.what, shownSize(line.size), shown(ours)};
  if (has("floor")) all.insert(all.end(), {shown(floor), shown(ratio(line, "ours", "floor"))});
  if (has("peer")) all.insert(all.end(), {shown(peer), shown(ratio(line, "peer", "ours"))});
  if (grows()) all.push_back(shown(growth(line)));
  for (auto const& [side, counter] : columns()) {
    auto const at = line.counters.find(side);
    bool const there = at != line.counters.end() && at->second.contains(counter);
    all.push_back(there ? shown(median(at->second.at(counter))) : "");
  }
  return all;
}

std::string Table::text() const {
  std::vector<std::vector<std::string>> rows{heads()};
  for (Line const& l : lines_) rows.push_back(cells(l));
  std::vector<std::size_t> widths(rows[0].size());
  for (auto const& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  std::string all = title_ + (unit_.empty() ? "" : " (" + unit_ + ")") + '\n';
  for (auto const& row : rows) append(all, row, widths);
  for (std::string const& n : notes_) all += "  " + n + '\n';
  return all;
}

nlohmann::ordered_json Table::json(Line const& line) const {
  nlohmann::ordered_json j{{"case", line.what}, {"size", line.size}};
  auto const put = [&j](char const* name, std::optional<double> value) {
    if (value) j[name] = *value;
  };
  auto const ours = figure(line, "ours"), floor = figure(line, "floor"), peer = figure(line, "peer");
  put("ours", ours);
  put("floor", floor);
  put("ours/floor", ratio(line, "ours", "floor"));
  put("peer", peer);
  put("peer/ours", ratio(line, "peer", "ours"));
  put("growth", growth(line));
  for (auto const& [side, counters] : line.counters)
    for (auto const& [name, values] : counters) j["counters"][heading(side, name)] = median(values);
  for (auto const& [side, values] : line.figure) j["runs"][side] = values;
  return j;
}

nlohmann::ordered_json Table::json() const {
  nlohmann::ordered_json j{{"group", group_}, {"title", title_}, {"unit", unit_}};
  j["rows"] = nlohmann::ordered_json::array();
  for (Line const& l : lines_) j["rows"].push_back(json(l));
  j["notes"] = notes_;
  j["table"] = text();
  return j;
}

}  // namespace Bench
