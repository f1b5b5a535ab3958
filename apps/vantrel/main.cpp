// SPDX-License-Identifier: Apache-2.0
// vantrel: the producer's and operator's command.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "apps/vantrel/command.h"

namespace VantrelCommand {
void addReplay(CLI::App& app);

// In the order in which --help shows them.
constexpr AddVerb verbs[] = {addReplay};
}  // namespace VantrelCommand

int main(int argc, char** argv) {
  CLI::App app("Programs prioritized hardware tables make-before-break: the producer's and operator's command.",
               "vantrel");
  app.require_subcommand(1);
  for (VantrelCommand::AddVerb add : VantrelCommand::verbs)
    if (add) add(app);
  try {
    app.parse(argc, argv);
  } catch (CLI::Success const& e) {
    return app.exit(e);  // --help
  } catch (CLI::ParseError const& e) {
    app.exit(e);
    return 2;
  } catch (VantrelCommand::Exit const& e) {
    return e.status;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "vantrel: %s\n", e.what());
    return 1;
  }
  return 0;
}
