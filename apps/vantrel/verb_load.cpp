// SPDX-License-Identifier: Apache-2.0
// vantrel load: brings the configuration table to a rule file.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "apps/vantrel/acl/loader.h"
#include "apps/vantrel/acl/parse.h"
#include "apps/vantrel/acl/rehearsal.h"
#include "apps/vantrel/awaiting.h"
#include "apps/vantrel/command.h"
#include "apps/vantrel/flags.h"
#include "producer/shared_tables.h"
#include "shoal/reader_table.h"

namespace VantrelCommand {
namespace {

using Vantrel::EntryKey;
using Clock = std::chrono::steady_clock;

constexpr U64 fewDeletions = 10;        // that many entries may go unasked,
constexpr U64 mostDeletedPercent = 50;  // and that share of all
constexpr U64 writesPerLook = 256;      // how often acknowledgements are looked at while writing

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
  GeometryFlags geometry;
  bool dryRun = false;
  bool force = false;
  bool json = false;
  bool flushed = false;

  void run() {
    Vantrel::Geometry const agent = geometry.of(dir);
    std::vector<std::size_t> lines;
    std::vector<Acl::Rule> const rules = Acl::parseFile(file, &lines);
    requireDirectory(dir);
    if (dryRun) return show(rehearsed(agent, rules), rules, lines);
    auto const started = Clock::now();
    Vantrel::SharedTables tables(dir);
    Vantrel::Producer producer(tables.config(), tables.status(), agent.mapping(), tables.changes());
    Awaiting awaiting(dir, tables, timeout, false);
    Acl::Loader loader(producer, awaiting.acknowledgements(), agent.size);
    if (!force) loader.onComparedIs(&requireFewDeletions);
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
  // Null when there is none.
  template <class R>
  static Ostra::Ptr<Shoal::ReaderTable<R>> opened(std::string const& path) {
    if (!std::filesystem::exists(path)) return nullptr;
    return Ostra::make<Shoal::ReaderTable<R>>(path);
  }
  // The tables as they are, read beside whoever writes them.
  Acl::Rehearsal rehearsed(Vantrel::Geometry const& agent, std::vector<Acl::Rule> const& rules) const {
    auto const config = opened<Vantrel::EntryConfig>(Vantrel::SharedTables::configPath(dir));
    auto const status = opened<Vantrel::EntryStatus>(Vantrel::SharedTables::statusPath(dir));
    return Acl::rehearse(config.get(), status.get(), agent.mapping(), agent.size, rules);
  }

  static constexpr char marks[] = {'+', '~', '>', '-'};
  static constexpr char const* words[] = {"add", "change", "move", "delete"};

  // One line for each rule that is not kept as it is.
  void show(Acl::Rehearsal const& rehearsal, std::vector<Acl::Rule> const& rules,
            std::vector<std::size_t> const& lines) const {
    for (Acl::Rehearsal::Difference const& d : rehearsal.differences)
      json ? showJson(d, lines) : showText(d, lines);
    std::string const refusal = force ? "" : refusalOf(rehearsal.present, rehearsal.leaving);
    U64 const count[] = {
        rehearsal.count(Acl::Rehearsal::Kind::Add), rehearsal.count(Acl::Rehearsal::Kind::Change),
        rehearsal.count(Acl::Rehearsal::Kind::Move), rehearsal.count(Acl::Rehearsal::Kind::Delete)};
    U64 const kept = rules.size() - count[0] - count[1] - count[2];
    if (json) {
      nlohmann::ordered_json line{{"rules", rules.size()},
                                  {"add", count[0]},
                                  {"change", count[1]},
                                  {"move", count[2]},
                                  {"delete", count[3]},
                                  {"keep", kept},
                                  {"hardwareWrites", rehearsal.writes()},
                                  {"hardwareErases", rehearsal.erases()}};
      if (!refusal.empty()) line["refused"] = refusal;
      fmt::print("{}\n", line.dump());
      return;
    }
    fmt::print("{}: {} rules: {} to add, {} to change, {} to move, {} to delete, {} to keep\n", file,
               rules.size(), count[0], count[1], count[2], count[3], kept);
    fmt::print("in hardware at least {} writes and {} erases; nothing was written now\n", rehearsal.writes(),
               rehearsal.erases());
    if (!refusal.empty()) fmt::print("without --dry-run this is refused: {}\n", refusal);
  }
  static std::string where(Acl::Rehearsal::Difference const& d) {
    if (!d.from) return fmt::format("to {}", d.to.value_or(0));
    if (!d.to) return fmt::format("from {}", *d.from);
    return *d.from == *d.to ? fmt::format("at {}", *d.from) : fmt::format("{} -> {}", *d.from, *d.to);
  }
  static void showText(Acl::Rehearsal::Difference const& d, std::vector<std::size_t> const& lines) {
    auto const kind = static_cast<std::size_t>(d.kind);
    fmt::print("{} {:<10} key {:<8} {:<16} {}\n", marks[kind],
               d.rule ? fmt::format("line {}", lines[*d.rule]) : words[kind], d.key.value(), where(d),
               Acl::text(d.what));
  }
  static void showJson(Acl::Rehearsal::Difference const& d, std::vector<std::size_t> const& lines) {
    nlohmann::ordered_json line{{"do", words[static_cast<std::size_t>(d.kind)]}, {"key", d.key.value()}};
    if (d.rule) line["line"] = lines[*d.rule];
    if (d.from) line["from"] = *d.from;
    if (d.to) line["to"] = *d.to;
    line["rule"] = Acl::text(d.what);
    fmt::print("{}\n", line.dump());
  }

  // Empty when few enough entries go.
  static std::string refusalOf(U64 present, U64 leaving) {
    if (leaving <= fewDeletions || leaving * 100 <= present * mostDeletedPercent) return "";
    return fmt::format(
        "it would delete {} of {} entries ({} %); look with --dry-run, and give --force if that is wanted",
        leaving, present, leaving * 100 / present);
  }
  static void requireFewDeletions(U64 present, U64 leaving) {
    std::string const refusal = refusalOf(present, leaving);
    if (!refusal.empty()) throw std::runtime_error("this load is refused: " + refusal);
  }

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
  verb.add_flag("--dry-run", load->dryRun,
                "Writes nothing: shows what would be added (+), changed (~), moved (>) and deleted (-)")
      ->excludes(wait);
  verb.add_flag("--force", load->force,
                fmt::format("Also when more than {} entries and {} % of all are deleted", fewDeletions,
                            mostDeletedPercent));
  load->geometry.addTo(verb);
  addJson(verb, load->json);
  verb.footer(
      "Example:\n  vantrel load edge_filter.rules --dir /run/vantrel --dry-run\n"
      "  vantrel load edge_filter.rules --dir /run/vantrel --wait --timeout 30");
  verb.callback([load] { load->run(); });
}

}  // namespace VantrelCommand
