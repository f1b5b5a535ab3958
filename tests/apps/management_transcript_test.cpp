// SPDX-License-Identifier: Apache-2.0
// The session in docs/formats/management-socket.md happens as it is written there.
#include <gmock/gmock.h>

#include <cstdio>
#include <regex>

#include "tests/ostra/raw_peer.h"
#include "tests/support/agent.h"

using namespace TestSupport;

namespace {

struct Step {
  std::string what;  // with its "$ " or "> "
  std::vector<std::string> answer;
};

std::vector<Step> session() {
  std::istringstream page(contents(VANTREL_SOURCE_DIR "/docs/formats/management-socket.md"));
  std::vector<Step> steps;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line == "```text" || line == "```") {
      inside = line == "```text";
    } else if (inside && (line.starts_with("$ ") || line.starts_with("> "))) {
      steps.push_back({line, {}});
    } else if (inside) {
      steps.back().answer.push_back(line);
    }
  }
  return steps;
}

// How long an entry has waited depends on the machine.
std::string withoutSeconds(std::string const& line) {
  std::string const text = std::regex_replace(line, std::regex("(\"waitedSeconds\":)[0-9]+"), "$010");
  return std::regex_replace(text, std::regex(", for [0-9]+ s"), ", for 0 s");
}

std::vector<std::string> linesOf(std::string const& command) {
  std::vector<std::string> lines;
  FILE* const out = ::popen((command + " 2>&1").c_str(), "r");
  std::string text;
  for (int c; (c = std::fgetc(out)) != EOF;) text += static_cast<char>(c);
  ::pclose(out);
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(withoutSeconds(line));
  return lines;
}

}  // namespace

TEST(ManagementTranscript, MatchesTheSessionOfTheFormatsPage) {
  TempDir const dir;
  auto const agent = startAgent(dir, dir.path(), {"--size", "64"});
  OstraTest::RawPeer peer(dir / "mgmt.sock");
  ASSERT_TRUE(peer.connected());
  std::vector<Step> const steps = session();
  ASSERT_GT(steps.size(), 10u);
  for (Step const& step : steps) {
    std::string const what = step.what.substr(2);
    if (step.what[0] == '$') {
      std::string const command = std::regex_replace(what, std::regex("DIR"), dir.path());
      EXPECT_EQ(step.answer, linesOf(VANTREL_BIN_DIR "/" + command)) << what;
      continue;
    }
    peer.take();
    peer.write(what + "\n");
    EXPECT_TRUE(eventually(
        [&] {
          peer.read();
          return peer.lines().size() >= step.answer.size();
        },
        10))
        << what;
    std::vector<std::string> expected;
    for (std::string const& line : step.answer) expected.push_back(line.substr(2));
    EXPECT_EQ(expected, peer.lines()) << what;
  }
}
