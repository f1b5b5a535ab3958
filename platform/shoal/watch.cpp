// SPDX-License-Identifier: Apache-2.0
#include "shoal/watch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
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

// Of what is at a path now; zeroes when there is nothing.
std::pair<U64, U64> identityOf(std::string const& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

FileException unwatchable(std::string const& path, std::system_error const& why) {
  return {FileException::Reason::unwatchable,
          fmt::format("{}: cannot be watched: {}", path, why.code().message())};
}

}  // namespace

Watch::Watch(std::string const& tablePath) try
    : tablePath_(tablePath), fileName_(tablePath_.substr(tablePath_.rfind('/') + 1)) {
  poller_.add(timer_.fd(), timer);
  lookAgain();
  watchDirectory();
} catch (std::system_error const& error) {
  throw unwatchable(tablePath, error);
}

// Whoever copies something onto the table's file closes it afterwards, and so does the table's writer, dying.
void Watch::watchDirectory() {
  directoryWatched_ = identityOf(parentOf(tablePath_));
  Pallo::Descriptor news(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  U32 const events = IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE;
  if (!news || inotify_add_watch(news.get(), parentOf(tablePath_).c_str(), events) < 0) return;
  try {
    poller_.add(news.get(), directory);
    directoryNews_ = std::move(news);
  } catch (std::system_error const&) {  // the kernel watches no more: the look once a second must do
  }
}

void Watch::unwatchDirectory() {
  poller_.remove(directoryNews_.get());
  directoryNews_.reset();
}

// So much at once, so that whoever is busy in the directory does not hold the watcher up.
void Watch::readDirectoryNews(News& news) {
  alignas(inotify_event) std::array<char, 4096> buffer;
  bool isGone = false;
  ssize_t bytes;
  for (int i = 0; i < 16 && (bytes = read(directoryNews_.get(), buffer.data(), buffer.size())) > 0; ++i) {
    for (ssize_t at = 0; at < bytes;) {
      auto const* const event = reinterpret_cast<inotify_event const*>(buffer.data() + at);
      std::string_view const name = event->len ? event->name : "";
      bool const missed = event->mask & IN_Q_OVERFLOW;
      news.fileMayBeAnother |= missed || name == fileName_ || name == fileName_ + ".watch";
      news.writerMayHaveEnded |= missed || (name == fileName_ && event->mask & IN_CLOSE_WRITE);
      isGone |= (event->mask & IN_IGNORED) != 0;
      at += static_cast<ssize_t>(sizeof *event + event->len);
    }
  }
  if (isGone) unwatchDirectory();
}

void Watch::asleepIs(bool asleep) {
  if (!registration_) return;
  registration_->asleepIs(asleep);
  if (asleep && registration_->isPageLost()) lookAgainSoon();
}

Watch::News Watch::drain(int table) {
  News news;
  bool everything = false;
  Pallo::Poller::Events events;
  for (auto const& event : poller_.ready(events)) {
    if (event.tag == timer) {
      everything |= timer_.runsOut();
    } else if (event.tag == directory) {
      readDirectoryNews(news);
    } else if (registration_) {
      registration_->drain();
      news.writerMayHaveEnded |= (event.events & EPOLLHUP) != 0;
    }
  }
  if (everything) {
    if (directoryNews_ && directoryWatched_ != identityOf(parentOf(tablePath_))) unwatchDirectory();
    if (!directoryNews_) watchDirectory();
    news.fileMayBeAnother = news.writerMayHaveEnded = true;
  }
  if (news.fileMayBeAnother && table >= 0 && (!registration_ || registration_->isLost()))
    registerAnew(table, news);
  return news;
}

// Edge-triggered: a FIFO that was hung up stays so until the next writer. Where there is no sidecar
// directory, there is no writer.
void Watch::registerAnew(int table, News& news) {
  if (registration_) poller_.remove(registration_->fd());
  registration_.reset();
  std::string problem;
  try {
    registration_.emplace(tablePath_, table);
    poller_.add(registration_->fd(), fifo, EPOLLIN | EPOLLET);
  } catch (std::system_error const& error) {
    registration_.reset();
    problem = unwatchable(tablePath_, error).what();
  } catch (FileException const& error) {
    if (error.reason() != FileException::Reason::missing) problem = error.what();
  } catch (Pallo::Exception const& error) {
    problem = error.what();
  }
  if (problem != problem_) news.problem = problem_ = problem;
}

}  // namespace Shoal
