// SPDX-License-Identifier: Apache-2.0
#include "shoal/watch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "shoal/error.h"
#include "shoal/hand_over.h"

namespace Shoal {
namespace {

// What an epoll event is about; anything else is the socket of a writer.
constexpr U64 selfTag = ~U64{0};
constexpr U64 directoryTag = selfTag - 1;
constexpr U64 listenerTag = selfTag - 2;
constexpr U64 eventTag = selfTag - 3;
constexpr U64 timerTag = selfTag - 4;

constexpr long soon = 100'000'000;  // nanoseconds

std::string parentOf(std::string const& path) {
  auto const slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}
std::string fileNameOf(std::string const& path) { return path.substr(path.rfind('/') + 1); }

void closeIf(int fd) {
  if (fd >= 0) ::close(fd);
}

[[noreturn]] void throwUnwatchable(std::string const& path) {
  throw FileException(FileException::Reason::unwatchable,
                      fmt::format("{}: cannot be watched: {}", path, std::strerror(errno)));
}

}  // namespace

Watch::Seat::Seat(std::string const& tablePath) : directory(tablePath, false) {
  U64 random = 0;
  if (getrandom(&random, sizeof random, 0) != sizeof random) throwUnwatchable(tablePath);
  name = fmt::format("{}-{:016x}", getpid(), random);
}

Watch::Seat::~Seat() {
  unlinkat(directory.fd(), (name + ".page").c_str(), 0);
  unlinkat(directory.fd(), (name + ".sock").c_str(), 0);
  closeIf(listener);
}

// The bell is rung, by the watch, when the rest is there.
void Watch::Seat::take() {
  listen();
  page = directory.page(name + ".page", true);
  bell = directory.bell();
}

void Watch::Seat::listen() {
  listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) throwUnwatchable(directory.path());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string const path = directory.shortPath(name + ".sock");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 64) != 0)
    throwUnwatchable(directory.path());
  fchmodat(directory.fd(), (name + ".sock").c_str(), static_cast<mode_t>(directory.fileMode()), 0);
}

Watch::Watch(std::string const& tablePath) : tablePath_(tablePath), fileName_(fileNameOf(tablePath)) {
  try {
    begin();
  } catch (...) {
    end();
    throw;
  }
}

Watch::~Watch() { end(); }

// The table's directory tells of a file that replaced the table, and of a side directory that was made anew.
void Watch::begin() {
  if ((poll_ = epoll_create1(EPOLL_CLOEXEC)) < 0) throwUnwatchable(tablePath_);
  if ((self_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) < 0) throwUnwatchable(tablePath_);
  add(self_, selfTag, EPOLLIN);
  timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  if (timer_ < 0) throwUnwatchable(tablePath_);
  add(timer_, timerTag, EPOLLIN);
  if ((directoryNews_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) < 0) throwUnwatchable(tablePath_);
  tableWatch_ = inotify_add_watch(directoryNews_, parentOf(tablePath_).c_str(), IN_CREATE | IN_MOVED_TO);
  if (tableWatch_ < 0) throwUnwatchable(tablePath_);
  add(directoryNews_, directoryTag, EPOLLIN);
  fileIsNew();
  sit();
  wakeSelf();
}

void Watch::end() {
  seat_.reset();
  for (Writer const& writer : writers_) {
    closeIf(writer.socket);
    closeIf(writer.event);
  }
  for (int const fd : {directoryNews_, timer_, self_, poll_}) closeIf(fd);
}

// The side directory tells of a writer's end, also of one that this watcher was never met by: the kernel
// closes what the writer had locked. Told of before the bell is rung, no end is missed.
void Watch::sit() {
  auto seat = std::make_unique<Seat>(tablePath_);
  seat->take();
  std::string const here = seat->directory.shortPath(".");
  int const ends = inotify_add_watch(directoryNews_, here.c_str(), IN_CLOSE_WRITE);
  if (ends < 0) throwUnwatchable(tablePath_);
  if (sideWatch_ >= 0 && sideWatch_ != ends) inotify_rm_watch(directoryNews_, sideWatch_);
  sideWatch_ = ends;
  seat_ = std::move(seat);
  add(seat_->listener, listenerTag, EPOLLIN);
  deaf_ = false;
  ring();
}

// The writer of the new side directory may have come, written and gone already.
void Watch::move(News& news) {
  if (!seat_->directory.isAnother()) {
    moveOwed_ = false;
    return;
  }
  try {
    sit();
    moveOwed_ = false;
    moveFailed_ = false;
    news.writerWent = true;
    news.fileMayBeAnother = true;
  } catch (FileException const& error) {
    if (!std::exchange(moveFailed_, true)) news.problem = error.what();
    wakeSelfSoon();
  }
}

void Watch::add(int fd, U64 tag, U32 events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = tag;
  if (fd < 0) return;
  if (epoll_ctl(poll_, EPOLL_CTL_ADD, fd, &event) != 0) epoll_ctl(poll_, EPOLL_CTL_MOD, fd, &event);
}

void Watch::wakeSelf() {
  U64 const one = 1;
  [[maybe_unused]] auto const written = write(self_, &one, sizeof one);
}

// Whoever copies something onto the file closes it afterwards; a writer does too when it goes.
void Watch::fileIsNew() {
  int const file = inotify_add_watch(directoryNews_, tablePath_.c_str(), IN_CLOSE_WRITE | IN_DONT_FOLLOW);
  if (fileWatch_ >= 0 && fileWatch_ != file) inotify_rm_watch(directoryNews_, fileWatch_);
  fileWatch_ = file;
}

void Watch::wakeSelfSoon() {
  itimerspec in{};
  in.it_value.tv_nsec = soon;
  timerfd_settime(timer_, 0, &in, nullptr);
}

// A table has one writer at a time: where there are too many, the oldest went, and its end is still to be
// heard. A writer for which there is no descriptor would leave the listener readable without end: it is heard
// again when time has passed.
void Watch::welcome(News& news) {
  for (int socket;
       (socket = accept4(seat_->listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
    if (writers_.size() >= maxWriters) {
      forget(writers_.begin());
      news.writerWent = true;
    }
    writers_.push_back({socket, -1});
    add(socket, static_cast<U64>(socket), EPOLLIN | EPOLLRDHUP);
  }
  bool const deaf = errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
  if (deaf) wakeSelfSoon();
  if (deaf != deaf_) add(seat_->listener, listenerTag, deaf ? 0U : U32{EPOLLIN});
  deaf_ = deaf;
}

void Watch::forget(std::vector<Writer>::iterator writer) {
  ::close(writer->socket);
  closeIf(writer->event);
  writers_.erase(writer);
}

// A writer's socket says one of two things: here is the event, or the end. Edge-triggered, the event need not
// be read. A writer whose event was lost is to meet this watcher anew.
bool Watch::hear(int socket) {
  auto const writer = std::ranges::find(writers_, socket, &Writer::socket);
  if (writer == writers_.end()) return false;
  bool ended = false;
  int const event = takeOver(socket, ended);
  if (event >= 0 && writer->event < 0) {
    writer->event = event;
    add(event, eventTag, EPOLLIN | EPOLLET);
  } else {
    closeIf(event);
  }
  if (!ended) return false;
  forget(writer);
  ring();
  return true;
}

void Watch::readDirectoryNews(News& news) {
  alignas(inotify_event) std::array<char, 4096> buffer;
  for (ssize_t bytes; (bytes = read(directoryNews_, buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < bytes;) {
      auto const* const event = reinterpret_cast<inotify_event const*>(buffer.data() + at);
      std::string_view const name = event->len ? event->name : "";
      bool const missed = event->mask & IN_Q_OVERFLOW;
      bool const beside = event->wd == tableWatch_ && name == fileName_ + ".watch";
      bool const tableNamed = event->wd == tableWatch_ && name == fileName_;
      news.fileMayBeAnother |= missed || tableNamed || event->wd == fileWatch_;
      moveOwed_ |= missed || beside;
      news.writerWent |= missed || (event->wd == sideWatch_ && name == "writer");
      at += static_cast<ssize_t>(sizeof *event + event->len);
    }
  }
}

Watch::News Watch::drain() {
  News news;
  std::array<epoll_event, 16> events;
  int const ready = epoll_wait(poll_, events.data(), static_cast<int>(events.size()), 0);
  for (int i = 0; i < ready; ++i) {
    U64 const tag = events[static_cast<unsigned>(i)].data.u64;
    if (tag == selfTag) {
      U64 count;
      [[maybe_unused]] auto const taken = read(self_, &count, sizeof count);
    } else if (tag == timerTag) {
      U64 count;
      [[maybe_unused]] auto const taken = read(timer_, &count, sizeof count);
      if (deaf_) welcome(news);
    } else if (tag == directoryTag) {
      readDirectoryNews(news);
    } else if (tag == listenerTag) {
      welcome(news);
      news.fileMayBeAnother = true;
    } else if (tag != eventTag) {
      news.writerWent |= hear(static_cast<int>(tag));
    }
  }
  if (moveOwed_) move(news);
  return news;
}

}  // namespace Shoal
