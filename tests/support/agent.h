// SPDX-License-Identifier: Apache-2.0
// vantreld as a child process of a test, which waits until it serves.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/process.h"

namespace TestSupport {

inline void awaitReady(Process const& agent) {
  EXPECT_TRUE(eventually([&] { return agent.out().find("ready in") != std::string::npos; })) << agent.err();
}

// Starts an agent on `tables`; its output goes to NAME.out and NAME.err in `dir`.
inline std::unique_ptr<Process> startAgent(TempDir const& dir, std::string const& tables,
                                           std::vector<std::string> const& flags = {},
                                           std::string const& name = "agent") {
  std::vector<std::string> argv{VANTREL_BIN_DIR "/vantreld", "--dir", tables};
  argv.insert(argv.end(), flags.begin(), flags.end());
  auto agent = std::make_unique<Process>(argv, dir / (name + ".out"), dir / (name + ".err"));
  awaitReady(*agent);
  return agent;
}

}  // namespace TestSupport
