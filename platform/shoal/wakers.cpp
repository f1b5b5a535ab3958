// SPDX-License-Identifier: Apache-2.0
#include "shoal/wakers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "pallo/exception.h"
#include "shoal/hand_over.h"

namespace Shoal {

struct Wakers::Watcher {
  std::string name;
  std::unique_ptr<SharedPage> page;
  int socket = -1;
  int event = -1;

  ~Watcher() {
    if (socket >= 0) ::close(socket);
    if (event >= 0) ::close(event);
  }
  bool gone() const {
    char byte;
    ssize_t const bytes = recv(socket, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return bytes == 0 || (bytes < 0 && errno != EAGAIN && errno != EINTR);
  }
};

namespace {

// A connection to the watcher's socket, -1 with errno when there is none to be had now.
int connectTo(SideDirectory const& directory, std::string const& name) {
  struct stat status {};
  if (fstatat(directory.fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (!S_ISSOCK(status.st_mode)) return errno = ECONNREFUSED, -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string const path = directory.shortPath(name);
  if (path.size() >= sizeof address.sun_path) return errno = ECONNREFUSED, -1;
  path.copy(address.sun_path, path.size());
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  int const error = errno;
  ::close(fd);
  return errno = error, -1;
}

// Nothing when the directory cannot be read now.
std::optional<std::vector<std::string>> pageNames(int directory) {
  int const fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const listing = fd < 0 ? nullptr : fdopendir(fd);
  if (!listing) {
    if (fd >= 0) ::close(fd);
    return std::nullopt;
  }
  std::vector<std::string> names;
  while (dirent const* item = readdir(listing)) {
    std::string const name = item->d_name;
    if (name.size() > 5 && name.ends_with(".page")) names.push_back(name.substr(0, name.size() - 5));
  }
  closedir(listing);
  return names;
}

bool isForWantOfMeans(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS || error == EAGAIN;
}

}  // namespace

// Whoever watched the table's last writer is met at once, and the meeting wakes it.
Wakers::Wakers(SideDirectory const& directory) : directory_(directory), bell_(directory.bell()) {
  U32 const rung = bell_->word().load();
  heard_ = rescan() ? rung : rung - 1;
}

Wakers::~Wakers() = default;

bool Wakers::known(std::string const& name) const {
  return std::ranges::any_of(watchers_, [&](auto const& watcher) { return watcher->name == name; });
}

void Wakers::sweep(std::string const& name) const {
  unlinkat(directory_.fd(), (name + ".sock").c_str(), 0);
  unlinkat(directory_.fd(), (name + ".page").c_str(), 0);
}

void Wakers::forgetTheGone(std::vector<std::string> const& names) {
  std::erase_if(watchers_, [&](auto const& watcher) {
    bool const listed = std::ranges::find(names, watcher->name) != names.end();
    return !listed || watcher->gone();
  });
}

// A socket nobody listens to any more is a dead watcher's. False when there are no means to meet now.
bool Wakers::meet(std::string const& name) {
  auto watcher = std::make_unique<Watcher>();
  watcher->name = name;
  watcher->socket = connectTo(directory_, name + ".sock");
  if (watcher->socket < 0) {
    if (errno == ECONNREFUSED) sweep(name);
    return !isForWantOfMeans(errno);
  }
  try {
    watcher->page = directory_.page(name + ".page", false);
  } catch (Pallo::Exception const&) {
    return !isForWantOfMeans(errno);  // what is not a page file is no watcher
  }
  watcher->event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (watcher->event < 0 || !handOver(watcher->socket, watcher->event)) return !isForWantOfMeans(errno);
  watchers_.push_back(std::move(watcher));
  return true;
}

// False when somebody could not be met, for want of means or of room, and is to be tried again with the next
// change. Who hung up may have been short of means itself: the socket in its name tells who is gone.
bool Wakers::rescan() {
  auto const names = pageNames(directory_.fd());
  if (!names) return false;
  forgetTheGone(*names);
  bool complete = true;
  for (std::string const& name : *names)
    if (!known(name)) complete &= watchers_.size() < maxWatchers && meet(name);
  return complete;
}

// The change is announced before the bell and the pages are read, and a watcher rings and lies down before it
// reads what was announced: one of the two sees the other.
void Wakers::wake() {
  U32 const rung = bell_->word().load(std::memory_order_seq_cst);
  if (rung != heard_) [[unlikely]] {
    heard_ = rescan() ? rung : rung - 1;
  }
  for (auto const& watcher : watchers_) {
    std::atomic<U32>& asleep = watcher->page->word();
    if (asleep.load(std::memory_order_seq_cst) == 0) [[likely]]
      continue;
    asleep.store(0, std::memory_order_relaxed);
    U64 const one = 1;
    if (write(watcher->event, &one, sizeof one) == sizeof one) ++wakeUps_;
  }
}

}  // namespace Shoal
