// SPDX-License-Identifier: Apache-2.0
// One edit of a table under traffic, done twice. Rules a, b, c and d are for one host each, and e is for all
// others; the first match from the left decides. Rule x comes before them, so that each moves to the right.
// After every write to the row a packet of each kind is looked up.
#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "vantrel/vantrel.h"

using namespace Vantrel;

// What the row looked like after each write, and which packets were decided wrongly then.
class Row {
 public:
  void write(U32 position, char rule) {
    at_[position] = rule;
    std::ostringstream line;
    for (char const c : at_) line << ' ' << c;
    bool isWrong = false;
    for (char const packet : {'a', 'b', 'c', 'd', 'e'})
      if (char const met = decides(packet); met != packet) {
        line << "   " << packet << " meets " << (met == '.' ? "nothing" : std::string(1, met));
        isWrong = true;
      }
    lines_.push_back(line.str());
    wrong_ += isWrong;
  }
  std::vector<std::string> const& lines() const { return lines_; }
  U32 wrong() const { return wrong_; }

 private:
  char decides(char packet) const {
    for (char const rule : at_)
      if (rule == packet || rule == 'e') return rule;
    return '.';
  }
  std::string at_ = "abcde.";
  std::vector<std::string> lines_;
  U32 wrong_ = 0;
};

// Make before break: a moved entry is written where it goes before it is cleared where it was.
class RowHardware : public VantrelHelper {
 public:
  RowHardware(Ostra::Ptr<TableStatus> status, Row& row)
      : VantrelHelper("hardware", std::move(status)), row_(row), positionOf_(256) {}
  void entryIsAt(EntryConfig const& e) { positionOf_[e.hdl()] = e.tableIndex(TableKey(0)); }
  void addEntry(EntryConfig const& e) override {
    if (isLive) row_.write(e.tableIndex(TableKey(0)), static_cast<char>(e.hdl()));
    entryIsAt(e);
    noopAck(e.key(), e.opId());
  }
  void moveEntry(EntryConfig const& e) override {
    U32 const old = positionOf_[e.hdl()];
    addEntry(e);
    row_.write(old, '.');
  }
  void deleteEntry(EntryConfig const&) override {}  // the end: the row stays as it is
  bool isLive = false;                              // the rules of before are there already

 private:
  Row& row_;
  std::vector<U32> positionOf_;
};

std::string const before = "abcde", after = "xabcde";

Row naively() {
  Row row;
  for (U32 i = 0; i < after.size(); ++i) row.write(i, after[i]);
  return row;
}

Row byVantrel() {
  Row row;
  auto const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  auto const status = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  auto const hardware = Ostra::make<RowHardware>(status, row);
  auto const engine = Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, hardware, 1);
  auto const frontEnd =
      vantrelSmFactory({.tableConfig = config, .tableStatus = status, .vantrelImpl = engine});
  U64 version = 0;
  auto const want = [&](char rule, U32 position) {
    U32 const prio = rule == 'x' ? 1 : 10 + static_cast<U32>(rule - 'a');  // the lower is looked at first
    EntryConfig e(EntryKey(static_cast<U64>(rule)), OpId(++version << 16), static_cast<U32>(rule), 0, prio);
    e.tableIndexIs(TableKey(0), position);
    config->entryIs(e);
  };
  for (U32 i = 0; i < before.size(); ++i) want(before[i], i);
  hardware->isLive = true;
  for (U32 i = 0; i < after.size(); ++i) want(after[i], i);
  return row;
}

int main() {
  Row const naive = naively(), ours = byVantrel();
  auto const column = [](auto const& text) { std::cout << std::left << std::setw(30) << text; };
  column(" in list order");
  std::cout << " by Vantrel, asked in list order\n";
  for (std::size_t i = 0; i < std::max(naive.lines().size(), ours.lines().size()); ++i) {
    column(i < naive.lines().size() ? naive.lines()[i] : "");
    std::cout << (i < ours.lines().size() ? ours.lines()[i] : "") << '\n';
  }
  column(" " + std::to_string(naive.wrong()) + " of " + std::to_string(naive.lines().size()) +
         " moments wrong");
  std::cout << " " << ours.wrong() << " of " << ours.lines().size() << " moments wrong\n";
}
