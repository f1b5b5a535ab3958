// SPDX-License-Identifier: Apache-2.0
// vantrel replay: runs a scenario on a real front end and engine, with tables, hardware client and timer in
// memory, and prints what each step did.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/vantrel/command.h"
#include "pallo/assert.h"
#include "testing/world.h"

namespace VantrelCommand {
namespace {

using Testing::Do;
using Testing::EngineChoice;
using Testing::ScenarioError;
using Testing::Step;
using Testing::TraceRecord;
using Testing::World;

void say(std::string const& line) { std::printf("%s\n", line.c_str()); }

// Flushes the output before an assertion ends the process.
class FlushOnAssertion {
 public:
  FlushOnAssertion() { previous_ = Pallo::assertionHookIs(&hook); }
  FlushOnAssertion(FlushOnAssertion const&) = delete;
  FlushOnAssertion& operator=(FlushOnAssertion const&) = delete;
  ~FlushOnAssertion() { Pallo::assertionHookIs(previous_); }

 private:
  static void hook(Pallo::AssertionFailure const& failure) {
    std::fflush(stdout);
    if (previous_) previous_(failure);
  }
  static inline Pallo::AssertionHook previous_ = nullptr;
};

class Replay : public World::Listener {
 public:
  Replay(std::string name, bool trace) : name_(std::move(name)), trace_(trace) {}

  void run(std::istream& input) {
    std::string text;
    while (std::getline(input, text)) {
      ++line_;
      take(text);
    }
    if (input.bad()) throw std::runtime_error("cannot read the scenario \"" + name_ + "\"");
    if (!world_) start({});
  }

 private:
  void onEvent(Testing::EventKind kind, Vantrel::EntryConfig const& entry) override {
    say(Testing::print(Testing::Event{kind, entry}));
  }
  void onTrace(std::string_view text, std::span<U64 const> values) override {
    records_.push_back({std::string(text.substr(0, text.find('%'))), {values.begin(), values.end()}});
  }

  void take(std::string const& text) {
    try {
      Testing::Line const line = Testing::parseLine(text);
      if (over_) throw ScenarioError("expected nothing after \"cleanup\", got another line");
      if (auto const* engine = std::get_if<EngineChoice>(&line)) {
        if (line_ != 1) throw ScenarioError("expected \"engine\" on the first line only, got it here");
        return start(*engine);
      }
      if (!world_) start({});
      Step const& step = std::get<Step>(line);
      world_->check(step);
      runStep(step);
    } catch (ScenarioError const& error) {
      std::fflush(stdout);
      std::fprintf(stderr, "vantrel: %s:%llu: %s\n", name_.c_str(), static_cast<unsigned long long>(line_),
                   error.what());
      throw Exit{2};
    }
  }

  void start(EngineChoice const& engine) {
    world_.emplace(engine, *this, trace_ ? World::Trace::On : World::Trace::Off);
    finish();
  }

  void runStep(Step const& step) {
    say(Testing::printInput(line_));
    world_->run(step);
    if (step.what == Do::Debug) say(print(world_->snapshot()));
    if (step.what == Do::Show) say(print(world_->counters()));
    over_ = step.what == Do::Cleanup;
    finish();
  }

  // Prints the step's trace records after its other lines, and flushes for a reader on a pipe.
  void finish() {
    for (TraceRecord const& record : records_) say(print(record));
    records_.clear();
    std::fflush(stdout);
  }

  std::string const name_;
  bool const trace_;
  U64 line_ = 0;
  bool over_ = false;
  std::vector<TraceRecord> records_;
  std::optional<World> world_;
};

void replay(std::string const& path, bool trace) {
  FlushOnAssertion const flushed;
  if (path == "-") return Replay("standard input", trace).run(std::cin);
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot open the scenario \"" + path + "\" for reading");
  Replay(path, trace).run(file);
}

}  // namespace

void addReplay(CLI::App& app) {
  auto* verb = app.add_subcommand("replay", "Shows what a front end and its engine would do with a scenario");
  auto path = std::make_shared<std::string>();
  auto trace = std::make_shared<bool>(false);
  verb->add_option("FILE", *path, "The scenario, one JSON object a line; - reads standard input")->required();
  verb->add_flag("--trace", *trace, "After each step, print the ring-buffer trace records that it wrote");
  verb->footer(
      "Example:\n"
      "  echo '{\"do\":\"put\",\"key\":7,\"opId\":65537,\"prio\":10,\"ti\":[4]}' | vantrel replay -");
  verb->callback([path, trace] { replay(*path, *trace); });
}

}  // namespace VantrelCommand
