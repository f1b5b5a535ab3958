// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/trace_sinks.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

namespace VantrelCommand {
namespace {

using Lumelog::Reader;
using Lumelog::Record;
using Lumelog::SiteInfo;
using Json = nlohmann::ordered_json;

constexpr U64 second = 1000000000;

// Escapes control characters, so that a record stays one line.
std::string printable(std::string const& text) {
  std::string result;
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= ' ' && c != '\x7F')
      result += c;
    else
      result += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
  return result;
}

void printLine(std::string const& line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
}

void printObject(Json const& object) {
  printLine(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

class Text : public TraceSink {
 public:
  explicit Text(bool several) : several_(several) {}
  void record(Reader const& reader, Record const& record) override {
    std::string const process = several_ ? fmt::format("{}[{}] ", reader.program(), reader.pid()) : "";
    printLine(fmt::format("{} {} {}:{} {}[{}] {}", timeText(record.realNs), record.site->level,
                          record.site->file, record.site->line, process, record.identifier(),
                          printable(record.message())));
  }
  void pause() override { std::fflush(stdout); }

 private:
  bool const several_;
};

class JsonLines : public TraceSink {
 public:
  void record(Reader const& reader, Record const& record) override {
    Json values = Json::array();
    for (std::size_t i = 1; i < record.values.size(); ++i) {
      Lumelog::Value const& value = record.values[i];
      value.type == 's' ? values.push_back(value.text) : values.push_back(value.number);
    }
    printObject(Json{{"time", timeText(record.realNs)},
                     {"ns", record.realNs},
                     {"process", reader.pid()},
                     {"level", record.site->level},
                     {"file", record.site->file},
                     {"line", record.site->line},
                     {"id", record.identifier()},
                     {"text", record.site->text},
                     {"values", std::move(values)},
                     {"message", record.message()}});
  }
  void pause() override { std::fflush(stdout); }
};

// The records of one site or of one level, summed up.
struct Sum {
  U64 records = 0;
  U64 bytes = 0;
  U64 firstNs = 0;
  U64 lastNs = 0;
  void add(Record const& record) {
    if (records++ == 0) firstNs = record.realNs;
    lastNs = record.realNs;
    bytes += record.bytes;
  }
  double seconds() const { return static_cast<double>(lastNs - firstNs) / static_cast<double>(second); }
};

class Stats : public TraceSink {
 public:
  explicit Stats(bool json) : json_(json) {}

  void record(Reader const& reader, Record const& record) override {
    File& file = files_[&reader];
    file.levels[record.site->level].add(record);
    file.sites[record.site].add(record);
  }
  void end() override {
    for (auto const& [reader, file] : files_) json_ ? printJson(*reader, file) : printText(*reader, file);
    std::fflush(stdout);
  }

 private:
  struct File {
    std::map<unsigned, Sum> levels;
    std::map<SiteInfo const*, Sum> sites;
    // The largest first.
    std::vector<std::pair<SiteInfo const*, Sum>> sorted() const {
      std::vector<std::pair<SiteInfo const*, Sum>> result(sites.begin(), sites.end());
      std::sort(result.begin(), result.end(), [](auto const& a, auto const& b) {
        return std::pair(b.second.bytes, a.first->id) < std::pair(a.second.bytes, b.first->id);
      });
      return result;
    }
  };

  static U64 wraps(Lumelog::RingState const& ring) {
    return ring.subBuffers && ring.written ? (ring.written - 1) / ring.subBuffers : 0;
  }

  static void printText(Reader const& reader, File const& file) {
    printLine(fmt::format("{}: {}[{}], opened {}, {}", reader.path(), reader.program(), reader.pid(),
                          timeText(reader.openedNs()), reader.live() ? "live" : "ended"));
    printLine("level   ring KiB    records       bytes  wrapped   holds the last");
    auto const rings = reader.rings();
    for (auto const& [level, sum] : file.levels)
      printLine(fmt::format("{:5} {:10} {:10} {:11} {:8} {:12.6f} s", level, rings[level].bytes / 1024,
                            sum.records, sum.bytes, wraps(rings[level]), sum.seconds()));
    printLine("   records       bytes  level  message");
    for (auto const& [site, sum] : file.sorted())
      printLine(fmt::format("{:10} {:11} {:6}  {}:{} {}", sum.records, sum.bytes, site->level, site->file,
                            site->line, printable(site->text)));
  }

  static void printJson(Reader const& reader, File const& file) {
    auto const rings = reader.rings();
    for (auto const& [level, sum] : file.levels)
      printObject(Json{{"path", reader.path()},
                       {"level", level},
                       {"ringBytes", rings[level].bytes},
                       {"records", sum.records},
                       {"bytes", sum.bytes},
                       {"wrapped", wraps(rings[level])},
                       {"seconds", sum.seconds()}});
    for (auto const& [site, sum] : file.sorted())
      printObject(Json{{"path", reader.path()},
                       {"file", site->file},
                       {"line", site->line},
                       {"level", site->level},
                       {"text", site->text},
                       {"records", sum.records},
                       {"bytes", sum.bytes}});
  }

  bool const json_;
  std::map<Reader const*, File> files_;
};

}  // namespace

std::string timeText(U64 realNs) {
  auto const seconds = static_cast<std::time_t>(realNs / second);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:09}Z", fmt::gmtime(seconds), realNs % second);
}

std::unique_ptr<TraceSink> textSink(bool several) { return std::make_unique<Text>(several); }
std::unique_ptr<TraceSink> jsonSink() { return std::make_unique<JsonLines>(); }
std::unique_ptr<TraceSink> statsSink(bool json) { return std::make_unique<Stats>(json); }

}  // namespace VantrelCommand
