// SPDX-License-Identifier: Apache-2.0
#include "shoal/mapping.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "shoal/error.h"
#include "shoal/format.h"

namespace Shoal {
namespace {

[[noreturn]] void throwOpenError(std::string const& path, int error) {
  using Reason = FileException::Reason;
  if (error == ENOENT || error == ENOTDIR)
    throw FileException(Reason::missing, fmt::format("{}: there is no such file, expected a table", path));
  if (error == ELOOP)
    throw FileException(Reason::notAllowed,
                        fmt::format("{} is a symbolic link, expected the table file itself", path));
  throw FileException(Reason::notAllowed,
                      fmt::format("{}: cannot be opened: {}", path, std::strerror(error)));
}

}  // namespace

int openTableFile(std::string const& path, Mapping::Access access) {
  int const mode = access == Mapping::Access::write ? O_RDWR : O_RDONLY;
  int const fd = ::open(path.c_str(), mode | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) throwOpenError(path, errno);
  struct stat status {};
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) return fd;
  ::close(fd);
  throw FileException(FileException::Reason::notATable,
                      fmt::format("{} is not a regular file, expected a table", path));
}

Mapping::Mapping(std::string path, Access access) : Mapping(path, openTableFile(path, access), access) {}

Mapping::Mapping(std::string path, int fd, Access access) : path_(std::move(path)), fd_(fd), access_(access) {
  try {
    map();
    guard_.watch(base_, window_, access_ == Access::write);
  } catch (...) {
    if (base_) munmap(base_, window_);
    ::close(fd_);
    throw;
  }
}

Mapping::~Mapping() {
  guard_.unwatch();
  munmap(base_, window_);
  ::close(fd_);
}

// A process whose address space is limited gets a smaller window; growth beyond it is refused where it
// happens.
void Mapping::map() {
  for (window_ = Format::windowBytes; !mapWindow(); window_ /= 2)
    if (window_ / 2 < fileBytes() || window_ < 2 * Format::chunkBytes)
      throw FileException(FileException::Reason::notAllowed,
                          fmt::format("{}: cannot be mapped: {}", path_, std::strerror(errno)));
  madvise(base_, window_, MADV_DONTDUMP);
}

// At an address of which a huge page of the file can be a huge page of the process.
bool Mapping::mapWindow() {
  int const nothing = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  void* const wider = mmap(nullptr, window_ + hugePageBytes, PROT_NONE, nothing, -1, 0);
  if (wider == MAP_FAILED) return false;
  auto const begin = reinterpret_cast<std::uintptr_t>(wider);
  U64 const before = Format::roundUp(begin, hugePageBytes) - begin;
  base_ = static_cast<std::byte*>(wider) + before;
  if (before != 0) munmap(wider, before);
  munmap(base_ + window_, hugePageBytes - before);
  if (mapFile()) return true;
  int const error = errno;
  munmap(std::exchange(base_, nullptr), window_);
  errno = error;
  return false;
}

bool Mapping::mapFile() {
  int const protection = access_ == Access::write ? PROT_READ | PROT_WRITE : PROT_READ;
  int const flags = MAP_SHARED | MAP_NORESERVE | MAP_FIXED;
  return mmap(base_, window_, protection, flags, fd_, 0) == base_;
}

U64 Mapping::fileBytes() const {
  struct stat status {};
  return fstat(fd_, &status) == 0 ? static_cast<U64>(status.st_size) : 0;
}

bool Mapping::cutShort() const { return guard_.hit(); }

bool Mapping::mend(U64 bytes) {
  if (fileBytes() < bytes) return false;
  guard_.reset();
  return mapFile();
}

bool Mapping::hugePageIs(U64 offset) {
#ifdef MADV_COLLAPSE
  constexpr int collapse = MADV_COLLAPSE;
#else
  constexpr int collapse = 25;  // of Linux 6.1
#endif
  return madvise(base_ + offset, hugePageBytes, collapse) == 0;
}

bool Mapping::isCurrent() const {
  struct stat here {};
  struct stat there {};
  return fstat(fd_, &here) == 0 && lstat(path_.c_str(), &there) == 0 && here.st_ino == there.st_ino &&
         here.st_dev == there.st_dev;
}

}  // namespace Shoal
