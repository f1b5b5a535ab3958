// SPDX-License-Identifier: Apache-2.0
#include "lumelog/file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Lumelog::File {
namespace {

[[noreturn]] void fail(std::string const& path, int error) {
  throw std::system_error(error, std::generic_category(), path);
}

flock64 wholeFile(short type) {
  flock64 lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Locks of open file descriptions: a fork shares them, and reading the file elsewhere in the process does not
// drop them.
bool lock(int fd) {
  flock64 request = wholeFile(F_WRLCK);
  return ::fcntl(fd, F_OFD_SETLK, &request) == 0;
}

std::string withStem(std::string const& path, std::string const& addition) {
  std::filesystem::path const p(path);
  return (p.parent_path() / (p.stem().string() + addition + p.extension().string())).string();
}

// The names to try one after the other: the wanted one, one with the process number, then with a count.
std::string candidate(std::string const& path, unsigned n) {
  if (n == 0) return path;
  std::string const pid = fmt::format("-{}", ::getpid());
  bool const hasPid = std::filesystem::path(path).stem().string().ends_with(pid);
  if (n == 1 && !hasPid) return withStem(path, pid);
  return withStem(path, fmt::format("{}.{}", hasPid ? "" : pid, n));
}

void renameAside(std::string const& path) {
  for (unsigned n = 1; n < 1000000; ++n) {
    std::string const aside = fmt::format("{}.{}", path, n);
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno != EEXIST) fail(path, errno);
  }
  fail(path, EEXIST);
}

bool sameFile(int fd, std::string const& path) {
  struct stat a, b;
  return ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

// True when the name is free afterwards. While the dead process's file is locked here, nobody else moves it.
bool putAsideIfDead(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    fail(path, errno);
  }
  bool const dead = lock(fd);
  if (dead && sameFile(fd, path)) renameAside(path);
  ::close(fd);
  return dead;
}

// True when `from` has the name `to` too.
bool linkUnlessTaken(std::string const& from, std::string const& to) {
  if (::link(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EEXIST) fail(to, errno);
  return false;
}

}  // namespace

Draft::Draft(std::string const& path, std::size_t bytes) {
  static unsigned serial = 0;
  path_ = fmt::format("{}.new-{}-{}", path, ::getpid(), ++serial);
  fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd_ < 0) fail(path, errno);
  int const error = ::posix_fallocate(fd_, 0, static_cast<off_t>(bytes));
  bool const locked = error == 0 && lock(fd_);
  if (locked) return;
  int const cause = error ? error : errno;
  ::close(fd_);
  ::unlink(path_.c_str());
  fail(path, cause);
}

Draft::~Draft() {
  if (fd_ < 0) return;
  ::close(fd_);
  ::unlink(path_.c_str());
}

std::string Draft::publish(std::string const& path, int* fd) {
  for (unsigned n = 0; n < 1000; ++n) {
    std::string const name = candidate(path, n);
    // Another process may take the name between the two steps; then it is live.
    if (!linkUnlessTaken(path_, name) && !(putAsideIfDead(name) && linkUnlessTaken(path_, name))) continue;
    ::unlink(path_.c_str());
    *fd = std::exchange(fd_, -1);
    return name;
  }
  fail(path, EEXIST);
}

std::string place(std::string const& name, std::string const& directory) {
  std::string file = name;
  if (std::size_t const at = file.find("%d"); at != std::string::npos)
    file.replace(at, 2, std::to_string(::getpid()));
  if (std::filesystem::path(file).is_absolute()) return file;
  char const* fromEnvironment = std::getenv("LUMELOGDIR");
  return ((fromEnvironment ? std::filesystem::path(fromEnvironment) : std::filesystem::path(directory)) /
          file)
      .string();
}

bool isLive(int fd) {
  flock64 request = wholeFile(F_RDLCK);
  return ::fcntl(fd, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
}

}  // namespace Lumelog::File
