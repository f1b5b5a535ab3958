// SPDX-License-Identifier: Apache-2.0
#include "ostra/mount_ask.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ostra/publish_wire.h"

namespace Ostra {
namespace {
constexpr std::size_t longestLine = 4 * 1024 * 1024;
constexpr std::size_t readAtOnce = 64 * 1024;
}  // namespace

class Asker::Impl {
  using Clock = std::chrono::steady_clock;

 public:
  Impl(std::string path, double seconds) : path_(std::move(path)), seconds_(seconds) {
    connect();
    if (!socket_) fail(fmt::format("cannot reach the agent at {}: {}", path_, std::strerror(errno)));
  }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      ssize_t const n = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n > 0)
        bytes.remove_prefix(static_cast<std::size_t>(n));
      else if (errno == EAGAIN)
        await(POLLOUT, seconds_);
      else if (errno != EINTR)
        throw AgentGone(fmt::format("the agent at {} went away: {}", path_, std::strerror(errno)));
    }
  }

  // The next line; `seconds` below zero: waits for ever.
  std::string_view line(double seconds) {
    while (true) {
      if (auto const line = in_.next()) return *line;
      if (in_.overlong()) fail(fmt::format("the agent at {} sent a line that is too long", path_));
      await(POLLIN, seconds);
      receive();
    }
  }
  double seconds() const { return seconds_; }

 private:
  // An agent to which very many connect at once has no place for one more until it has looked.
  void connect() {
    auto const end = Clock::now() + std::chrono::duration<double>(seconds_);
    while (!(socket_ = Wire::connectTo(path_)) && errno == EAGAIN && Clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  [[noreturn]] static void fail(std::string const& why) { throw std::runtime_error(why); }

  void await(short events, double seconds) {
    pollfd p{socket_.get(), events, 0};
    int const ready = ::poll(&p, 1, seconds < 0 ? -1 : static_cast<int>(seconds * 1000));
    if (ready == 0) fail(fmt::format("the agent at {} did not answer within {} seconds", path_, seconds));
  }

  void receive() {
    bytes_.resize(readAtOnce);
    ssize_t const n = ::recv(socket_.get(), bytes_.data(), bytes_.size(), 0);
    if (n > 0)
      in_.append(bytes_.data(), static_cast<std::size_t>(n));
    else if (n == 0 || (errno != EAGAIN && errno != EINTR))
      throw AgentGone(fmt::format("the agent at {} closed the connection", path_));
  }

  std::string const path_;
  double const seconds_;
  Pallo::Descriptor socket_;
  Wire::LineBuffer in_{longestLine};
  std::vector<char> bytes_;
};

Asker::Asker(std::string path, double seconds) : impl_(std::make_unique<Impl>(std::move(path), seconds)) {}
Asker::~Asker() = default;

void Asker::ask(std::string_view request, std::function<void(std::string_view line)> const& take) {
  impl_->send(std::string(request) + '\n');
  for (bool more = true; more;) {
    std::string_view const line = impl_->line(impl_->seconds());
    Wire::Json const head = Wire::Json::parse(line, nullptr, false);
    if (!head.is_object()) throw std::runtime_error("the agent sent a line that is not a JSON object");
    if (head.contains("error")) throw std::runtime_error(head["error"].get<std::string>());
    if (!head.contains("answer")) continue;  // an event of something mounted before
    take(line);
    more = head.value("more", false);
  }
}

std::string Asker::nextEvent() { return std::string(impl_->line(-1)); }

}  // namespace Ostra
