// SPDX-License-Identifier: Apache-2.0
// The other end of publishing: the agent's lines become changes of objects here.
//
//   connect -> mount requests -> snapshot, set, del, ... live -> set, del, ... -> end -> connect
//                                         what the snapshot does not mention goes
//
// A line is applied from its beginning to its end; when a watcher throws in the middle, the line is kept and
// applied again in the next dispatch(), where what is in place already changes nothing. Nothing is sent but
// requests to mount and to invoke.
#include "ostra/mount.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <map>
#include <unordered_set>

#include "ostra/entity.h"
#include "ostra/publish_wire.h"
#include "ostra/type_info.h"
#include "pallo/events.h"
#include "pallo/poller.h"
#include "pallo/unix_socket.h"

namespace Ostra {
namespace {

using Wire::Field;
using Wire::Message;

constexpr std::size_t longestLine = 4 * 1024 * 1024;

// A watcher here threw. Not to be mistaken for what the agent did wrong, whatever type it threw.
struct WatcherThrew {
  std::exception_ptr exception;
};

// The agent sent a line that is no line of the protocol.
class Nonsense : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string const& text(Field const& field, char const* name) {
  if (std::string const* t = field.text()) return *t;
  throw Nonsense(fmt::format("it needs a text \"{}\"", name));
}

Value const& scalar(Field const& field, char const* name) {
  if (field.kind != Field::Kind::Scalar) throw Nonsense(fmt::format("it needs a value \"{}\"", name));
  return field.value;
}

std::vector<Value> const& items(Field const& field, Field::Kind kind, char const* name) {
  if (field.kind != kind && (field.kind != Field::Kind::List || !field.items.empty()))
    throw Nonsense(fmt::format("it needs a list \"{}\"", name));
  return field.items;
}

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

// One mounted object, to which the agent's events are applied.
class Mounted {
 public:
  Mounted(Ptr<Entity> object, std::string entity) : object_(std::move(object)), asked_(std::move(entity)) {}

  Entity const& object() const { return *object_; }
  bool live() const { return live_; }
  std::string const& entity() const { return entity_; }
  void entityIs(std::string entity) { entity_ = std::move(entity); }

  Wire::LineWriter request() const;
  // The connection or the agent's entity is gone; the values stay.
  void lost();
  // One that is lost from the beginning when there is nobody to ask.
  std::shared_ptr<Invocation> invocation();
  // Applied again after a watcher threw, an event does what it had not done yet.
  void apply(std::string const& event, Message const& line);

 private:
  void beginSnapshot();
  void sweep();
  void set(Attribute const& attribute, Value const& value);
  void setMembers(Attribute const& attribute, std::vector<Value> const& pairs);
  void delMember(Attribute const& attribute, Value const& key);

  Ptr<Entity> const object_;
  std::string const asked_;
  std::string entity_;  // the name that the agent gave, once mounted
  bool live_ = false;
  // Members that were here before the snapshot and that it has not mentioned.
  std::map<Attribute const*, std::unordered_set<Value>> unseen_;
  std::vector<std::weak_ptr<Invocation>> invocations_;  // answered or not
};

Wire::LineWriter Mounted::request() const {
  Wire::LineWriter line;
  line.text("verb", "mount").text("type", object_->typeInfo().name());
  return asked_.empty() ? line : line.text("entity", asked_);
}

void Mounted::lost() {
  live_ = false;
  entity_.clear();
  unseen_.clear();
  for (auto const& invocation : std::exchange(invocations_, {}))
    if (auto const i = invocation.lock()) i->lost = true;
}

std::shared_ptr<Invocation> Mounted::invocation() {
  auto const made = std::make_shared<Invocation>();
  made->lost = !live_;
  std::erase_if(invocations_, [](auto const& old) { return old.expired(); });
  if (live_) invocations_.push_back(made);
  return made;
}

void Mounted::apply(std::string const& event, Message const& m) {
  if (event == "snapshot") return beginSnapshot();
  if (event == "gone") return lost();
  if (event == "live") {
    sweep();
    live_ = true;
    return;
  }
  Attribute const& attribute = object_->typeInfo().at(text(m.attribute, "attribute"));
  if (event == "del") {
    for (Value const& key : items(m.keys, Field::Kind::List, "keys")) delMember(attribute, key);
  } else if (event == "set" && m.members.given()) {
    setMembers(attribute, items(m.members, Field::Kind::Pairs, "members"));
  } else if (event == "set") {
    set(attribute, scalar(m.value, "value"));
  }
}

void Mounted::beginSnapshot() {
  live_ = false;
  unseen_.clear();
  for (Attribute const* a : object_->typeInfo().attributes()) {
    if (!a->memberDel) continue;
    auto& keys = unseen_[a];
    for (auto& [key, value] : object_->typeInfo().members(*object_, a->name)) keys.insert(std::move(key));
  }
}

void Mounted::sweep() {
  while (!unseen_.empty()) {
    auto& [attribute, keys] = *unseen_.begin();
    if (keys.empty())
      unseen_.erase(attribute);
    else
      delMember(*attribute, keys.extract(keys.begin()).value());
  }
}

// Attributes that have no writer here stay as they are: nobody could watch them change.
void Mounted::set(Attribute const& attribute, Value const& value) {
  // It says that the snapshot's members are complete, and its watchers must see what is gone as gone.
  if (attribute.toldLast) sweep();
  if (!attribute.write) return;
  change([&] { attribute.write(*object_, value); }, [&] { return attribute.read(*object_) == value; });
}

void Mounted::setMembers(Attribute const& attribute, std::vector<Value> const& pairs) {
  if (!attribute.memberIs) return;
  auto const unseen = unseen_.find(&attribute);
  for (std::size_t i = 0; i < pairs.size(); i += 2) {
    Value const &key = pairs[i], &value = pairs[i + 1];
    if (unseen != unseen_.end()) unseen->second.erase(key);
    change([&] { attribute.memberIs(*object_, key, value); },
           [&] { return attribute.member(*object_, key) == value; });
  }
}

void Mounted::delMember(Attribute const& attribute, Value const& key) {
  if (!attribute.memberDel) return;
  if (auto const unseen = unseen_.find(&attribute); unseen != unseen_.end()) unseen->second.erase(key);
  change([&] { attribute.memberDel(*object_, key); }, [&] { return !attribute.member(*object_, key); });
}

}  // namespace

class VANTREL_LOCAL Mounter::Connection {
 public:
  Connection(std::string path, double retrySeconds);

  void mount(Ptr<Entity> object, std::string entity);
  std::shared_ptr<Invocation const> invoke(Entity const& object, std::string_view operation,
                                           std::vector<Value> const& arguments);
  int fd() const { return poller_.fd(); }
  void dispatch();
  bool connected() const { return static_cast<bool>(agent_); }
  bool live(Entity const& object) const;
  std::string const& problem() const { return problem_; }

 private:
  enum Watched : U64 { Retry, Owed, Agent };
  // What an answer answers: one of the two.
  struct Asked {
    std::shared_ptr<Mounted> mounted = {};
    std::shared_ptr<Invocation> invocation = {};
  };
  using Mounts = std::vector<std::shared_ptr<Mounted>>;

  void connect();
  void disconnect(std::string const& why);
  void ask(Wire::LineWriter& request, Asked asked);
  void send();
  void handle(U64 watched);
  void takeLines();
  std::optional<Message> nextLine();
  void takeLine(Message const& line);
  void takeAnswer(Message const& line);
  void askAgain();
  Mounts::const_iterator find(Entity const& object) const;

  std::string const path_;
  double const retrySeconds_;
  std::string problem_;
  Pallo::LineSocket agent_;
  Pallo::Poller poller_;
  Pallo::Timer retry_;
  Pallo::Doorbell owes_;         // rings while there is an owed line
  std::optional<Message> owed_;  // at which a watcher threw
  bool sending_ = false;         // as the poller knows it
  Mounts mounts_;
  std::map<U64, Asked> asked_;  // by tag
  U64 lastTag_ = 0;
};

Mounter::Connection::Connection(std::string path, double retrySeconds)
    : path_(std::move(path)), retrySeconds_(retrySeconds), agent_({}, longestLine) {
  poller_.add(retry_.fd(), Retry);
  poller_.add(owes_.fd(), Owed);
  connect();
}

void Mounter::Connection::connect() {
  agent_ = Pallo::LineSocket(Pallo::connectTo(path_), longestLine);
  if (!connected()) {
    problem_ = fmt::format("cannot reach the agent at {}: {}", path_, std::strerror(errno));
    return retry_.startIs(retrySeconds_);
  }
  problem_.clear();
  sending_ = false;
  poller_.add(agent_.fd(), Agent);
  askAgain();
}

void Mounter::Connection::disconnect(std::string const& why) {
  poller_.remove(agent_.fd());
  agent_ = Pallo::LineSocket({}, longestLine);
  owed_.reset();
  asked_.clear();
  problem_ = why;
  for (auto const& mounted : mounts_) mounted->lost();
  retry_.startIs(retrySeconds_);
}

void Mounter::Connection::mount(Ptr<Entity> object, std::string entity) {
  mounts_.push_back(std::make_shared<Mounted>(std::move(object), std::move(entity)));
  if (connected()) askAgain();
}

// What the agent does not have (yet, or any more) is asked for now and then.
void Mounter::Connection::askAgain() {
  for (auto const& mounted : mounts_) {
    auto const waits = [&](auto const& asked) { return asked.second.mounted == mounted; };
    if (!mounted->entity().empty() || std::ranges::any_of(asked_, waits)) continue;
    Wire::LineWriter request = mounted->request();
    ask(request, {.mounted = mounted});
  }
}

Mounter::Connection::Mounts::const_iterator Mounter::Connection::find(Entity const& object) const {
  return std::ranges::find_if(mounts_, [&](auto const& m) { return &m->object() == &object; });
}

bool Mounter::Connection::live(Entity const& object) const {
  auto const at = find(object);
  return at != mounts_.end() && (*at)->live();
}

std::shared_ptr<Invocation const> Mounter::Connection::invoke(Entity const& object,
                                                              std::string_view operation,
                                                              std::vector<Value> const& arguments) {
  auto const at = find(object);
  if (at == mounts_.end()) throw std::invalid_argument(object.name() + " is not mounted");
  auto const invocation = (*at)->invocation();
  if (invocation->lost) return invocation;
  Wire::LineWriter request;
  request.text("verb", "invoke").text("entity", (*at)->entity()).text("operation", operation);
  request.values("arguments", arguments);
  ask(request, {.invocation = invocation});
  return invocation;
}

void Mounter::Connection::ask(Wire::LineWriter& request, Asked asked) {
  asked_.emplace(++lastTag_, std::move(asked));
  agent_.out() += request.value("tag", lastTag_).line();
  send();
}

// The end of the connection shows itself to receive().
void Mounter::Connection::send() {
  agent_.send();
  if (std::exchange(sending_, agent_.sending()) == agent_.sending()) return;
  poller_.change(agent_.fd(), Agent, sending_ ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

// A watcher that throws ends the dispatch, and what is left is handled in the next.
void Mounter::Connection::dispatch() {
  owes_.ringsIs(false);
  try {
    takeLines();
    Pallo::Poller::Events events;
    for (auto const& event : poller_.ready(events)) handle(event.tag);
  } catch (...) {
    owes_.ringsIs(true);
    throw;
  }
}

void Mounter::Connection::handle(U64 watched) {
  if (watched == Retry && retry_.runsOut()) connected() ? askAgain() : connect();
  if (watched != Agent || !connected()) return;
  send();
  agent_.receive();
  takeLines();
}

void Mounter::Connection::takeLines() {
  while (connected()) {
    std::optional<Message> line = nextLine();
    if (!line) break;
    try {
      takeLine(*line);
    } catch (WatcherThrew const& e) {
      owed_ = std::move(line);
      std::rethrow_exception(e.exception);
    }
  }
  if (connected() && !agent_.ended().empty()) disconnect("the agent " + agent_.ended());
}

// Nothing when there is none, or it was none and the connection is over.
std::optional<Message> Mounter::Connection::nextLine() {
  if (owed_) return std::exchange(owed_, std::nullopt);
  auto const text = agent_.line();
  if (!text) return std::nullopt;
  try {
    return Wire::parse(*text);
  } catch (std::runtime_error const&) {
    disconnect("the agent sent a line that is not a JSON object");
    return std::nullopt;
  }
}

void Mounter::Connection::takeLine(Message const& line) try {
  if (!line.event.given()) return takeAnswer(line);
  std::string const &event = text(line.event, "event"), &entity = text(line.entity, "entity");
  for (auto const& mounted : Mounts(mounts_))  // a handler may mount
    if (mounted->entity() == entity) mounted->apply(event, line);
  if (event == "gone") retry_.startIs(5 * retrySeconds_);
} catch (AttributeException const& e) {
  problem_ = e.what();  // a type that differs between the agent and this process
} catch (Nonsense const& e) {
  disconnect(fmt::format("the agent sent a line that cannot be understood: {}", e.what()));
}

// An error that answers nothing says why the agent ends the connection.
void Mounter::Connection::takeAnswer(Message const& line) {
  bool const failed = line.error.given();
  if (failed) problem_ = text(line.error, "error");
  if (failed && !line.tag.given()) return disconnect("the agent ended the connection: " + problem_);
  U64 const* const tag = std::get_if<U64>(&line.tag.value);
  auto const at = tag ? asked_.find(*tag) : asked_.end();
  if (at == asked_.end()) return;
  Asked const asked = std::move(at->second);
  asked_.erase(at);
  if (asked.invocation && failed)
    asked.invocation->refusal = problem_;
  else if (asked.invocation)
    asked.invocation->result = line.result.value;
  else if (failed)
    retry_.startIs(5 * retrySeconds_);
  else
    asked.mounted->entityIs(text(line.entity, "entity"));
}

Mounter::Mounter(std::string path, double retrySeconds)
    : agent_(std::make_unique<Connection>(std::move(path), retrySeconds)) {}

Mounter::~Mounter() = default;

void Mounter::mount(Ptr<Entity> object, std::string entity) {
  agent_->mount(std::move(object), std::move(entity));
}

std::shared_ptr<Invocation const> Mounter::invoke(Entity const& object, std::string_view operation,
                                                  std::vector<Value> const& arguments) {
  return agent_->invoke(object, operation, arguments);
}

int Mounter::fd() const { return agent_->fd(); }

void Mounter::dispatch() { agent_->dispatch(); }

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

bool Mounter::connected() const { return agent_->connected(); }

bool Mounter::live(Entity const& object) const { return agent_->live(object); }

std::string const& Mounter::problem() const { return agent_->problem(); }

std::string const& Mounter::nameOf(TypeInfo const& type) { return type.name(); }

}  // namespace Ostra
