// SPDX-License-Identifier: Apache-2.0
// vantreld: the reference agent.
#include <unistd.h>

#include <csignal>
#include <exception>

#include "apps/vantreld/agent.h"

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  Vantreld::Log out(STDOUT_FILENO), err(STDERR_FILENO);
  try {
    Vantreld::Agent agent(Vantreld::parse(argc, argv), out, err);
    return agent.run();
  } catch (std::exception const& e) {
    err.say("{}", e.what());
    return 1;
  }
}
