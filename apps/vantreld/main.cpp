// SPDX-License-Identifier: Apache-2.0
// vantreld: the reference agent.
#include <unistd.h>

#include <csignal>
#include <exception>
#include <utility>

#include "apps/vantreld/agent.h"
#include "apps/vantreld/xdp_hardware.h"

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGHUP, SIG_IGN);  // a terminal that was closed does not withdraw what forwards packets
  Vantreld::Log out(STDOUT_FILENO), err(STDERR_FILENO, 4);
  try {
    Vantreld::Options options = Vantreld::parse(argc, argv);
    if (options.detach) {
      Vantreld::detachXdp(options.xdp);
      out.say("nothing is left in the kernel");
      return 0;
    }
    Vantreld::Agent agent(std::move(options), out, err);
    return agent.run();
  } catch (std::exception const& e) {
    err.say("{}", e.what());
    return 1;
  }
}
