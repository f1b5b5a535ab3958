// SPDX-License-Identifier: Apache-2.0
#include "ostra/mount_ask.h"

#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "ostra/publish_wire.h"

namespace Ostra {
namespace {

constexpr std::size_t longestLine = 4 * 1024 * 1024;

// An agent to which very many connect at once has no place for one more until it has looked.
Pallo::Descriptor connectWithin(double seconds, std::string const& path) {
  using Clock = std::chrono::steady_clock;
  auto const end = Clock::now() + std::chrono::duration<double>(seconds);
  while (true) {
    Pallo::Descriptor socket = Pallo::connectTo(path);
    if (socket) return socket;
    if (errno != EAGAIN || Clock::now() >= end)
      throw std::runtime_error(fmt::format("cannot reach the agent at {}: {}", path, std::strerror(errno)));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

Wire::Message parsed(std::string_view line) try {
  return Wire::parse(line);
} catch (std::runtime_error const&) {
  throw std::runtime_error("the agent sent a line that is not a JSON object");
}

}  // namespace

Asker::Asker(std::string path, double seconds)
    : path_(std::move(path)), seconds_(seconds), agent_(connectWithin(seconds, path_), longestLine) {}

// What the agent says last may explain why it takes no request: the answer is waited for all the same.
void Asker::ask(std::string_view request, std::function<void(std::string_view line)> const& take) {
  (agent_.out() += request) += '\n';
  for (bool more = true; more;) {
    std::string_view const line = nextLine(seconds_);
    Wire::Message const message = parsed(line);
    if (message.error.given()) throw std::runtime_error(message.error.text() ? *message.error.text() : "");
    if (!message.answer.given()) continue;  // an event of something mounted before
    take(line);
    more = message.more.value == Value(true);
  }
}

// Below zero: waits for ever.
std::string_view Asker::nextLine(double seconds) {
  while (true) {
    if (auto const line = agent_.line()) return *line;
    if (!agent_.ended().empty()) throw AgentGone(fmt::format("the agent at {} {}", path_, agent_.ended()));
    agent_.send();
    await(seconds);
    agent_.receive();
  }
}

void Asker::await(double seconds) {
  short const events = agent_.sending() ? POLLIN | POLLOUT : POLLIN;
  pollfd p{agent_.fd(), events, 0};
  if (::poll(&p, 1, seconds < 0 ? -1 : static_cast<int>(seconds * 1000)) == 0)
    throw std::runtime_error(fmt::format("the agent at {} did not answer within {} seconds", path_, seconds));
}

}  // namespace Ostra
