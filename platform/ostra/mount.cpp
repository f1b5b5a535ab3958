// SPDX-License-Identifier: Apache-2.0
#include "ostra/mount.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <unordered_set>
#include <vector>

#include "ostra/publish_wire.h"

namespace Ostra {
namespace {

using Wire::Json;

constexpr std::size_t longestLine = 4 * 1024 * 1024;
constexpr std::size_t readAtOnce = 64 * 1024;

// A watcher here threw. Not to be mistaken for what the agent did wrong, whatever type it threw.
struct WatcherThrew {
  std::exception_ptr exception;
};

// Changes a mounted object. What is thrown when the change is in place comes from one of its watchers.
template <class Change, class InPlace>
void change(Change make, InPlace inPlace) {
  try {
    make();
  } catch (AttributeException const&) {
    if (!inPlace()) throw;
    throw WatcherThrew{std::current_exception()};
  } catch (...) {
    throw WatcherThrew{std::current_exception()};
  }
}

// One mounted object: applies what the agent tells and notices what is set here.
class Mounted final : public AttributeWatcher {
 public:
  // Sends a request that writes the attribute.
  using Send = std::function<void(Json request, std::string const& attribute)>;

  Mounted(Ptr<Entity> object, std::string entity) : object_(std::move(object)), asked_(std::move(entity)) {}

  // What is set here is sent from now on.
  void writableIs(Send send) {
    send_ = std::move(send);
    notifierIs(Ptr<Entity const>(object_));
  }

  Entity& object() const { return *object_; }
  bool live() const { return live_; }
  std::string const& entity() const { return entity_; }
  void entityIs(std::string entity) { entity_ = std::move(entity); }

  Json request() const {
    Json r{{"verb", "mount"}, {"type", object_->typeInfo().name()}};
    if (!asked_.empty()) r["entity"] = asked_;
    return r;
  }

  // The connection or the agent's entity is gone; the values stay.
  void lost();
  std::shared_ptr<Invocation> invocation();
  // Told again after a watcher threw, a line does what it had not done yet.
  void event(Json const& line);
  // The agent's answer to a write made here.
  void written(std::string const& attribute, Json const* value);

 private:
  // What is known of a scalar that the agent and this process both write.
  struct Scalar {
    Value agents;  // what the agent told last
    Value here;    // what this process and the agent agree on, or what was written last
    unsigned unanswered =
        0;  // writes made here; until they are answered what the agent tells is older than they are
  };

  void onAttribute(std::string_view name) override;
  void beginSnapshot();
  void sweep();
  void snapshotIsComplete();
  void memberDel(std::string const& attribute, Value const& key);
  void setScalar(std::string const& attribute, Value value);
  void apply(std::string const& attribute, Scalar& scalar);
  void setMembers(std::string const& attribute, Json const& members);
  void delMembers(std::string const& attribute, Json const& keys);

  Ptr<Entity> const object_;
  std::string const asked_;
  Send send_;
  std::string entity_;  // the name that the agent gave, once mounted
  bool live_ = false;
  std::map<std::string, Scalar, std::less<>> scalars_;
  // Members that were here before the snapshot and that it has not mentioned.
  std::map<std::string, std::unordered_set<Value>, std::less<>> unseen_;
  std::vector<std::weak_ptr<Invocation>> invocations_;  // answered or not
};

void Mounted::lost() {
  live_ = false;
  entity_.clear();
  scalars_.clear();
  unseen_.clear();
  for (auto const& invocation : std::exchange(invocations_, {}))
    if (auto const i = invocation.lock()) i->lost = true;
}

// One that is lost from the beginning when there is nobody to ask.
std::shared_ptr<Invocation> Mounted::invocation() {
  auto const made = std::make_shared<Invocation>();
  made->lost = !live_;
  std::erase_if(invocations_, [](auto const& old) { return old.expired(); });
  if (live_) invocations_.push_back(made);
  return made;
}

Value valueFrom(Json const& json) {
  std::optional<Value> value = Wire::fromJson(json);
  if (!value) throw AttributeException("the agent sent a value of no known type");
  return std::move(*value);
}

void Mounted::event(Json const& line) {
  std::string const event = line.at("event").get<std::string>();
  if (event == "snapshot") return beginSnapshot();
  if (event == "live") return snapshotIsComplete();
  if (event == "gone") return lost();
  std::string const attribute = line.at("attribute").get<std::string>();
  if (event == "set" && line.contains("members")) return setMembers(attribute, line["members"]);
  if (event == "set") {
    // It says that the snapshot's members are complete, and its watchers must see what is gone as gone.
    if (object_->typeInfo().at(attribute).toldLast) sweep();
    return setScalar(attribute, valueFrom(line.at("value")));
  }
  if (event == "del") return delMembers(attribute, line.at("keys"));
}

void Mounted::beginSnapshot() {
  live_ = false;
  unseen_.clear();
  for (Attribute const* a : object_->typeInfo().attributes()) {
    if (!a->memberDel) continue;
    auto& keys = unseen_[a->name];
    for (auto& [key, value] : a->members(*object_)) keys.insert(std::move(key));
  }
}

void Mounted::sweep() {
  while (!unseen_.empty()) {
    auto const unseen = unseen_.begin();
    if (unseen->second.empty()) {
      unseen_.erase(unseen);
      continue;
    }
    std::string const attribute = unseen->first;
    Value const key = unseen->second.extract(unseen->second.begin()).value();
    memberDel(attribute, key);
  }
}

// What was set here meanwhile was not sent: the agent's values replace it.
void Mounted::snapshotIsComplete() {
  sweep();
  live_ = true;
  std::vector<std::string> told;
  for (auto const& [attribute, scalar] : scalars_)
    if (scalar.unanswered == 0) told.push_back(attribute);
  for (std::string const& attribute : told) {
    auto const at = scalars_.find(attribute);
    if (at != scalars_.end() && at->second.unanswered == 0) apply(attribute, at->second);
  }
}

void Mounted::setScalar(std::string const& attribute, Value value) {
  Scalar& scalar = scalars_[attribute];
  scalar.agents = std::move(value);
  if (scalar.unanswered == 0) apply(attribute, scalar);
}

// Attributes that have no writer here stay as they are: nobody could watch them change.
void Mounted::apply(std::string const& attribute, Scalar& scalar) {
  scalar.here = scalar.agents;
  Value const value = scalar.agents;
  TypeInfo const& type = object_->typeInfo();
  if (!type.at(attribute).write) return;
  change([&] { type.write(*object_, attribute, value); },
         [&] { return type.read(*object_, attribute) == value; });
}

void Mounted::setMembers(std::string const& attribute, Json const& members) {
  TypeInfo const& type = object_->typeInfo();
  if (!type.at(attribute).memberIs) return;
  auto const unseen = unseen_.find(attribute);
  for (Json const& member : members) {
    Value const key = valueFrom(member.at(0));
    if (unseen != unseen_.end()) unseen->second.erase(key);
    Value const value = valueFrom(member.at(1));
    change([&] { type.memberIs(*object_, attribute, key, value); },
           [&] { return type.member(*object_, attribute, key) == value; });
  }
}

void Mounted::delMembers(std::string const& attribute, Json const& keys) {
  if (!object_->typeInfo().at(attribute).memberDel) return;
  auto const unseen = unseen_.find(attribute);
  for (Json const& k : keys) {
    Value const key = valueFrom(k);
    if (unseen != unseen_.end()) unseen->second.erase(key);
    memberDel(attribute, key);
  }
}

void Mounted::memberDel(std::string const& attribute, Value const& key) {
  TypeInfo const& type = object_->typeInfo();
  change([&] { type.memberDel(*object_, attribute, key); },
         [&] { return !type.member(*object_, attribute, key); });
}

void Mounted::onAttribute(std::string_view name) {
  if (!live_) return;  // the snapshot to come decides
  Value const value = object_->typeInfo().read(*object_, name);
  std::string const attribute(name);
  Scalar& scalar = scalars_[attribute];
  if (value == scalar.here) return;  // the agent's own
  scalar.here = value;
  ++scalar.unanswered;
  send_({{"verb", "write"}, {"entity", entity_}, {"attribute", attribute}, {"value", Wire::toJson(value)}},
        attribute);
}

void Mounted::written(std::string const& attribute, Json const* value) {
  auto const at = scalars_.find(attribute);
  if (at == scalars_.end() || at->second.unanswered == 0) return;
  Scalar& scalar = at->second;
  --scalar.unanswered;
  if (value) scalar.agents = valueFrom(*value);
  if (scalar.unanswered == 0) apply(attribute, scalar);
}

itimerspec in(double seconds) {
  double whole = 0;
  double const fraction = std::modf(seconds, &whole);
  return {{0, 0}, {static_cast<time_t>(whole), static_cast<long>(fraction * 1e9) + 1}};
}

void poll(int epoll, int operation, int fd, U32 events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  ::epoll_ctl(epoll, operation, fd, &event);
}

}  // namespace

class Mounter::Impl {
 public:
  Impl(std::string path, double retrySeconds);

  void mount(Ptr<Entity> object, std::string entity, bool writable);
  void unmount(Entity const& object);
  int fd() const { return epoll_.get(); }
  void dispatch();
  bool connected() const { return static_cast<bool>(socket_); }
  bool live(Entity const& object) const;
  std::shared_ptr<Invocation const> invoke(Entity const& object, std::string_view operation,
                                           std::vector<Value> const& arguments);

  std::string problem_;
  std::function<void(bool, std::string const&)> onConnection_;

 private:
  // What an answer answers.
  struct Asked {
    std::shared_ptr<Mounted> mounted = {};
    std::string written = {};                     // an attribute
    std::shared_ptr<Invocation> invocation = {};  // of an operation; neither: the mount itself
  };
  using Mounts = std::vector<std::shared_ptr<Mounted>>;

  void connect();
  void disconnect(std::string const& why);
  void report(bool connected, std::string const& why);
  void ask(Json request, Asked asked);
  void wakeSelf() { ::eventfd_write(wakeUp_.get(), 1); }
  void handle(int fd, U32 events);
  void send();
  void receive();
  void takeLines();
  std::optional<Json> nextLine();
  void takeLine(Json const& line);
  void takeAnswer(Json const& line);
  void invoked(Invocation& invocation, Json const& line);
  void askAgain();
  void retryIn(double seconds);
  Mounts::const_iterator find(Entity const& object) const;

  std::string const path_;
  double const retrySeconds_;
  Pallo::Descriptor epoll_;
  Pallo::Descriptor timer_;
  Pallo::Descriptor wakeUp_;
  Pallo::Descriptor socket_;
  Wire::LineBuffer in_{longestLine};
  std::optional<Json> owed_;  // the line at which a watcher threw
  std::string out_;
  Mounts mounts_;
  std::map<U64, Asked> asked_;  // by tag
  U64 lastTag_ = 0;
  U64 connection_ = 0;  // which one this is
};

Mounter::Impl::Impl(std::string path, double retrySeconds)
    : path_(std::move(path)),
      retrySeconds_(retrySeconds),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      wakeUp_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  static_cast<void>(Wire::address(path_));
  if (!epoll_ || !timer_ || !wakeUp_) throw std::runtime_error(path_ + ": no more file descriptors");
  poll(epoll_.get(), EPOLL_CTL_ADD, timer_.get(), EPOLLIN);
  poll(epoll_.get(), EPOLL_CTL_ADD, wakeUp_.get(), EPOLLIN);
  connect();
}

void Mounter::Impl::connect() {
  socket_ = Wire::connectTo(path_);
  if (!socket_) {
    problem_ = fmt::format("cannot reach the agent at {}: {}", path_, std::strerror(errno));
    retryIn(retrySeconds_);
    return;
  }
  problem_.clear();
  ++connection_;
  poll(epoll_.get(), EPOLL_CTL_ADD, socket_.get(), EPOLLIN);
  for (auto const& mounted : mounts_) ask(mounted->request(), {.mounted = mounted});
  report(true, {});
}

// Closing is not enough: while a forked child holds the socket too, the kernel would go on reporting its end.
void Mounter::Impl::disconnect(std::string const& why) {
  if (!socket_) return;
  poll(epoll_.get(), EPOLL_CTL_DEL, socket_.get(), 0);
  socket_.reset();
  in_.clear();
  owed_.reset();
  out_.clear();
  asked_.clear();
  problem_ = why;
  for (auto const& mounted : Mounts(mounts_)) mounted->lost();
  retryIn(retrySeconds_);
  report(false, why);
}

void Mounter::Impl::report(bool connected, std::string const& why) {
  if (auto const handler = onConnection_) handler(connected, why);
}

void Mounter::Impl::mount(Ptr<Entity> object, std::string entity, bool writable) {
  auto mounted = std::make_shared<Mounted>(std::move(object), std::move(entity));
  if (writable)
    mounted->writableIs([this, self = std::weak_ptr(mounted)](Json request, std::string const& attribute) {
      if (auto const m = self.lock()) ask(std::move(request), {.mounted = m, .written = attribute});
    });
  mounts_.push_back(mounted);
  if (socket_) ask(mounted->request(), {.mounted = mounted});
}

void Mounter::Impl::unmount(Entity const& object) {
  auto const at = find(object);
  if (at == mounts_.end()) return;
  std::shared_ptr<Mounted> const mounted = *at;
  mounts_.erase(at);
  mounted->notifierIs(nullptr);
  bool const other =
      std::ranges::any_of(mounts_, [&](auto const& m) { return m->entity() == mounted->entity(); });
  std::string const entity = mounted->entity();
  mounted->lost();
  if (!socket_ || entity.empty() || other) return;
  out_ += Wire::line({{"verb", "unmount"}, {"entity", entity}});
  send();
}

Mounter::Impl::Mounts::const_iterator Mounter::Impl::find(Entity const& object) const {
  return std::ranges::find_if(mounts_, [&](auto const& m) { return &m->object() == &object; });
}

bool Mounter::Impl::live(Entity const& object) const {
  auto const at = find(object);
  return at != mounts_.end() && (*at)->live();
}

std::shared_ptr<Invocation const> Mounter::Impl::invoke(Entity const& object, std::string_view operation,
                                                        std::vector<Value> const& arguments) {
  auto const at = find(object);
  if (at == mounts_.end()) throw std::invalid_argument(object.name() + " is not mounted");
  auto const invocation = (*at)->invocation();
  if (invocation->lost) return invocation;
  Json values = Json::array();
  for (Value const& a : arguments) values.push_back(Wire::toJson(a));
  ask({{"verb", "invoke"},
       {"entity", (*at)->entity()},
       {"operation", operation},
       {"arguments", std::move(values)}},
      {.invocation = invocation});
  return invocation;
}

void Mounter::Impl::ask(Json request, Asked asked) {
  request["tag"] = ++lastTag_;
  asked_.emplace(lastTag_, std::move(asked));
  out_ += Wire::line(request);
  send();
}

void Mounter::Impl::send() {
  if (!socket_) return;
  while (!out_.empty()) {
    ssize_t const n = ::send(socket_.get(), out_.data(), out_.size(), MSG_NOSIGNAL);
    if (n < 0) break;  // the end of the connection shows itself to the reader
    out_.erase(0, static_cast<std::size_t>(n));
  }
  poll(epoll_.get(), EPOLL_CTL_MOD, socket_.get(), out_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

// A watcher that throws ends the dispatch, and what is left is handled in the next.
void Mounter::Impl::dispatch() {
  try {
    takeLines();
    epoll_event events[3];
    int const n = ::epoll_wait(epoll_.get(), events, 3, 0);
    for (int i = 0; i < n; ++i) handle(events[i].data.fd, events[i].events);
  } catch (...) {
    wakeSelf();
    throw;
  }
}

void Mounter::Impl::handle(int fd, U32 events) {
  U64 count = 0;
  if (fd == wakeUp_.get()) {
    ::eventfd_read(fd, &count);
  } else if (fd == timer_.get()) {
    if (::read(fd, &count, sizeof count) > 0) socket_ ? askAgain() : connect();
  } else if (socket_ && fd == socket_.get()) {
    if (events & EPOLLOUT) send();
    if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) receive();
  }
}

void Mounter::Impl::receive() {
  std::vector<char> bytes(readAtOnce);
  ssize_t const n = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) return disconnect(n == 0 ? "the agent closed the connection" : std::strerror(errno));
  in_.append(bytes.data(), static_cast<std::size_t>(n));
  takeLines();
}

void Mounter::Impl::takeLines() {
  U64 const connection = connection_;
  while (socket_ && connection == connection_) {
    std::optional<Json> line = nextLine();
    if (!line) break;
    try {
      takeLine(*line);
    } catch (WatcherThrew const& e) {
      if (socket_ && connection == connection_) owed_ = std::move(line);
      std::rethrow_exception(e.exception);
    }
  }
  if (in_.overlong()) disconnect("the agent sent a line that is too long");
}

std::optional<Json> Mounter::Impl::nextLine() {
  if (owed_) return std::exchange(owed_, std::nullopt);
  auto const text = in_.next();
  return text ? std::optional(Json::parse(*text, nullptr, false)) : std::nullopt;
}

void Mounter::Impl::takeLine(Json const& line) {
  if (!line.is_object()) return disconnect("the agent sent a line that is not a JSON object");
  try {
    if (!line.contains("event")) return takeAnswer(line);
    std::string const entity = line.at("entity").get<std::string>();
    for (auto const& mounted : Mounts(mounts_))
      if (mounted->entity() == entity) mounted->event(line);
    if (line["event"] == "gone") retryIn(5 * retrySeconds_);
  } catch (AttributeException const& e) {
    problem_ = e.what();  // a type that differs between the agent and this process
  } catch (nlohmann::json::exception const& e) {
    disconnect(fmt::format("the agent sent a line that cannot be understood: {}", e.what()));
  }
}

void Mounter::Impl::takeAnswer(Json const& line) {
  bool const failed = line.contains("error");
  if (failed) problem_ = line["error"].get<std::string>();
  auto const at = line.contains("tag") ? asked_.find(line["tag"].get<U64>()) : asked_.end();
  if (at == asked_.end()) return;
  Asked const asked = std::move(at->second);
  asked_.erase(at);
  if (asked.invocation)
    invoked(*asked.invocation, line);
  else if (!asked.written.empty())
    asked.mounted->written(asked.written, failed ? nullptr : &line.at("value"));
  else if (!failed)
    asked.mounted->entityIs(line.at("entity").get<std::string>());
  else
    retryIn(5 * retrySeconds_);
}

void Mounter::Impl::invoked(Invocation& invocation, Json const& line) {
  if (line.contains("error"))
    invocation.refusal = line["error"].get<std::string>();
  else
    invocation.result = line.contains("result") ? valueFrom(line["result"]) : Value();
}

// What the agent does not have (yet, or any more) is asked for now and then.
void Mounter::Impl::askAgain() {
  for (auto const& mounted : Mounts(mounts_)) {
    auto const waits = [&](auto const& asked) { return asked.second.mounted == mounted; };
    if (mounted->entity().empty() && std::ranges::none_of(asked_, waits))
      ask(mounted->request(), {.mounted = mounted});
  }
}

void Mounter::Impl::retryIn(double seconds) {
  itimerspec const again = in(seconds);
  ::timerfd_settime(timer_.get(), 0, &again, nullptr);
}

Mounter::Mounter(std::string path, double retrySeconds)
    : impl_(std::make_unique<Impl>(std::move(path), retrySeconds)) {}
Mounter::~Mounter() = default;
void Mounter::mount(Ptr<Entity> object, std::string entity, Access access) {
  impl_->mount(std::move(object), std::move(entity), access == Access::Writable);
}
void Mounter::unmount(Entity const& object) { impl_->unmount(object); }
int Mounter::fd() const { return impl_->fd(); }
void Mounter::dispatch() { impl_->dispatch(); }
bool Mounter::connected() const { return impl_->connected(); }
bool Mounter::live(Entity const& object) const { return impl_->live(object); }
std::shared_ptr<Invocation const> Mounter::invoke(Entity const& object, std::string_view operation,
                                                  std::vector<Value> const& arguments) {
  return impl_->invoke(object, operation, arguments);
}
std::string const& Mounter::problem() const { return impl_->problem_; }
void Mounter::onConnection(std::function<void(bool, std::string const&)> handler) {
  impl_->onConnection_ = std::move(handler);
}

bool Mounter::dispatchUntil(std::function<bool()> const& done, double seconds) {
  using Clock = std::chrono::steady_clock;
  auto const end = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    double const left = std::chrono::duration<double>(end - Clock::now()).count();
    if (left <= 0) return false;
    pollfd p{fd(), POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(std::min(left * 1000 + 1, 1e9))) > 0) dispatch();
  }
  return true;
}

}  // namespace Ostra
