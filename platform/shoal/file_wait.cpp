// SPDX-License-Identifier: Apache-2.0
#include "shoal/file_wait.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "shoal/error.h"

namespace Shoal {

FileWait::FileWait(std::string path) : path_(std::move(path)), fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  auto const slash = path_.rfind('/');
  std::string const parent = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
  if (fd_ >= 0 && inotify_add_watch(fd_, parent.c_str(), IN_CREATE | IN_MOVED_TO) >= 0) return;
  int const error = errno;
  if (fd_ >= 0) ::close(fd_);
  throw FileException(FileException::Reason::unwatchable,
                      fmt::format("{}: cannot be waited for in {}: {}", path_, parent, std::strerror(error)));
}

FileWait::~FileWait() { ::close(fd_); }

void FileWait::dispatch() {
  std::array<char, 4096> news;
  while (read(fd_, news.data(), news.size()) > 0) {
  }
}

bool FileWait::ready() const {
  struct stat status {};
  return lstat(path_.c_str(), &status) == 0;
}

}  // namespace Shoal
