// SPDX-License-Identifier: Apache-2.0
#include "shoal/watch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "shoal/error.h"

namespace Shoal {
namespace {

enum Source : U64 { timer, directory, fifo };

std::string parentOf(std::string const& path) {
  auto const slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

[[noreturn]] void throwUnwatchable(std::string const& path, std::string_view why) {
  throw FileException(FileException::Reason::unwatchable,
                      fmt::format("{}: cannot be watched: {}", path, why));
}

Pallo::Poller pollerFor(std::string const& path) {
  try {
    return {};
  } catch (std::system_error const& error) {
    throwUnwatchable(path, error.code().message());
  }
}

}  // namespace

Watch::Watch(std::string tablePath)
    : tablePath_(std::move(tablePath)),
      fileName_(tablePath_.substr(tablePath_.rfind('/') + 1)),
      poller_(pollerFor(tablePath_)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!timer_) throwUnwatchable(tablePath_, std::strerror(errno));
  poller_.add(timer_.get(), timer);
  lookAgain();
  watchDirectory();
}

void Watch::wakeIn(long nanoseconds) {
  itimerspec const then{{1, 0}, {0, nanoseconds}};
  timerfd_settime(timer_.get(), 0, &then, nullptr);
}

// Whoever copies something onto the table's file closes it afterwards.
void Watch::watchDirectory() {
  Pallo::Descriptor news(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  U32 const events = IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE;
  if (!news || inotify_add_watch(news.get(), parentOf(tablePath_).c_str(), events) < 0) return;
  poller_.add(news.get(), directory);
  directoryNews_ = std::move(news);
}

void Watch::readDirectoryNews(News& news) {
  alignas(inotify_event) std::array<char, 4096> buffer;
  for (ssize_t bytes; (bytes = read(directoryNews_.get(), buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < bytes;) {
      auto const* const event = reinterpret_cast<inotify_event const*>(buffer.data() + at);
      std::string_view const name = event->len ? event->name : "";
      bool const missed = event->mask & IN_Q_OVERFLOW;
      news.fileMayBeAnother |= missed || name == fileName_ || name == fileName_ + ".watch";
      at += static_cast<ssize_t>(sizeof *event + event->len);
    }
  }
}

void Watch::asleepIs(bool asleep) {
  if (!registration_) return;
  registration_->asleepIs(asleep);
  if (registration_->isPageLost()) lookAgain();
}

Watch::News Watch::drain(int table) {
  News news;
  bool everything = false;
  Pallo::Poller::Events events;
  for (auto const& event : poller_.ready(events)) {
    if (event.tag == timer) {
      U64 count;
      everything |= read(timer_.get(), &count, sizeof count) > 0;
    } else if (event.tag == directory) {
      readDirectoryNews(news);
    } else if (registration_) {
      registration_->drain();
      news.writerMayHaveEnded |= (event.events & EPOLLHUP) != 0;
    }
  }
  if (everything) {
    if (!directoryNews_) watchDirectory();
    news.fileMayBeAnother = news.writerMayHaveEnded = true;
  }
  if (news.fileMayBeAnother && table >= 0 && (!registration_ || registration_->isLost()))
    registerAnew(table, news);
  return news;
}

// Edge-triggered: a FIFO that was hung up stays so until the next writer. Where there is no sidecar directory, there
// is no writer.
void Watch::registerAnew(int table, News& news) {
  if (registration_) poller_.remove(registration_->fd());
  registration_.reset();
  std::string problem;
  try {
    registration_.emplace(tablePath_, table);
    poller_.add(registration_->fd(), fifo, EPOLLIN | EPOLLET);
    lookAgain();
  } catch (FileException const& error) {
    if (error.reason() != FileException::Reason::missing) problem = error.what();
  }
  if (problem != problem_) news.problem = problem_ = problem;
}

}  // namespace Shoal
