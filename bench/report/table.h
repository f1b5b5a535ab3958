// SPDX-License-Identifier: Apache-2.0
// Table: the runs of one group of benchmarks, gathered to medians and ratios, as text or JSON.
//
// Invariants: lines stand in the order in which their cases first came; a figure is the median of its runs.
// Ownership: values only.
// Threading: one thread.
// Errors: a name that is not CASE/SIDE/SIZE is refused with std::invalid_argument.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace Bench {

struct Name {
  std::string what;  // the case
  std::string side;  // ours, floor or peer
  std::string size;
  // "CASE/SIDE/SIZE", and whatever Google Benchmark appended to it.
  static Name parsed(std::string const& name);
};

double median(std::vector<double> values);

class Table {
 public:
  Table(std::string group, std::string title, std::string unit);

  // One run; `figures` has "ns" and the other counters.
  void add(Name const& name, std::map<std::string, double> const& figures);
  void note(std::string const& text);

  bool empty() const { return lines_.empty(); }
  std::string text() const;
  nlohmann::ordered_json json() const;

 private:
  using Values = std::vector<double>;
  struct Line {
    std::string what, size;
    std::map<std::string, Values> figure;                           // by side
    std::map<std::string, std::map<std::string, Values>> counters;  // by side and name
  };
  Line& line(std::string const& what, std::string const& size);
  Line const* find(std::string const& what, std::string const& size) const;
  std::optional<double> figure(Line const& line, std::string const& side) const;
  std::optional<double> ratio(Line const& line, std::string const& side, std::string const& to) const;
  std::optional<double> growth(Line const& line) const;
  bool has(std::string const& side) const;
  bool grows() const;
  // (side, counter) of the further columns
  std::vector<std::pair<std::string, std::string>> columns() const;
  std::vector<std::string> heads() const;
  std::vector<std::string> cells(Line const& line) const;
  nlohmann::ordered_json json(Line const& line) const;

  std::string group_, title_, unit_;
  std::vector<Line> lines_;
  std::vector<std::string> notes_;
};

}  // namespace Bench
