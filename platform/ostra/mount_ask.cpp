// SPDX-License-Identifier: Apache-2.0
#include "ostra/mount_ask.h"

#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "ostra/publish_wire.h"
#include "pallo/unix_socket.h"

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

// The socket, and how long to wait for what comes on it.
struct VANTREL_LOCAL Asker::Connection {
  Connection(std::string agentPath, double answerSeconds)
      : path(std::move(agentPath)),
        seconds(answerSeconds),
        socket(connectWithin(seconds, path), longestLine) {}

  std::string_view nextLine(double atMost);
  void await(double atMost);

  std::string const path;
  double const seconds;
  Pallo::LineSocket socket;
};

Asker::Asker(std::string path, double seconds)
    : agent_(std::make_unique<Connection>(std::move(path), seconds)) {}

Asker::~Asker() = default;

// What the agent says last may explain why it takes no request: the answer is waited for all the same.
void Asker::ask(std::string_view request, std::function<void(std::string_view line)> const& take) {
  (agent_->socket.out() += request) += '\n';
  for (bool more = true; more;) {
    std::string_view const line = agent_->nextLine(agent_->seconds);
    Wire::Message const message = parsed(line);
    if (message.error.given()) throw std::runtime_error(message.error.text() ? *message.error.text() : "");
    if (!message.answer.given()) continue;  // an event of something mounted before
    take(line);
    more = message.more.value == Value(true);
  }
}

std::string Asker::nextEvent() { return std::string(agent_->nextLine(-1)); }

// Below zero: waits for ever.
std::string_view Asker::Connection::nextLine(double atMost) {
  while (true) {
    if (auto const line = socket.line()) return *line;
    if (!socket.ended().empty()) throw AgentGone(fmt::format("the agent at {} {}", path, socket.ended()));
    socket.send();
    await(atMost);
    socket.receive();
  }
}

void Asker::Connection::await(double atMost) {
  short const events = socket.sending() ? POLLIN | POLLOUT : POLLIN;
  pollfd p{socket.fd(), events, 0};
  if (::poll(&p, 1, atMost < 0 ? -1 : static_cast<int>(atMost * 1000)) == 0)
    throw AgentLate(fmt::format("the agent at {} did not answer within {} seconds", path, atMost));
}

}  // namespace Ostra
