// SPDX-License-Identifier: Apache-2.0
#include "pallo/unix_socket.h"

#include <fmt/format.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Pallo {
namespace {
constexpr std::size_t mostAtOnce = 64 * 1024;
bool isFinal(int error) { return error != EAGAIN && error != EINTR; }
}  // namespace

sockaddr_un unixAddress(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof a.sun_path)
    throw std::runtime_error(fmt::format("socket path \"{}\": expected 1 to {} bytes, got {}", path,
                                         sizeof a.sun_path - 1, path.size()));
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

Descriptor connectTo(std::string const& path) {
  sockaddr_un const a = unixAddress(path);
  Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd && ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&a), sizeof a) != 0) fd.reset();
  return fd;
}

void LineSocket::receive(std::size_t atMost) {
  char bytes[mostAtOnce];
  ssize_t const n = ::recv(fd(), bytes, std::min(atMost, sizeof bytes), 0);
  if (n == 0) heardAll_ = true;
  if (n < 0 && isFinal(errno)) error_ = errno;
  if (n <= 0) return;
  in_.erase(0, begin_);
  scanned_ -= std::exchange(begin_, 0);
  in_.append(bytes, static_cast<std::size_t>(n));
}

std::optional<std::string_view> LineSocket::line() {
  std::size_t const end = in_.find('\n', scanned_);
  if (end == std::string::npos) {
    scanned_ = in_.size();
    return std::nullopt;
  }
  std::string_view const line(in_.data() + begin_, end - begin_);
  begin_ = scanned_ = end + 1;
  return line;
}

bool LineSocket::send() {
  if (out_.empty()) return true;
  ssize_t const n = ::send(fd(), out_.data(), out_.size(), MSG_NOSIGNAL);
  if (n < 0 && isFinal(errno)) {
    out_.clear();
    return false;
  }
  if (n > 0) {
    sent_ += static_cast<U64>(n);
    out_.erase(0, static_cast<std::size_t>(n));
  }
  blocked_ = !out_.empty();
  return true;
}

int LineSocket::unread() const {
  int bytes = 0;
  ::ioctl(fd(), SIOCOUTQ, &bytes);
  return bytes;
}

std::string LineSocket::ended() const {
  if (overlong()) return "sent a line that is too long";
  if (error_ != 0) return std::string("closed the connection: ") + std::strerror(error_);
  return heardAll_ ? "closed the connection" : "";
}

}  // namespace Pallo
