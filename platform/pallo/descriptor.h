// SPDX-License-Identifier: Apache-2.0
// Descriptor: owns one file descriptor and closes it. hasName: what a name stands for now.
//
// Ownership: moved, never copied; reset() and the destructor close it. Closing keeps errno.
// Threading: that of its owner.
// Cost: the size of an int.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace Pallo {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { reset(); }

  void reset() {
    int const error = errno;
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    errno = error;
  }
  // Gives the descriptor away; the caller closes it.
  int release() { return std::exchange(fd_, -1); }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// The file of that name is the open one. A link is not followed.
inline bool hasName(int fd, std::string const& name, int directory = AT_FDCWD) {
  struct stat here {};
  struct stat there {};
  return ::fstat(fd, &here) == 0 && ::fstatat(directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
         here.st_ino == there.st_ino && here.st_dev == there.st_dev;
}

}  // namespace Pallo
