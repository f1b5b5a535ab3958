// SPDX-License-Identifier: Apache-2.0
// vantrel trace: the records of trace files, in time order.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "apps/vantrel/command.h"
#include "apps/vantrel/trace_sinks.h"
#include "lumelog/format.h"
#include "pallo/exception.h"

namespace VantrelCommand {
namespace {

using Lumelog::Merge;
using Lumelog::Reader;
using Lumelog::Record;

constexpr U64 second = 1000000000;
constexpr auto pollEvery = std::chrono::milliseconds(50);

struct Options {
  std::vector<std::string> files;
  std::vector<U64> keys;
  std::string levels;
  std::string since;
  std::string match;
  bool follow = false;
  bool stats = false;
  bool json = false;
  std::string ctf;
};

// Which records are shown.
struct Filter {
  std::vector<U64> keys;  // none: all
  unsigned lowest = 0;    // level
  unsigned highest = Lumelog::Format::levels - 1;
  U64 sinceNs = 0;
  std::optional<std::regex> match;

  bool shows(Record const& record) const {
    if (record.site->level < lowest || record.site->level > highest || record.realNs < sinceNs) return false;
    if (!keys.empty() && std::none_of(keys.begin(), keys.end(), [&](U64 k) { return record.mentionsKey(k); }))
      return false;
    return !match || std::regex_search(record.message(), *match);
  }
};

// "3" is one level, "0-5" a range.
void readLevels(std::string const& text, Filter& filter) {
  auto const isLevel = [](char c) { return c >= '0' && c <= '9'; };
  bool const one = text.size() == 1 && isLevel(text[0]);
  bool const range =
      text.size() == 3 && isLevel(text[0]) && text[1] == '-' && isLevel(text[2]) && text[0] <= text[2];
  if (!one && !range)
    throw CLI::ValidationError("--level",
                               fmt::format("\"{}\": expected a level from 0 to 9, or a range as 0-5", text));
  filter.lowest = static_cast<unsigned>(text.front() - '0');
  filter.highest = static_cast<unsigned>(text.back() - '0');
}

// "90s", "5m", "2h", "1d" or "250ms" to nanoseconds.
std::optional<U64> readSpan(std::string const& text) {
  std::size_t used = 0;
  double value;
  try {
    value = std::stod(text, &used);
  } catch (std::logic_error const&) {
    return std::nullopt;
  }
  std::string const unit = text.substr(used);
  double const seconds = unit == "ms"  ? 0.001
                         : unit == "s" ? 1
                         : unit == "m" ? 60
                         : unit == "h" ? 3600
                         : unit == "d" ? 86400
                                       : 0;
  if (seconds == 0 || !(value >= 0 && value * seconds < 1e9)) return std::nullopt;
  return static_cast<U64>(value * seconds * static_cast<double>(second));
}

// "2026-01-31", "2026-01-31T12:00", "2026-01-31T12:00:00.25Z", in UTC, to nanoseconds since 1970.
std::optional<U64> readTime(std::string const& text) {
  static std::regex const form(
      R"((\d{4})-(\d\d)-(\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d)(?:\.(\d{1,9}))?)?Z?)?)");
  std::smatch part;
  if (!std::regex_match(text, part, form)) return std::nullopt;
  auto const number = [&](std::size_t i) { return part[i].matched ? std::stoi(part[i]) : 0; };
  std::tm time{};
  time.tm_year = number(1) - 1900;
  time.tm_mon = number(2) - 1;
  time.tm_mday = number(3);
  time.tm_hour = number(4);
  time.tm_min = number(5);
  time.tm_sec = number(6);
  std::string fraction = part[7];
  fraction.resize(9, '0');
  std::tm const wanted = time;
  std::time_t const seconds = timegm(&time);
  bool const exists = time.tm_mday == wanted.tm_mday && time.tm_mon == wanted.tm_mon &&
                      time.tm_hour == wanted.tm_hour && time.tm_min == wanted.tm_min &&
                      time.tm_sec == wanted.tm_sec;
  if (!exists || seconds < 0) return std::nullopt;
  return static_cast<U64>(seconds) * second + std::stoull(fraction);
}

// The time of the newest record.
U64 newest(std::vector<std::string> const& files) {
  U64 ns = 0;
  for (std::string const& file : files) {
    try {
      Reader reader(file);
      for (Record record; reader.next(record);) ns = std::max(ns, record.realNs);
    } catch (Pallo::Exception const&) {
      // Named when the file is opened to be shown.
    }
  }
  return ns;
}

U64 readSince(std::string const& text, std::vector<std::string> const& files) {
  if (auto const time = readTime(text)) return *time;
  auto const span = readSpan(text);
  if (!span)
    throw CLI::ValidationError(
        "--since",
        fmt::format("\"{}\": expected a time as 2026-01-31T12:00:00 or a span as 90s, 5m, 2h", text));
  U64 const end = newest(files);
  return end > *span ? end - *span : 0;
}

Filter makeFilter(Options const& options) {
  Filter filter;
  filter.keys = options.keys;
  if (!options.levels.empty()) readLevels(options.levels, filter);
  if (!options.since.empty()) filter.sinceNs = readSince(options.since, options.files);
  try {
    if (!options.match.empty())
      filter.match.emplace(options.match, std::regex::ECMAScript | std::regex::optimize);
  } catch (std::regex_error const& e) {
    throw CLI::ValidationError(
        "--match", fmt::format("\"{}\" is not a regular expression: {}", options.match, e.what()));
  }
  return filter;
}

std::unique_ptr<TraceSink> makeSink(Options const& options) {
  if (!options.ctf.empty()) return ctfSink(options.ctf);
  if (options.stats) return statsSink(options.json);
  return options.json ? jsonSink() : textSink(options.files.size() > 1);
}

void showAll(Merge& merge, Filter const& filter, TraceSink& sink) {
  Record record;
  while (Reader const* reader = merge.next(record))
    if (filter.shows(record)) sink.record(*reader, record);
  sink.pause();
}

bool anyLive(std::vector<Reader const*> const& readers) {
  return std::any_of(readers.begin(), readers.end(), [](Reader const* reader) { return reader->live(); });
}

// Ends when no process writes any more. Whether one is live is checked before its records are read, so that
// its last ones are shown.
void follow(std::vector<Reader const*> const& readers, Merge& merge, Filter const& filter, TraceSink& sink) {
  for (bool more = true; more;) {
    std::this_thread::sleep_for(pollEvery);
    more = anyLive(readers);
    showAll(merge, filter, sink);
  }
}

void sayDamage(std::vector<Reader const*> const& readers) {
  for (Reader const* reader : readers)
    for (std::string const& line : reader->damage().lines())
      fmt::print(stderr, "vantrel: {}: {}\n", reader->path(), line);
}

void run(Options const& options) {
  Filter const filter = makeFilter(options);
  Merge merge;
  std::vector<Reader const*> readers;
  bool failed = false;
  for (std::string const& file : options.files) {
    try {
      auto reader = std::make_unique<Reader>(file);
      readers.push_back(reader.get());
      merge.add(std::move(reader));
    } catch (Pallo::Exception const& e) {
      fmt::print(stderr, "vantrel: {}\n", e.what());
      failed = true;
    }
  }
  if (!readers.empty()) {
    std::unique_ptr<TraceSink> const sink = makeSink(options);
    showAll(merge, filter, *sink);
    if (options.follow) follow(readers, merge, filter, *sink);
    sink->end();
  }
  sayDamage(readers);
  if (failed) throw Exit{1};
}

}  // namespace

void addTrace(CLI::App& app) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      app.add_subcommand("trace", "Shows trace files, of live and of dead processes, in time order.");
  verb->footer(
      "A line has time (UTC), level, source, the engine's identifier in brackets, and the message.\n"
      "Examples:\n"
      "  vantrel trace --since 10s Quarry-mbb-4711.lg      the ten seconds before the last record\n"
      "  vantrel trace --key 1024 --follow DIR/*.lg        what a live agent does with one entry");
  verb->add_option("FILE", options->files, "trace files")->required();
  verb->add_option("--key", options->keys, "only records about this key (again for more)")
      ->type_name("K")
      ->allow_extra_args(false);
  verb->add_option("--level", options->levels, "only this level, or a range as 0-5")->type_name("N[-M]");
  verb->add_option("--since", options->since,
                   "only records from a time (2026-01-31T12:00:00, UTC) or from so long before the newest "
                   "(90s, 5m, 2h)")
      ->type_name("TIME");
  verb->add_option("--match", options->match, "only messages in which the regular expression is found")
      ->type_name("REGEX");
  verb->add_flag("--follow", options->follow, "go on while a process writes");
  verb->add_flag("--stats", options->stats,
                 "instead of records: how many and how large, and how far back the rings reach");
  verb->add_flag("--json", options->json, "one JSON object a line");
  verb->add_option("--ctf", options->ctf, "write a Common Trace Format trace into a new directory")
      ->type_name("DIR");
  verb->callback([options] { run(*options); });
}

}  // namespace VantrelCommand
