// SPDX-License-Identifier: Apache-2.0
#include "lumelog/file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <regex>
#include <system_error>
#include <vector>

#include "lumelog/format.h"

namespace Lumelog::File {
namespace {

using Path = std::filesystem::path;

[[noreturn]] void fail(int error) { throw std::system_error(error, std::generic_category()); }

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

// The names to try one after the other: the wanted one, one with the process number, then with a count.
std::string candidate(Path const& name, unsigned n) {
  std::string const pid = fmt::format("-{}", ::getpid()), stem = name.stem();
  std::string const own = stem.ends_with(pid) ? stem : stem + pid;
  std::string const unique = n == 0 ? stem : n == 1 && own != stem ? own : fmt::format("{}.{}", own, n);
  return unique + name.extension().string();
}

// The file of that name when it is a regular one, and no link.
Pallo::Descriptor openRegular(int directory, std::string const& name) {
  Pallo::Descriptor fd(::openat(directory, name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status;
  if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) fd.reset();
  return fd;
}

// While a dead process's file is locked here, nobody else moves it.
void putAsideIfDead(int directory, std::string const& name) {
  Pallo::Descriptor const fd = openRegular(directory, name);
  if (!fd || !lock(fd.get()) || !Pallo::hasName(fd.get(), name, directory)) return;
  for (unsigned n = 1; n < 1000000; ++n) {
    std::string const aside = fmt::format("{}.{}", name, n);
    if (::renameat2(directory, name.c_str(), directory, aside.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno != EEXIST) return;
  }
}

// The names that a log's files may have: with any process number, with a count, put aside.
std::regex namesOf(Path const& name) {
  auto const literal = [](std::string const& text) {
    return std::regex_replace(text, std::regex(R"([^\w%-])"), R"(\$&)");
  };
  std::string stem = literal(name.stem());
  if (std::size_t const at = stem.find("%d"); at != std::string::npos) stem.replace(at, 2, "[0-9]+");
  return std::regex(stem + R"((-[0-9]+)?(\.[0-9]+)?)" + literal(name.extension()) + R"((\.[0-9]+)?)");
}

// When the dead process of this user that left the trace file wrote to it last. None: the file is another.
std::optional<U64> leftAt(int fd) {
  struct stat status;
  Format::FileHeader header;
  if (fd < 0 || ::fstat(fd, &status) != 0 || status.st_uid != ::geteuid() || isLive(fd) ||
      ::pread(fd, &header, sizeof header, 0) != sizeof header || !Format::sound(header.fixed))
    return std::nullopt;
  return std::max(header.fixed.openRealNs, header.live.anchor[header.live.anchors % 2].realNs);
}

}  // namespace

std::string place(std::string const& name, std::string const& directory) {
  std::string file = name;
  if (std::size_t const at = file.find("%d"); at != std::string::npos)
    file.replace(at, 2, std::to_string(::getpid()));
  char const* const fromEnvironment = std::getenv("LUMELOGDIR");
  return Path(fromEnvironment ? fromEnvironment : directory) / file;
}

Pallo::Descriptor openDirectory(std::string const& path) {
  Pallo::Descriptor fd(::open((Path(path).parent_path() / ".").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!fd) fail(errno);
  return fd;
}

void removeOld(int directory, std::string const& name, std::size_t keep) {
  std::regex const form = namesOf(Path(name).filename());
  std::vector<std::pair<U64, std::string>> old;
  std::error_code error;  // ends the walk
  std::filesystem::directory_iterator at(fmt::format("/proc/self/fd/{}", directory), error), end;
  for (; at != end; at.increment(error)) {
    std::string const file = at->path().filename();
    if (!std::regex_match(file, form)) continue;
    if (auto const ns = leftAt(openRegular(directory, file).get())) old.emplace_back(*ns, file);
  }
  std::sort(old.begin(), old.end());
  for (std::size_t i = 0; i + keep < old.size(); ++i) {
    Pallo::Descriptor const file = openRegular(directory, old[i].second);
    if (leftAt(file.get()) && lock(file.get()) && Pallo::hasName(file.get(), old[i].second, directory))
      ::unlinkat(directory, old[i].second.c_str(), 0);
  }
}

Draft::Draft(int directory, std::string const& path) : directory_(directory), path_(path) {
  static unsigned serial = 0;
  draft_ = fmt::format("{}.new-{}-{}", Path(path).filename().string(), ::getpid(), ++serial);
  int const flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  fd_ = Pallo::Descriptor(::openat(directory_, draft_.c_str(), flags, 0640));
  if (fd_ && lock(fd_.get())) return;
  int const error = errno;
  if (fd_) ::unlinkat(directory_, draft_.c_str(), 0);
  fail(error);
}

Draft::~Draft() { ::unlinkat(directory_, draft_.c_str(), 0); }

std::string Draft::publish() {
  Path const path(path_);
  for (unsigned n = 0; n < 1000; ++n) {
    std::string const name = candidate(path.filename(), n);
    // Another process may take the name between the two steps; then it is live.
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (::linkat(directory_, draft_.c_str(), directory_, name.c_str(), 0) == 0)
        return path.parent_path() / name;
      if (errno != EEXIST) fail(errno);
      if (attempt == 0) putAsideIfDead(directory_, name);
    }
  }
  fail(EEXIST);
}

bool isLive(int fd) {
  flock64 request = wholeFile(F_RDLCK);
  return ::fcntl(fd, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
}

}  // namespace Lumelog::File
