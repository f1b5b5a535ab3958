// SPDX-License-Identifier: Apache-2.0
// demo: loads a rule file into the table of a running agent, edits it several times, and shows what happened.
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "apps/demo/show.h"
#include "apps/vantrel/acl/parse.h"

namespace {

struct Flags {
  std::string rules;
  std::string dir;
  U32 partitions = 4;
  U32 size = 1024;
  U32 seed = 1;
  double patience = 30;
};

std::size_t terminalColumns() {
  winsize window{};
  bool const known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0;
  return known ? window.ws_col : 100;
}

bool run(Flags const& flags) {
  Demo::Rules rules = Acl::parseFile(flags.rules);
  Demo::Show show(flags.dir, Vantrel::Mapping::algorithmic(flags.partitions), flags.size, flags.patience);
  std::mt19937 random(flags.seed);
  std::size_t const some = std::max<std::size_t>(rules.size() / 20, 1);

  show.load(fmt::format("load {} rules", rules.size()), rules);
  Demo::insertBlocks(rules, some, random);
  show.load(fmt::format("insert {} rules at random places", some), rules);
  Demo::removeSome(rules, some, random);
  show.load(fmt::format("remove {} rules", some), rules);
  Demo::changeActions(rules, some, random);
  show.load("change some actions", rules);
  show.tradePlaces(some);
  Demo::reverseBlock(rules, 2 * some);
  show.load(fmt::format("reverse a block of {} rules", std::min(2 * some, rules.size())), rules);
  return show.report(terminalColumns(), isatty(STDOUT_FILENO));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Loads rules into the table of a running agent, edits them under way, and shows what happened.");
  Flags flags;
  app.add_option("RULES", flags.rules, "The rule file (ClassBench filter format)")->required();
  app.add_option("--dir", flags.dir, "The agent's directory")->required();
  app.add_option("--max-partitions", flags.partitions, "As the agent was told");
  app.add_option("--size", flags.size, "Positions to use");
  app.add_option("--seed", flags.seed, "Of the random places");
  app.add_option("--patience", flags.patience, "Seconds for one step");
  try {
    app.parse(argc, argv);
    return run(flags) ? 0 : 1;
  } catch (CLI::Success const& e) {
    return app.exit(e);
  } catch (CLI::ParseError const& e) {
    app.exit(e);
    return 2;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "demo: %s\n", e.what());
    return 1;
  }
}
