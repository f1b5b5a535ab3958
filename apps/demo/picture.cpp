// SPDX-License-Identifier: Apache-2.0
#include "apps/demo/picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>

namespace Demo {
namespace {

constexpr std::size_t levels = 8;
constexpr char const* bars[levels] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr int colourCodes[] = {36, 33, 32, 35, 34, 31, 96, 93, 92, 95, 94, 91};
constexpr std::size_t labelColumns = 10;
constexpr std::size_t mostLines = 16;

using Groups = std::map<U16, std::vector<Placed>>;

Groups groupsOf(std::vector<Placed> row) {
  std::ranges::sort(row, {}, &Placed::ti);
  Groups groups;
  for (Placed const& p : row) groups[p.pg].push_back(p);
  return groups;
}

// Maps a priority to a bar by its rank among all priorities, so that the whole scale is used.
class Scale {
 public:
  explicit Scale(std::vector<Placed> const& row) {
    for (Placed const& p : row) prios_.push_back(p.prio);
    std::ranges::sort(prios_);
    prios_.erase(std::ranges::unique(prios_).begin(), prios_.end());
  }
  char const* bar(U32 prio) const {
    auto const rank = static_cast<std::size_t>(std::ranges::lower_bound(prios_, prio) - prios_.begin());
    return bars[rank * levels / prios_.size()];
  }

 private:
  std::vector<U32> prios_;
};

// The greatest priority in each of `cells` equal stretches of the positions [0, end).
std::vector<std::optional<U32>> cellsOf(std::vector<Placed> const& group, std::size_t cells, U64 end) {
  std::vector<std::optional<U32>> greatest(cells);
  for (Placed const& p : group) {
    auto& cell = greatest[p.ti * cells / end];
    cell = std::max(cell.value_or(0), p.prio);
  }
  return greatest;
}

std::string drawn(std::vector<std::optional<U32>> const& cells, Scale const& scale) {
  std::string line;
  for (auto const& prio : cells) line += prio ? scale.bar(*prio) : "·";
  return line;
}

std::string coloured(std::string const& text, U16 pg, bool colours) {
  return colours ? fmt::format("\033[{}m{}\033[0m", colourCodes[pg % std::size(colourCodes)], text) : text;
}

}  // namespace

std::string picture(std::vector<Placed> row, std::size_t columns, bool colours) {
  if (row.empty()) return "(no entries)\n";
  Scale const scale(row);
  U64 const end = U64{std::ranges::max(row, {}, &Placed::ti).ti} + 1;
  Groups const groups = groupsOf(std::move(row));
  std::size_t const cells = std::min<std::size_t>(columns > labelColumns ? columns - labelColumns : 1, end);
  std::string text;
  std::size_t lines = 0;
  for (auto const& [pg, group] : groups) {
    if (lines++ == mostLines) return text + fmt::format("and {} groups more\n", groups.size() - mostLines);
    std::string const bar = coloured(drawn(cellsOf(group, cells, end), scale), pg, colours);
    text += fmt::format("{:<{}}{}\n", fmt::format("group {}", pg), labelColumns, bar);
  }
  return text;
}

bool inOrder(std::vector<Placed> row) {
  return std::ranges::all_of(groupsOf(std::move(row)), [](auto const& group) {
    return std::ranges::is_sorted(group.second, {}, &Placed::prio);
  });
}

}  // namespace Demo
