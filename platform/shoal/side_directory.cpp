// SPDX-License-Identifier: Apache-2.0
#include "shoal/side_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "pallo/guard.h"
#include "shoal/error.h"

namespace Shoal {
namespace {

constexpr U64 pageBytes = 4096;

// A process's own locks do not exclude each other, so the process remembers what it holds: by device and
// inode, and as which process, for a child inherits the memory and not the lock.
std::mutex heldMutex;
std::map<std::pair<U64, U64>, pid_t>& held() {
  static auto& locks = *new std::map<std::pair<U64, U64>, pid_t>;  // a table may be a static that goes after
  return locks;
}

[[noreturn]] void throwUnwatchable(std::string const& path, std::string_view what) {
  throw FileException(FileException::Reason::unwatchable,
                      fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

// The process that holds a lock on the whole file, nothing when none does. Zero is one of another namespace,
// which has no number here.
std::optional<pid_t> lockHolder(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (fcntl(fd, F_GETLK, &lock) != 0) return 0;
  if (lock.l_type == F_UNLCK) return std::nullopt;
  return lock.l_pid;
}

bool tryLock(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

}  // namespace

struct SharedPage::Guarded {
  void* base = nullptr;
  Pallo::GuardedWindow window;
};

SharedPage::SharedPage(int fd) : guarded_(std::make_unique<Guarded>()) {
  guarded_->base = mmap(nullptr, pageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  int const error = errno;
  ::close(fd);
  errno = error;
  if (guarded_->base == MAP_FAILED) throwUnwatchable("a watcher's page", "cannot be mapped");
  guarded_->window.watch(guarded_->base, pageBytes, true);
}

SharedPage::~SharedPage() {
  guarded_->window.unwatch();
  munmap(guarded_->base, pageBytes);
}

std::atomic<U32>& SharedPage::word() const { return *static_cast<std::atomic<U32>*>(guarded_->base); }

SideDirectory::SideDirectory(std::string tablePath, bool worldAccess)
    : path_(std::move(tablePath) + ".watch") {
  bool const made = ::mkdir(path_.c_str(), 0770) == 0;
  if (!made && errno != EEXIST) throwUnwatchable(path_, "cannot be made");
  fd_ = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd_ < 0) throwUnwatchable(path_, "cannot be opened");
  if (!made) return;
  struct stat status {};
  fstat(fd_, &status);
  // Its files get the directory's group, so that a watcher of another group still shares them with the
  // writer.
  mode_t const mode = worldAccess ? 01777 : (status.st_mode & 0770) | 02000;
  if (fchmod(fd_, mode) != 0) fchmod(fd_, mode & 01777);
}

SideDirectory::~SideDirectory() {
  if (fd_ >= 0) ::close(fd_);
}

bool SideDirectory::isAnother() const {
  struct stat here {};
  struct stat there {};
  return fstat(fd_, &here) == 0 && lstat(path_.c_str(), &there) == 0 &&
         (here.st_ino != there.st_ino || here.st_dev != there.st_dev);
}

std::string SideDirectory::shortPath(std::string const& name) const {
  return fmt::format("/proc/self/fd/{}/{}", fd_, name);
}

int SideDirectory::fileMode() const {
  struct stat status {};
  fstat(fd_, &status);
  return static_cast<int>(status.st_mode & 0666);
}

std::unique_ptr<SharedPage> SideDirectory::page(std::string const& name, bool make) const {
  int const flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (make ? O_CREAT : 0);
  int const fd = openat(fd_, name.c_str(), flags, 0600);
  if (fd < 0) throwUnwatchable(path_ + "/" + name, "cannot be opened");
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    errno = EINVAL;
    throwUnwatchable(path_ + "/" + name, "is not a regular file");
  }
  if (make && status.st_size < static_cast<off_t>(pageBytes)) {
    int const error = posix_fallocate(fd, 0, pageBytes);
    fchmod(fd, static_cast<mode_t>(fileMode()));
    if (error != 0) {
      ::close(fd);
      errno = error;
      throwUnwatchable(path_ + "/" + name, "cannot be made");
    }
  }
  return std::make_unique<SharedPage>(fd);
}

std::unique_ptr<SharedPage> SideDirectory::bell() const { return page("bell", true); }

[[noreturn]] static void throwLocked(std::string const& tablePath, pid_t holder) {
  std::string const who =
      holder > 0 ? fmt::format("process {}", holder) : std::string("a process that is not visible from here");
  throw WriterLockedException(
      fmt::format("{}: {} is writing this table, and a table has one writer", tablePath, who), holder);
}

// Closing any descriptor of a file drops the process's locks on it, so a file locked here is not opened
// again.
static void refuseIfOurs(SideDirectory const& directory, std::string const& tablePath) {
  struct stat status {};
  if (fstatat(directory.fd(), "writer", &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  auto const ours = held().find({status.st_dev, status.st_ino});
  if (ours != held().end() && ours->second == getpid()) throwLocked(tablePath, getpid());
}

WriterLock::WriterLock(SideDirectory const& directory, std::string const& tablePath) {
  std::lock_guard const guard(heldMutex);
  refuseIfOurs(directory, tablePath);
  fd_ = openat(directory.fd(), "writer", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
  if (fd_ < 0) throwUnwatchable(directory.path() + "/writer", "cannot be opened");
  struct stat status {};
  fstat(fd_, &status);
  if (status.st_uid == geteuid()) fchmod(fd_, static_cast<mode_t>(directory.fileMode()));
  while (!tryLock(fd_)) {
    int const error = errno;
    auto const holder = lockHolder(fd_);
    bool const refused = error == EACCES || error == EAGAIN;
    if (refused && !holder) continue;  // it went away in between
    ::close(fd_);
    if (refused) throwLocked(tablePath, *holder);
    errno = error;
    throwUnwatchable(directory.path() + "/writer", "cannot be locked");
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  held()[{device_, inode_}] = getpid();
}

WriterLock::~WriterLock() {
  std::lock_guard const guard(heldMutex);
  held().erase({device_, inode_});
  ::close(fd_);
}

}  // namespace Shoal
