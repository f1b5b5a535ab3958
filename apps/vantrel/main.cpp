// SPDX-License-Identifier: Apache-2.0
// vantrel: the producer's and operator's command.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "apps/vantrel/command.h"

namespace VantrelCommand {
void addLoad(CLI::App& app);
void addPut(CLI::App& app);
void addDel(CLI::App& app);
void addLs(CLI::App& app);
void addStatus(CLI::App& app);
void addTrace(CLI::App& app);
void addReplay(CLI::App& app);
void addAttr(CLI::App& app);
void addHw(CLI::App& app);
void addWatch(CLI::App& app);
void addSnapshot(CLI::App& app);
void addTable(CLI::App& app);

// In the order in which --help shows them.
constexpr AddVerb verbs[] = {addLoad,   addPut,  addDel, addLs,    addStatus,   addTrace,
                             addReplay, addAttr, addHw,  addWatch, addSnapshot, addTable};
}  // namespace VantrelCommand

int main(int argc, char** argv) {
  CLI::App app(
      "Programs prioritized hardware tables make-before-break: the producer's and operator's command.",
      "vantrel");
  app.require_subcommand(1);
  for (VantrelCommand::AddVerb add : VantrelCommand::verbs) add(app);
  app.failure_message(CLI::FailureMessage::help);  // a wrong flag: what is wrong, and the verb's usage
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
