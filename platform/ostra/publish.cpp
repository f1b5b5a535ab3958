// SPDX-License-Identifier: Apache-2.0
// Who is served when, and who may be connected.
//
//   poller: listener, peers' sockets, timer --+
//   exports: something changed ---------------+--> queue of peers --> a slice each, until the turn is over
//                                                       ^                |
//                                                       +-- wants more --+
//
// A peer stands in the queue once, so that whoever wants much waits behind all others that stand there. While
// anybody does, a doorbell keeps fd() readable. It does not know what peers ask for.
#include "ostra/publish.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <vector>

#include "ostra/entity.h"
#include "ostra/publish_export.h"
#include "ostra/publish_peer.h"
#include "pallo/events.h"
#include "pallo/poller.h"
#include "pallo/socket_file.h"

namespace Ostra {
namespace {

constexpr int acceptsAtOnce = 16;
constexpr int looksAPeriod = 4;
constexpr double acceptAgainSeconds = 0.1;
constexpr rlim_t reservedFiles = 64;

// Of what the process may open, 64 and a quarter are not for peers.
std::size_t placesFor(std::size_t mostPeers) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  rlim_t const reserved = reservedFiles + files.rlim_cur / 4;
  rlim_t const left = files.rlim_cur > reserved ? files.rlim_cur - reserved : 0;
  return std::max<std::size_t>(1, std::min<rlim_t>(mostPeers, left));
}

uid_t userOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : ~uid_t{0};
}

bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

}  // namespace

class VANTREL_LOCAL Publisher::Server {
 public:
  Server(std::string const& path, Options const& options);

  void exportObject(std::string name, Ptr<Described> object);
  void withdraw(std::string const& name);
  int fd() const { return poller_.fd(); }
  // `mayAct`: requests that write, delete or invoke are served too.
  void dispatch(bool mayAct);
  std::size_t peers() const { return places_.size(); }

 private:
  enum Watched : U64 { Listener, News, Clock, FirstPeer };
  struct Place {
    std::unique_ptr<Peer> peer;
    uid_t user;
    U32 interest;  // as the poller knows it
    U32 events;    // since it was served last
    bool queued;
  };

  void collect(Turn const& turn);
  void enqueue(U64 number, Place& place);
  void serveNext(Turn const& turn);
  bool serve(U64 number, Place& place, Turn const& turn);
  void changed();
  void accept(Turn const& turn);
  void admit(Pallo::Descriptor socket);
  std::size_t heldBy(uid_t user) const;
  void makeRoom();
  void look();
  void drop(U64 number);

  Options const options_;
  std::size_t const mostPeers_;
  double const period_;  // of look()
  Pallo::SocketFile const listener_;
  Pallo::Poller poller_;
  Pallo::Doorbell news_;  // somebody is in the queue, or exports changed
  Pallo::Timer timer_;
  bool changed_ = false;  // exports did
  bool accepting_ = true;
  U64 serving_ = 0;  // the peer whose request may be acting on the agent, or zero
  U64 lastNumber_ = FirstPeer;
  std::map<std::string, std::unique_ptr<Export>, std::less<>> exports_;
  std::map<U64, Place> places_;  // in the order in which they came. After exports_: peers leave them
  std::deque<U64> queue_;
};

Publisher::Server::Server(std::string const& path, Options const& options) try
    : options_(options),
      mostPeers_(placesFor(options.mostPeers)),
      period_(std::min(options.stallSeconds, options.idleSeconds) / looksAPeriod),
      listener_(path) {
  poller_.add(listener_.fd(), Listener);
  poller_.add(news_.fd(), News);
  poller_.add(timer_.fd(), Clock);
} catch (std::system_error const& e) {
  throw std::runtime_error(fmt::format("socket {}: {}", path, e.what()));
}

void Publisher::Server::exportObject(std::string name, Ptr<Described> object) {
  withdraw(name);
  auto exported = std::make_unique<Export>(name, std::move(object), [this] { changed(); });
  exports_.emplace(std::move(name), std::move(exported));
}

void Publisher::Server::withdraw(std::string const& name) {
  auto const at = exports_.find(name);
  if (at == exports_.end()) return;
  for (auto& [number, place] : places_) place.peer->withdrawn(*at->second);
  exports_.erase(at);
  changed();
}

// Changes come in bursts; the first of a burst makes fd() readable.
void Publisher::Server::changed() {
  changed_ = true;
  news_.ringsIs(true);
}

// In the middle of serving a peer, it and the set of peers stay as they are.
void Publisher::Server::dispatch(bool mayAct) {
  Turn const turn{now() + options_.turnSeconds, mayAct && serving_ == 0};
  collect(turn);
  std::size_t left = queue_.size();
  while (left-- > 0 && !queue_.empty()) {  // a request may have had others served
    serveNext(turn);
    if (turn.over()) break;
  }
  news_.ringsIs(changed_ || !queue_.empty());
}

// Puts those into the queue who can get further.
void Publisher::Server::collect(Turn const& turn) {
  Pallo::Poller::Events events;
  for (auto const& event : poller_.ready(events)) {
    if (event.tag == Listener && serving_ == 0) accept(turn);
    if (event.tag == Clock && serving_ == 0) look();
    auto const at = places_.find(event.tag);
    if (at == places_.end()) continue;
    at->second.events |= event.events;
    enqueue(at->first, at->second);
  }
  if (!std::exchange(changed_, false)) return;
  for (auto& [number, place] : places_)
    if (place.peer->wantsTurn()) enqueue(number, place);
}

void Publisher::Server::enqueue(U64 number, Place& place) {
  if (number != serving_ && !std::exchange(place.queued, true)) queue_.push_back(number);
}

void Publisher::Server::serveNext(Turn const& turn) {
  U64 const number = queue_.front();
  queue_.pop_front();
  auto const at = places_.find(number);
  if (at == places_.end()) return;
  Place& place = at->second;
  place.queued = false;
  if (!serve(number, place, turn)) return drop(number);
  U32 const interest = place.peer->interest();
  if (std::exchange(place.interest, interest) != interest) poller_.change(place.peer->fd(), number, interest);
  if (place.peer->wantsTurn()) enqueue(number, place);
}

bool Publisher::Server::serve(U64 number, Place& place, Turn const& turn) {
  struct Outer {
    U64 const number;
    U64& serving;
    ~Outer() { serving = number; }
  } const outer{std::exchange(serving_, number), serving_};
  return place.peer->serve(std::exchange(place.events, 0), turn);
}

void Publisher::Server::accept(Turn const& turn) {
  for (int n = 0; n < acceptsAtOnce; ++n) {
    Pallo::Descriptor socket(::accept4(listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket && isShortage(errno)) {  // the listener would be readable all the while
      accepting_ = false;
      poller_.remove(listener_.fd());
      timer_.startIs(acceptAgainSeconds, period_);
    }
    if (!socket) return;
    admit(std::move(socket));
    if (turn.over()) return;
  }
}

void Publisher::Server::admit(Pallo::Descriptor socket) {
  uid_t const user = userOf(socket.get());
  bool const privileged = user == 0 || user == options_.owner;
  auto peer = std::make_unique<Peer>(std::move(socket), privileged, exports_);
  bool const full = places_.size() >= mostPeers_;
  if (!privileged && (full || heldBy(user) >= std::max<std::size_t>(1, mostPeers_ / 2)))
    return peer->dismiss("too many connections");
  if (full) makeRoom();
  U32 const interest = peer->interest();
  try {
    poller_.add(peer->fd(), lastNumber_ + 1, interest);
  } catch (std::system_error const&) {
    return peer->dismiss("too many connections");
  }
  if (places_.empty()) timer_.startIs(period_, period_);
  places_.emplace(++lastNumber_, Place{std::move(peer), user, interest, 0, false});
}

std::size_t Publisher::Server::heldBy(uid_t user) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(places_, [&](auto const& p) { return p.second.user == user; }));
}

// Those who have something mounted count as less idle than those who only asked.
void Publisher::Server::makeRoom() {
  std::map<uid_t, std::size_t> held;
  for (auto const& [number, place] : places_) ++held[place.user];
  uid_t const most = std::ranges::max_element(held, {}, &std::pair<uid_t const, std::size_t>::second)->first;
  auto const activity = [&](auto const& p) {
    return std::tuple(p.second.user != most, !p.second.peer->idle(), p.second.peer->askedAt());
  };
  auto const longestIdle = std::ranges::min_element(places_, {}, activity);
  longestIdle->second.peer->dismiss("dropped for another connection: all places are taken");
  drop(longestIdle->first);
}

// For peers that read nothing or ask nothing, and for a listener that there was no descriptor for.
void Publisher::Server::look() {
  if (!timer_.runsOut()) return;
  if (!accepting_) poller_.add(listener_.fd(), Listener);
  accepting_ = true;
  std::vector<U64> gone;
  for (auto const& [number, place] : places_) {
    Peer& peer = *place.peer;
    bool const idle = peer.idle() && now() - peer.askedAt() >= options_.idleSeconds;
    if (idle) peer.dismiss(fmt::format("nothing was asked for {} seconds", options_.idleSeconds));
    if (idle || peer.stalledFor(options_.stallSeconds)) gone.push_back(number);
  }
  for (U64 const number : gone) drop(number);
  if (places_.empty()) timer_.startIs(0);
}

void Publisher::Server::drop(U64 number) {
  auto const at = places_.find(number);
  poller_.remove(at->second.peer->fd());
  places_.erase(at);
  if (places_.empty() && accepting_) timer_.startIs(0);
}

Publisher::Publisher(std::string const& path, Options const& options)
    : server_(std::make_unique<Server>(path, options)) {}

Publisher::~Publisher() = default;

void Publisher::exportObject(std::string name, Ptr<Described> object) {
  server_->exportObject(std::move(name), std::move(object));
}

void Publisher::withdraw(std::string const& name) { server_->withdraw(name); }

int Publisher::fd() const { return server_->fd(); }

void Publisher::dispatch() { server_->dispatch(true); }

void Publisher::dispatchReadOnly() { server_->dispatch(false); }

std::size_t Publisher::peers() const { return server_->peers(); }

}  // namespace Ostra
