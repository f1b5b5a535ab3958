// SPDX-License-Identifier: Apache-2.0
// vantrel: the producer's and operator's command.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

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
void addShow(CLI::App& app);
void addMetrics(CLI::App& app);
void addWhy(CLI::App& app);

// In the order in which --help shows them.
constexpr AddVerb verbs[] = {addLoad,  addPut,    addDel,  addLs, addStatus, addWhy,      addShow, addMetrics,
                             addTrace, addReplay, addAttr, addHw, addWatch,  addSnapshot, addTable};

// One line: what is wrong, and where the usage is.
std::string usageError(CLI::App const* app, CLI::Error const& e) {
  std::string verb = "vantrel";
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    verb += " " + app->get_name();
  }
  return std::string("vantrel: ") + e.what() + "; see " + verb + " --help\n";
}

}  // namespace VantrelCommand

int main(int argc, char** argv) {
  CLI::App app(
      "Programs prioritized hardware tables make-before-break: the producer's and operator's command.",
      "vantrel");
  app.require_subcommand(1);
  for (VantrelCommand::AddVerb add : VantrelCommand::verbs) add(app);
  app.set_version_flag("--version", "vantrel " VANTREL_VERSION);
  app.failure_message(&VantrelCommand::usageError);
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
