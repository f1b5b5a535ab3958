// SPDX-License-Identifier: Apache-2.0
// Asker: one request at a time to an agent's management socket, waiting for the answer. What a command is
// made of.
//
//   Ostra::Asker agent(dir + "/mgmt.sock");
//   agent.ask(R"({"verb":"read","entity":"engine"})", [](std::string_view answer) { ... });
//
// Threading: one thread; waits.
// Errors: AgentGone when the agent goes away; AgentLate when it takes longer than `seconds` between two
//   lines; std::runtime_error when it cannot be reached, or answers with an error line, whose text is the
//   exception's. Behind AgentLate the answer may still come: ask no more there.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "pallo/types.h"

namespace Ostra {

class VANTREL_API AgentGone : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class VANTREL_API AgentLate : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class VANTREL_API Asker {
 public:
  explicit Asker(std::string path, double seconds = 30);
  ~Asker();
  Asker(Asker const&) = delete;
  Asker& operator=(Asker const&) = delete;

  // Sends one request line and gives each line of the answer (a long collection takes several) to `take`.
  void ask(std::string_view request, std::function<void(std::string_view line)> const& take);
  // The next line of what was mounted. Waits as long as it takes.
  std::string nextEvent();

 private:
  struct Connection;
  std::unique_ptr<Connection> const agent_;
};

}  // namespace Ostra
