// SPDX-License-Identifier: Apache-2.0
#include "shoal/mapping.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "shoal/error.h"
#include "shoal/format.h"

namespace Shoal {
namespace {

using Reason = FileException::Reason;

Reason reasonOf(int error) {
  bool const isShort = error == EMFILE || error == ENFILE || error == ENOMEM;
  return isShort ? Reason::shortOfMeans : Reason::notAllowed;
}

[[noreturn]] void throwOpenError(std::string const& path, int error) {
  if (error == ENOENT || error == ENOTDIR)
    throw FileException(Reason::missing, fmt::format("{}: there is no such file, expected a table", path));
  if (error == ELOOP)
    throw FileException(Reason::notAllowed,
                        fmt::format("{} is a symbolic link, expected the table file itself", path));
  throw FileException(reasonOf(error), fmt::format("{}: cannot be opened: {}", path, std::strerror(error)));
}

}  // namespace

Pallo::Descriptor openTableFile(std::string const& path, Access access) {
  int const mode = access == Access::write ? O_RDWR : O_RDONLY;
  Pallo::Descriptor file(::open(path.c_str(), mode | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file) throwOpenError(path, errno);
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
    throw FileException(Reason::notATable, fmt::format("{} is not a regular file, expected a table", path));
  return file;
}

// A process whose address space is limited gets a smaller window; growth beyond it is refused where it
// happens.
Mapping::Mapping(std::string path, Pallo::Descriptor file, Access access)
    : path_(std::move(path)), file_(std::move(file)), access_(access) {
  for (window_ = Format::windowBytes; !map(nullptr, 0); window_ /= 2)
    if (window_ / 2 < fileBytes() || window_ < 2 * Format::chunkBytes)
      throw FileException(reasonOf(errno),
                          fmt::format("{}: cannot be mapped: {}", path_, std::strerror(errno)));
  madvise(base_, window_, MADV_DONTDUMP);
  try {
    guard_.watch(base_, window_, access_ == Access::write);
  } catch (...) {
    munmap(base_, window_);
    throw;
  }
}

Mapping::~Mapping() {
  guard_.unwatch();
  munmap(base_, window_);
}

bool Mapping::map(void* at, int more) {
  int const protection = access_ == Access::write ? PROT_READ | PROT_WRITE : PROT_READ;
  void* const base = mmap(at, window_, protection, MAP_SHARED | MAP_NORESERVE | more, fd(), 0);
  if (base == MAP_FAILED) return false;
  base_ = static_cast<std::byte*>(base);
  return true;
}

U64 Mapping::fileBytes() const {
  struct stat status {};
  return fstat(fd(), &status) == 0 ? static_cast<U64>(status.st_size) : 0;
}

bool Mapping::mend(U64 bytes) {
  if (fileBytes() < bytes) return false;
  guard_.reset();
  return map(base_, MAP_FIXED);
}

}  // namespace Shoal
