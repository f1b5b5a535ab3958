// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string_view>

namespace Vantreld {
namespace {

// One word behind the interface.
void xdpWord(Hw::XdpOptions& xdp, std::string const& word) {
  static std::map<std::string, Hw::XdpHook> const hooks = {
      {"native", Hw::XdpHook::Driver}, {"generic", Hw::XdpHook::Stack}, {"tc", Hw::XdpHook::Tc}};
  if (auto const hook = hooks.find(word); hook != hooks.end())
    xdp.hook = hook->second;
  else if (word == "default=permit" || word == "default=deny")
    xdp.permits = word == "default=permit";
  else
    throw CLI::ValidationError(
        "--hw",
        fmt::format("expected native, generic, tc, default=permit or default=deny, found \"{}\"", word));
}

void hardwareIs(Options& o, std::string const& text) {
  constexpr std::string_view xdp = "xdp:";
  if (text == "sim" || text == "null") {
    o.hardware = text == "sim" ? HardwareKind::Sim : HardwareKind::Null;
    return;
  }
  std::istringstream words(text.starts_with(xdp) ? text.substr(xdp.size()) : "");
  if (!std::getline(words, o.xdp.interface, ',') || o.xdp.interface.empty())
    throw CLI::ValidationError("--hw",
                               fmt::format("expected sim, null or xdp:INTERFACE, found \"{}\"", text));
  o.hardware = HardwareKind::Xdp;
  for (std::string word; std::getline(words, word, ',');) xdpWord(o.xdp, word);
}

void engineIs(Options& o, std::string const& text) {
  if (text != "fast" && text != "atcam")
    throw CLI::ValidationError("--engine", fmt::format("expected fast or atcam, found \"{}\"", text));
  o.engine = text == "fast" ? EngineKind::Fast : EngineKind::Atcam;
}

// In words: the library's own checks name a range of 300 digits.
CLI::Validator const aboveZero(
    [](std::string& text) {
      bool const digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
      if (digits && text.find_first_not_of('0') != std::string::npos) return std::string();
      return fmt::format("expected a number above 0, found \"{}\"", text);
    },
    "");
CLI::Validator const aShare(
    [](std::string& text) {
      char* end = nullptr;
      double const share = std::strtod(text.c_str(), &end);
      if (!text.empty() && *end == '\0' && share >= 0 && share <= 1) return std::string();
      return fmt::format("expected a share from 0 to 1, found \"{}\"", text);
    },
    "");

void checkXdp(CLI::App const& app, Options& o) {
  if (o.hardware != HardwareKind::Xdp) {
    if (!o.xdp.pins.empty() || o.detach)
      throw CLI::ValidationError(o.detach ? "--hw-detach" : "--hw-pin", "belongs to --hw xdp:INTERFACE");
    return;
  }
  if (!app.count("--size")) o.size = mostPositions;
  if (o.size > mostPositions)
    throw CLI::ValidationError(
        "--size", fmt::format("--hw xdp has {} positions at most", static_cast<U32>(mostPositions)));
  if (o.keep && o.xdp.pins.empty())
    throw CLI::ValidationError("--keep", "needs --hw-pin: else the table ends with the agent");
  o.xdp.positions = o.size;
}

void checkTogether(CLI::App const& app, Options const& o) {
  if (o.engine == EngineKind::Atcam && o.maxPartitions == 0)
    throw CLI::ValidationError("--engine atcam", "needs --max-partitions M, from 1 to 65536");
  if (o.engine == EngineKind::Fast && app.count("--max-partitions"))
    throw CLI::ValidationError("--max-partitions", "belongs to --engine atcam");
  if (o.engine == EngineKind::Atcam && o.prioGrpShift && (o.maxPartitions - 1) >> (32 - o.prioGrpShift))
    throw CLI::ValidationError("--prio-grp-shift",
                               fmt::format("leaves no room for {} partitions", o.maxPartitions));
  if (o.hardware != HardwareKind::Sim && !o.sim.state.empty())
    throw CLI::ValidationError("--sim-state", "belongs to --hw sim");
  if (o.size > o.mapping().positions())
    throw CLI::ValidationError(
        "--size", fmt::format("{} positions are more than the engine's mapping can name ({})", o.size,
                              o.mapping().positions()));
}

// What real hardware does on bad days.
void addSimulation(CLI::App& app, SimOptions& o) {
  auto const sim = [&app](char const* flag, auto& value, char const* help) {
    return app.add_option(flag, value, help)->group("Simulated hardware");
  };
  sim("--hw-latency-us", o.latencyUs, "Microseconds that each hardware operation takes");
  sim("--sim-at-once", o.atOnce, "Calls that may be under way at once (1)")->check(aboveZero);
  sim("--sim-busy", o.busy, "Share of the calls that fail and are tried again, 0 to 1")->check(aShare);
  sim("--sim-refused", o.refused, "Share of the calls that are refused for good")->check(aShare);
  sim("--sim-unknown", o.unknown, "Share of the calls of which nobody knows whether they were done")
      ->check(aShare);
  sim("--sim-capacity", o.capacity, "Entries that it holds at most (one at each position)")->check(aboveZero);
  sim("--sim-dies-at", o.diesAt, "The number of the call from which on it does not answer")->check(aboveZero);
  sim("--sim-state", o.state, "File that has its contents and outlives the agent");
}

}  // namespace

Vantrel::Geometry Options::geometry() const {
  bool const fast = engine == EngineKind::Fast;
  U32 const shift = fast ? Vantrel::Mapping::defaultShift : Vantrel::AlgorithmicMapping::defaultShift;
  return {size, prioGrpShift ? prioGrpShift : shift, fast ? 0 : maxPartitions};
}

Vantrel::Mapping Options::mapping() const { return geometry().mapping(); }

Options parse(int argc, char** argv) {
  Options o;
  CLI::App app(
      "The reference agent: programs the entries of DIR/config.shoal and acknowledges in DIR/status.shoal.",
      "vantreld");
  app.footer(
      "Example:\n  vantreld --dir /run/vantrel --size 65536\n\n"
      "Files in DIR: config.shoal (the producer's), status.shoal, geometry and mgmt.sock (the agent's), "
      "Quarry-mbb-PID.lg (its\n"
      "trace; LUMELOGDIR puts it elsewhere, LUMELOG_DISABLE drops it). TRACE=\"VantrelFastImpl/9\" traces as "
      "text.\n\n"
      "SIGTERM or SIGINT: it withdraws what it programmed (--keep: nothing) and ends with 0, or 1 when the "
      "hardware\nsaw a rule broken. A second signal ends it at once with 3, and leaves everything where it "
      "is. "
      "A start that\nfails ends with 1, a wrong flag with 2.");
  app.set_version_flag("--version", "vantreld " VANTREL_VERSION);
  app.failure_message([](CLI::App const*, CLI::Error const& e) {
    return fmt::format("vantreld: {}; see vantreld --help\n", e.what());
  });
  app.add_option("--dir", o.dir, "Directory of the tables, the management socket and the trace file")
      ->required()
      ->envname("VANTREL_DIR")
      ->check(CLI::ExistingDirectory);
  app.add_option_function<std::string>(
      "--engine", [&o](std::string const& text) { engineIs(o, text); },
      "fast (TCAM) or atcam (algorithmic TCAM)");
  app.add_option("--max-partitions", o.maxPartitions, "Partitions that table indexes interleave (atcam)")
      ->check(CLI::Range(1U, 65536U));
  app.add_option("--prio-grp-shift", o.prioGrpShift,
                 "Bits of a precedence index that hold the position (19; atcam 16)")
      ->check(CLI::Range(16U, Vantrel::Mapping::mostShift));
  app.add_option("--size", o.size, "Positions in hardware")->check(aboveZero)->capture_default_str();
  app.add_option_function<std::string>(
      "--hw", [&o](std::string const& text) { hardwareIs(o, text); },
      "sim (a checking simulation), null (programs nothing) or xdp:INTERFACE[,native|generic|tc]\n"
      "[,default=permit|deny] (a table in the kernel that the interface's packets pass through)");
  app.add_option("--hw-pin", o.xdp.pins, "Directory in a BPF file system where that table outlives the agent")
      ->check(CLI::ExistingDirectory);
  app.add_flag("--hw-detach", o.detach, "Take away what an earlier run left in the kernel, and end");
  addSimulation(app, o.sim);
  app.add_option("--metrics", o.metrics, "File that gets the agent's counts as OpenMetrics text");
  app.add_option("--metrics-interval", o.metricsInterval, "Seconds between two of its texts (15)")
      ->check(aboveZero);
  app.add_option("--warn-after", o.warnAfter, "Seconds that an entry may wait before it is named (60)")
      ->check(aboveZero);
  app.add_flag("--keep", o.keep, "Stop without withdrawing: hardware keeps its entries");
  app.add_flag("--strict", o.strict,
               "Break rings of occupants only, and retry notified keys only (breakMixedRings is not set)");
  try {
    app.parse(argc, argv);
    checkXdp(app, o);
    checkTogether(app, o);
  } catch (CLI::ParseError const& e) {
    std::exit(app.exit(e) == 0 ? 0 : 2);
  }
  return o;
}

}  // namespace Vantreld
