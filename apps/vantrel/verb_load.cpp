// SPDX-License-Identifier: Apache-2.0
// vantrel load: brings the configuration table to a rule file.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <unordered_map>
#include <vector>

#include "apps/vantrel/acl/loader.h"
#include "apps/vantrel/acl/parse.h"
#include "apps/vantrel/awaiting.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "producer/shared_tables.h"

namespace VantrelCommand {
namespace {

using Vantrel::EntryKey;
using Clock = std::chrono::steady_clock;

constexpr U32 defaultSize = 131072;
constexpr U64 writesPerLook = 256;  // how often acknowledgements are looked at while writing

// From a write to its acknowledgement, in milliseconds.
class Latencies {
 public:
  void written(EntryKey key) { written_[key.value()] = Clock::now(); }
  void acknowledged(EntryKey key) {
    auto const at = written_.find(key.value());
    if (at == written_.end()) return;
    took_.push_back(std::chrono::duration<double, std::milli>(Clock::now() - at->second).count());
    written_.erase(at);
  }
  // The smallest value that at least `share` of all do not exceed.
  double quantile(double share) {
    if (took_.empty()) return 0;
    auto const rank = static_cast<std::ptrdiff_t>(std::ceil(share * static_cast<double>(took_.size()))) - 1;
    auto const at = took_.begin() + std::max<std::ptrdiff_t>(rank, 0);
    std::nth_element(took_.begin(), at, took_.end());
    return *at;
  }

 private:
  std::unordered_map<U64, Clock::time_point> written_;
  std::vector<double> took_;
};

class Load {
 public:
  std::string file;
  std::string dir;
  bool wait = false;
  std::optional<double> timeout;
  std::optional<U32> size;
  MappingFlags mapping;
  bool json = false;
  bool flushed = false;

  void run() {
    Vantrel::Mapping const engine = mapping.mapping();
    std::vector<Acl::Rule> const rules = Acl::parseFile(file);
    auto const started = Clock::now();
    Vantrel::SharedTables tables(dir);
    Vantrel::Producer producer(tables.config(), tables.status(), engine, tables.changes());
    Awaiting awaiting(dir, tables, timeout, false);
    Acl::Loader loader(producer, awaiting.acknowledgements(), size.value_or(defaultSize));
    Latencies latencies;
    watch(loader, awaiting, latencies, rules.size());
    for (EntryKey const key : awaiting.refusedKeys()) loader.refusedIs(key);
    loader.start(rules);
    if (wait)
      finish(loader, awaiting);
    else
      loader.leave();
    awaiting.clearProgress();
    if (wait) flushed = awaiting.untilFlushed();
    report(loader, latencies, rules.size(), std::chrono::duration<double>(Clock::now() - started).count());
  }

 private:
  static void watch(Acl::Loader& loader, Awaiting& awaiting, Latencies& latencies, U64 rules) {
    awaiting.acknowledgements().onAcknowledgedIs([&](EntryKey key) { latencies.acknowledged(key); });
    awaiting.onRefusedIs([&](EntryKey key) { loader.refusedIs(key); });
    loader.onWrittenIs([&, rules, written = U64{0}](EntryKey key) mutable {
      latencies.written(key);
      awaiting.written(key);
      if (++written % writesPerLook != 0) return;
      awaiting.catchUp();
      awaiting.progress("written", std::min(written, rules), rules);
    });
  }
  static void finish(Acl::Loader& loader, Awaiting& awaiting) {
    while (!loader.finished()) {
      awaiting.untilDone("acknowledged");
      loader.advance();
    }
    awaiting.requireNoneRefused();
  }

  void report(Acl::Loader const& loader, Latencies& latencies, U64 rules, double seconds) const {
    Acl::Loader::Counts const& n = loader.counts();
    if (json) {
      nlohmann::ordered_json line{{"rules", rules},       {"added", n.added},     {"updated", n.updated},
                                  {"moved", n.moved},     {"deleted", n.deleted}, {"kept", n.kept},
                                  {"acknowledged", wait}, {"seconds", seconds}};
      if (wait)
        line.update({{"flushed", flushed},
                     {"medianMs", latencies.quantile(0.5)},
                     {"p99Ms", latencies.quantile(0.99)}});
      if (!wait) line["remaining"] = loader.remaining();
      fmt::print("{}\n", line.dump());
      return;
    }
    fmt::print("{}: {} rules: {} added, {} updated, {} moved, {} deleted, {} kept\n", file, rules, n.added,
               n.updated, n.moved, n.deleted, n.kept);
    if (wait)
      fmt::print(
          "every entry acknowledged{} after {:.2f} s; from write to acknowledgement {:.1f} ms (median), "
          "{:.1f} "
          "ms (99th percentile)\n",
          flushed ? " and the table flushed" : "", seconds, latencies.quantile(0.5),
          latencies.quantile(0.99));
    else if (loader.remaining() != 0)
      fmt::print("{} changes have to wait for acknowledgements: load again with --wait\n",
                 loader.remaining());
  }
};

}  // namespace

void addLoad(CLI::App& app) {
  auto const load = std::make_shared<Load>();
  CLI::App& verb =
      *app.add_subcommand("load", "Brings the table to a rule file, writing only the difference");
  verb.add_option("RULES", load->file, "The rule file, highest precedence first (ClassBench filter format)")
      ->required()
      ->type_name("FILE");
  addDir(verb, load->dir);
  CLI::Option* const wait = verb.add_flag(
      "--wait", load->wait, "Returns when every change is acknowledged and the agent has flushed the table");
  addTimeout(verb, load->timeout,
             "How long --wait waits; then the late keys are named. Without it, as long as it takes")
      ->needs(wait);
  addNumber(verb, "--size", load->size,
            fmt::format("Positions of the hardware table, 0 to N-1 ({})", defaultSize));
  load->mapping.addTo(verb);
  addJson(verb, load->json);
  verb.footer("Example:\n  vantrel load edge_filter.rules --dir /run/vantrel --wait --timeout 30");
  verb.callback([load] { load->run(); });
}

}  // namespace VantrelCommand
