// SPDX-License-Identifier: Apache-2.0
#include "ostra/publish.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <unordered_map>

#include "ostra/publish_export.h"
#include "ostra/publish_peer.h"
#include "ostra/publish_socket.h"

namespace Ostra {
namespace {

constexpr int eventsAtOnce = 8;
constexpr int acceptsAtOnce = 16;
constexpr int ticksAStall = 4;

[[noreturn]] void failErrno(std::string const& path, std::string_view what) {
  throw std::runtime_error(fmt::format("management socket {}: {}: {}", path, what, std::strerror(errno)));
}

itimerspec every(double seconds) {
  double whole = 0;
  double const fraction = std::modf(seconds, &whole);
  timespec const t{static_cast<time_t>(whole), static_cast<long>(fraction * 1e9)};
  return {t, t};
}

}  // namespace

class Publisher::Impl {
 public:
  Impl(std::string path, Options const& options);

  void exportObject(std::string name, Ptr<Described> object);
  void withdraw(std::string const& name);
  int fd() const { return epoll_.get(); }
  void dispatch();
  std::size_t peers() const { return peers_.size(); }

 private:
  void add(int fd, U32 events);
  void update(Peer& peer);
  void handle(epoll_event const& event);
  void accept();
  bool mayWrite(int socket) const;
  void serve(int fd, U32 events);
  void drop(int fd);
  void news();
  void wake();
  void dropStalled();

  std::string const path_;
  Options const options_;
  SocketFile listener_;
  Pallo::Descriptor epoll_;
  Pallo::Descriptor wakeUp_;
  Pallo::Descriptor ticks_;
  bool woken_ = false;
  bool accepting_ = true;
  Exports exports_;
  struct Connection {
    std::unique_ptr<Peer> peer;
    U32 interest = 0;
  };
  std::unordered_map<int, Connection> peers_;  // after exports_: peers leave them when they go
};

Publisher::Impl::Impl(std::string path, Options const& options)
    : path_(std::move(path)),
      options_(options),
      listener_(path_),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wakeUp_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      ticks_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (!epoll_ || !wakeUp_ || !ticks_) failErrno(path_, "no more file descriptors");
  add(listener_.fd(), EPOLLIN);
  add(wakeUp_.get(), EPOLLIN);
  add(ticks_.get(), EPOLLIN);
}

void Publisher::Impl::add(int fd, U32 events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) failErrno(path_, "cannot poll");
}

void Publisher::Impl::update(Peer& peer) {
  Connection& connection = peers_.at(peer.fd());
  U32 const interest = peer.interest();
  if (connection.interest == interest) return;
  connection.interest = interest;
  epoll_event event{};
  event.events = interest;
  event.data.fd = peer.fd();
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, peer.fd(), &event);
}

void Publisher::Impl::exportObject(std::string name, Ptr<Described> object) {
  withdraw(name);
  auto exported = std::make_unique<Export>(name, std::move(object), [this] { wake(); });
  exports_.emplace(std::move(name), std::move(exported));
}

void Publisher::Impl::withdraw(std::string const& name) {
  auto const at = exports_.find(name);
  if (at == exports_.end()) return;
  for (auto& [fd, connection] : peers_) connection.peer->withdrawn(name);
  exports_.erase(at);
  wake();
}

// Changes come in bursts; the first of a burst makes fd() readable.
void Publisher::Impl::wake() {
  if (std::exchange(woken_, true)) return;
  ::eventfd_write(wakeUp_.get(), 1);
}

void Publisher::Impl::dispatch() {
  epoll_event events[eventsAtOnce];
  int const n = ::epoll_wait(epoll_.get(), events, eventsAtOnce, 0);
  for (int i = 0; i < n; ++i) handle(events[i]);
}

void Publisher::Impl::handle(epoll_event const& event) {
  int const fd = event.data.fd;
  if (fd == listener_.fd())
    accept();
  else if (fd == wakeUp_.get())
    news();
  else if (fd == ticks_.get())
    dropStalled();
  else
    serve(fd, event.events);
}

void Publisher::Impl::accept() {
  for (int i = 0; i < acceptsAtOnce; ++i) {
    Pallo::Descriptor socket(::accept4(listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) {
      if (errno == EMFILE || errno == ENFILE) {  // tried again at the next tick
        accepting_ = false;
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.fd(), nullptr);
        itimerspec const pace = every(options_.stallSeconds / ticksAStall);
        ::timerfd_settime(ticks_.get(), 0, &pace, nullptr);
      }
      return;
    }
    int const fd = socket.get();
    auto peer = std::make_unique<Peer>(std::move(socket), mayWrite(fd), exports_);
    if (peers_.size() >= options_.mostPeers) peer->refuse("too many connections");
    if (peers_.empty()) {
      itimerspec const pace = every(options_.stallSeconds / ticksAStall);
      ::timerfd_settime(ticks_.get(), 0, &pace, nullptr);
    }
    Connection& connection = peers_[fd];
    connection.interest = peer->interest();
    connection.peer = std::move(peer);
    add(fd, connection.interest);
  }
}

bool Publisher::Impl::mayWrite(int socket) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == 0 || peer.uid == options_.owner;
}

void Publisher::Impl::serve(int fd, U32 events) {
  auto const at = peers_.find(fd);
  if (at == peers_.end()) return;
  if (at->second.peer->serve(events))
    update(*at->second.peer);
  else
    drop(fd);
}

// Closing is not enough: while a forked child holds the socket too, the kernel would go on reporting it under
// a number that may be another peer's by then.
void Publisher::Impl::drop(int fd) {
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  peers_.erase(fd);
  if (!peers_.empty() || !accepting_) return;
  itimerspec const never{};
  ::timerfd_settime(ticks_.get(), 0, &never, nullptr);
}

void Publisher::Impl::news() {
  eventfd_t count = 0;
  ::eventfd_read(wakeUp_.get(), &count);
  woken_ = false;
  for (auto& [fd, connection] : peers_) update(*connection.peer);
}

void Publisher::Impl::dropStalled() {
  U64 count = 0;
  if (::read(ticks_.get(), &count, sizeof count) < 0) return;
  if (!std::exchange(accepting_, true)) add(listener_.fd(), EPOLLIN);
  std::vector<int> stalled;
  for (auto& [fd, connection] : peers_)
    if (connection.peer->stalledFor(ticksAStall)) stalled.push_back(fd);
  for (int const fd : stalled) drop(fd);
}

Publisher::Publisher(std::string path, Options options)
    : impl_(std::make_unique<Impl>(std::move(path), options)) {}
Publisher::~Publisher() = default;
void Publisher::exportObject(std::string name, Ptr<Described> object) {
  impl_->exportObject(std::move(name), std::move(object));
}
void Publisher::withdraw(std::string const& name) { impl_->withdraw(name); }
int Publisher::fd() const { return impl_->fd(); }
void Publisher::dispatch() { impl_->dispatch(); }
std::size_t Publisher::peers() const { return impl_->peers(); }

}  // namespace Ostra
