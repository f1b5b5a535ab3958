// SPDX-License-Identifier: Apache-2.0
// vantreld: the reference agent.
#include <cstdio>
#include <exception>

#include "apps/vantreld/agent.h"

int main(int argc, char** argv) {
  try {
    Vantreld::Agent agent(Vantreld::parse(argc, argv));
    return agent.run();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "vantreld: %s\n", e.what());
    return 1;
  }
}
