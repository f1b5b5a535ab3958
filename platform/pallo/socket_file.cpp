// SPDX-License-Identifier: Apache-2.0
// How a socket is made in a directory that others may write to. bind() and chmod() take a path, and between
// the two another user can put a link in the socket's place, so that a file of the link's choice gets the
// mode. Therefore the socket is made where nobody else can put anything:
//
//   DIR/mgmt.sock.lock             taken first: one agent at a time does the following
//   DIR/mgmt.sock.private/         made with mode 0700, opened without following links, checked by descriptor
//   DIR/mgmt.sock.private/socket   bound through the descriptor, mode set, listening
//   DIR/mgmt.sock                  the same, renamed; the private directory is removed
//
// It does not keep anybody who may write to DIR from removing the socket, or from standing in the way: then
// the agent does not start, and says what is in its way.
#include "pallo/socket_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "pallo/unix_socket.h"

namespace Pallo {
namespace {

constexpr int mostWaiting = 512;  // to be accepted

bool isOwn(struct stat const& s) { return s.st_uid == ::geteuid(); }

}  // namespace

SocketFile::SocketFile(std::string path) : path_(std::move(path)) {
  static_cast<void>(unixAddress(path_));  // those who connect must be able to name it
  openDirectory();
  lock();
  checkReplaceable();
  listenIn(privateDirectory());
}

SocketFile::~SocketFile() { ::unlinkat(directory_.get(), name_.c_str(), 0); }

void SocketFile::openDirectory() {
  std::size_t const slash = path_.rfind('/');
  name_ = path_.substr(slash + 1);
  std::string const directory = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
  directory_ = Descriptor(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory_) failErrno("cannot open its directory");
}

void SocketFile::lock() {
  std::string const name = name_ + ".lock";
  int const flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  lock_ = Descriptor(::openat(directory_.get(), name.c_str(), flags, 0600));
  if (!lock_) failErrno("cannot open the lock file beside it");
  struct stat s {};
  if (::fstat(lock_.get(), &s) != 0 || !S_ISREG(s.st_mode) || !isOwn(s) || s.st_nlink != 1)
    fail(name + " beside it must be a regular file of this user, with one name");
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) fail("a live agent serves it already");
}

// A live agent's lock file may have been removed: its socket still answers, or has no room for one more.
void SocketFile::checkReplaceable() const {
  struct stat s {};
  if (::fstatat(directory_.get(), name_.c_str(), &s, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISSOCK(s.st_mode)) fail("the path exists and is not a socket");
  if (connectTo(path_) || errno == EAGAIN) fail("a live agent serves it already");
}

// One that a dead agent left behind is used again. In a directory that hands its group down, it does too.
Descriptor SocketFile::privateDirectory() const {
  std::string const name = name_ + ".private";
  if (::mkdirat(directory_.get(), name.c_str(), 0700) != 0 && errno != EEXIST)
    failErrno("cannot make the directory " + name + " beside it");
  int const flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  Descriptor made(::openat(directory_.get(), name.c_str(), flags));
  struct stat s {};
  if (!made || ::fstat(made.get(), &s) != 0 || !isOwn(s) || (s.st_mode & 0777) != 0700)
    fail(name + " beside it must be a directory of this user, with mode 0700");
  return made;
}

void SocketFile::listenIn(Descriptor const& directory) {
  listener_ = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener_) failErrno("cannot make a socket");
  sockaddr_un const address = unixAddress(fmt::format("/proc/self/fd/{}/socket", directory.get()));
  ::unlinkat(directory.get(), "socket", 0);
  bool const listens =
      ::bind(listener_.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
      ::fchmodat(directory.get(), "socket", 0660, 0) == 0 && ::listen(listener_.get(), mostWaiting) == 0 &&
      ::renameat(directory.get(), "socket", directory_.get(), name_.c_str()) == 0;
  int const error = errno;
  if (!listens) ::unlinkat(directory.get(), "socket", 0);
  ::unlinkat(directory_.get(), (name_ + ".private").c_str(), AT_REMOVEDIR);
  errno = error;
  if (!listens) failErrno("cannot listen");
}

void SocketFile::fail(std::string const& what) const {
  throw std::runtime_error(fmt::format("socket {}: {}", path_, what));
}

void SocketFile::failErrno(std::string const& what) const {
  fail(fmt::format("{}: {}", what, std::strerror(errno)));
}

}  // namespace Pallo
