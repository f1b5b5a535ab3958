// SPDX-License-Identifier: Apache-2.0
// Unix-domain stream sockets: their addresses, and LineSocket, one end of a connection on which both sides
// send lines.
//
// Invariants: nothing here waits; whoever uses a LineSocket polls its fd(). It holds at most one unfinished
//   line and what was received last, and of what is to be sent what the socket did not take.
// Ownership: of the socket.
// Threading: one thread.
// Cost: one system call a receive() and a send().
// Errors: std::runtime_error for a path that cannot be an address.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "pallo/descriptor.h"
#include "pallo/types.h"

namespace Pallo {

sockaddr_un unixAddress(std::string const& path);
// A connected, non-blocking socket, or none with errno set: EAGAIN when too many wait to be accepted.
Descriptor connectTo(std::string const& path);

class LineSocket {
 public:
  LineSocket(Descriptor socket, std::size_t longestLine)
      : socket_(std::move(socket)), longest_(longestLine) {}

  int fd() const { return socket_.get(); }
  explicit operator bool() const { return static_cast<bool>(socket_); }

  // Takes what has arrived, at most so many bytes and 64 KB.
  void receive(std::size_t atMost = 64 * 1024);
  // The next complete line without its end, or nothing yet. It stays in place until the next call.
  std::optional<std::string_view> line();
  bool hasLine() const { return in_.find('\n', scanned_) != std::string::npos; }
  // The unfinished line is longer than any line may be.
  bool overlong() const { return in_.size() - begin_ > longest_; }

  // What is appended here is sent by the next send(), as much as the socket takes. False when it never will.
  std::string& out() { return out_; }
  bool send();
  bool sending() const { return !out_.empty(); }
  // The socket takes no more now.
  bool blocked() const { return blocked_; }
  // Bytes that were sent so far, and how much of the kernel's memory those take that nobody has read.
  U64 sent() const { return sent_; }
  int unread() const;

  // The other end sends no more.
  bool heardAll() const { return heardAll_; }
  // The errno with which receive() failed for good, or zero.
  int error() const { return error_; }
  // What the other end did that no more lines will come, as the rest of a sentence; empty when they may.
  std::string ended() const;

 private:
  Descriptor socket_;
  std::size_t longest_;
  std::string in_;
  std::size_t begin_ = 0;    // of the next line
  std::size_t scanned_ = 0;  // no line ends before this
  std::string out_;
  U64 sent_ = 0;
  bool blocked_ = false;
  bool heardAll_ = false;
  int error_ = 0;
};

}  // namespace Pallo
