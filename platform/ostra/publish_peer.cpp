// SPDX-License-Identifier: Apache-2.0
// From bytes to answers:
//
//   line -> Message -> verb -> answer --+
//   mounts, a long read -> slice -------+--> socket
//
// It does not decide when it is served, how long it may be idle, or who may connect: the publisher does.
#include "ostra/publish_peer.h"
#include "ostra/type_info.h"

#include <fmt/format.h>
#include <sys/epoll.h>

#include <algorithm>

namespace Ostra {
namespace {

using Wire::Field;
using Wire::LineWriter;
using Wire::Message;

constexpr std::size_t longestRequest = 64 * 1024;
constexpr std::size_t readAtOnce = 16 * 1024;
constexpr std::size_t slice = 32 * 1024;
constexpr int requestsAtOnce = 32;

template <class... Args>
[[noreturn]] void refuse(fmt::format_string<Args...> format, Args&&... args) {
  throw AttributeException(fmt::format(format, std::forward<Args>(args)...));
}

std::string const& text(Field const& field, std::string_view name) {
  if (!field.given()) refuse("the request needs \"{}\"", name);
  if (!field.text()) refuse("\"{}\" must be a text", name);
  return *field.text();
}

[[noreturn]] void refuseValue(std::string_view name) {
  refuse("\"{}\" must be a bool, an unsigned integer, a double, a text or null", name);
}

Value const& scalar(Field const& field, std::string_view name) {
  if (!field.given()) refuse("the request needs \"{}\"", name);
  if (field.kind != Field::Kind::Scalar) refuseValue(name);
  return field.value;
}

std::vector<Value> const& arguments(Field const& field) {
  switch (field.kind) {
    case Field::Kind::Absent:
    case Field::Kind::List:
      return field.items;
    case Field::Kind::Pairs:
    case Field::Kind::Mixed:
      refuseValue("arguments");
    default:
      refuse("\"arguments\" must be an array");
  }
}

LineWriter reply(Message const& request, std::string_view entity) {
  LineWriter line;
  line.text("answer", *request.verb.text()).text("entity", entity);
  return line;
}

// Texts of the peer's that an error repeats.
std::string shortened(std::string const& text) { return text.substr(0, 200); }

}  // namespace

Peer::Peer(Pallo::Descriptor socket, bool mayAct, Exports const& exports)
    : socket_(std::move(socket), longestRequest),
      mayAct_(mayAct),
      exports_(exports),
      askedAt_(now()),
      readAt_(now()) {}

Peer::~Peer() {
  if (reading_) endReading();
  for (auto& [exported, cursor] : mounts_) exported->leave(cursor);
}

bool Peer::serve(U32 events, Turn const& turn) {
  if (events & (EPOLLERR | EPOLLHUP)) return false;
  if (events & EPOLLIN && interest() == EPOLLIN) socket_.receive(readAtOnce);
  if (!socket_.send()) return false;
  if (!socket_.blocked()) {
    takeRequests(turn);
    produce(turn);
    if (!socket_.send()) return false;
  }
  if (socket_.error() != 0) return false;
  return socket_.sending() || (!ending_ && (!socket_.heardAll() || !idle()));
}

U32 Peer::interest() const {
  if (socket_.blocked()) return EPOLLOUT;
  bool const listens = !socket_.heardAll() && !ending_ && !waiting_ && !reading_;
  return listens ? U32{EPOLLIN} : 0;
}

bool Peer::wantsTurn() const {
  auto const news = [](auto const& mount) { return mount.first->hasNews(mount.second); };
  return !socket_.blocked() &&
         (waiting_ || reading_ || socket_.sending() || std::ranges::any_of(mounts_, news));
}

void Peer::withdrawn(Export& exported) {
  if (reading_ && reading_->exported == &exported) {
    endReading();
    fail(fmt::format("{} is gone", exported.name()));
  }
  auto const at = mounts_.find(&exported);
  if (at == mounts_.end()) return;
  exported.leave(at->second);
  mounts_.erase(at);
  LineWriter gone;
  socket_.out() += gone.text("event", "gone").text("entity", exported.name()).line();
}

void Peer::dismiss(std::string const& why) {
  fail(why);
  socket_.send();
}

// A slow peer empties the socket's buffer long before the socket takes more.
bool Peer::stalledFor(double seconds) {
  std::pair const progress(socket_.sent(), socket_.blocked() ? socket_.unread() : 0);
  if (!socket_.blocked() || std::exchange(progress_, progress) != progress) readAt_ = now();
  return now() - readAt_ >= seconds;
}

// One that acts on the agent is the last, so that the agent's own descriptors have their turn behind it.
void Peer::takeRequests(Turn const& turn) {
  for (int n = 0; n < requestsAtOnce && !reading_ && socket_.out().size() < slice && takeLine(); ++n) {
    Verb const* const verb = request_ ? verbOf(*request_) : nullptr;
    bool const acts = mayAct_ && verb && verb->acts;
    if (acts && !turn.mayAct) break;
    if (request_) answer(*std::exchange(request_, std::nullopt));
    askedAt_ = now();
    if (acts || turn.over()) break;
  }
  waiting_ = !ending_ && (request_ || socket_.hasLine());
}

// Makes the next line the next request, or answers a line that is none. False when there is no line.
bool Peer::takeLine() {
  if (request_) return true;
  std::optional<std::string_view> line;
  do line = socket_.line();
  while (line && line->empty());
  if (line ? line->size() > longestRequest : socket_.overlong()) {
    fail(fmt::format("a line is longer than {} bytes", longestRequest));
    ending_ = true;
    return false;
  }
  if (!line) return false;
  try {
    request_ = Wire::parse(*line);
  } catch (std::runtime_error const& e) {
    fail(e.what());
  }
  return true;
}

void Peer::produce(Turn const& turn) {
  while (!ending_ && reading_ && socket_.out().size() < slice) {
    readOn();
    if (turn.over()) return;
  }
  auto at = mounts_.upper_bound(lastMount_);
  for (std::size_t n = 0; n < mounts_.size() && socket_.out().size() < slice && !ending_; ++n, ++at) {
    if (at == mounts_.end()) at = mounts_.begin();
    lastMount_ = at->first;
    at->first->produce(at->second, socket_.out(), slice, turn);
    if (turn.over()) return;
  }
}

void Peer::fail(std::string const& why, Field const& tag) {
  LineWriter line;
  socket_.out() += line.text("error", why).tag(tag).line();
}

Peer::Verb const* Peer::verbOf(Message const& request) {
  static constexpr Verb verbs[] = {{"list", &Peer::list, false},       {"mount", &Peer::mount, false},
                                   {"unmount", &Peer::unmount, false}, {"read", &Peer::read, false},
                                   {"write", &Peer::write, true},      {"delete", &Peer::erase, true},
                                   {"invoke", &Peer::invoke, true}};
  auto const* const name = request.verb.text();
  auto const at = std::ranges::find_if(verbs, [&](Verb const& v) { return name && v.name == *name; });
  return at == std::end(verbs) ? nullptr : at;
}

// What an operation did to this peer meanwhile (an entity went) is told before its answer.
void Peer::answer(Message const& request) try {
  if (request.tag.kind > Field::Kind::Negative) refuse("\"tag\" must be a number or a text");
  std::string const& name = text(request.verb, "verb");
  Verb const* const verb = verbOf(request);
  if (!verb)
    refuse("unknown verb \"{}\"; expected list, mount, unmount, read, write, delete or invoke",
           name.substr(0, 64));
  if (verb->acts && !mayAct_) refuse("writing and invoking are for the owner of the agent and for root");
  std::string const line = (this->*verb->answer)(request);
  socket_.out() += line;
} catch (std::exception const& e) {
  fail(e.what(), request.tag);
}

Export& Peer::exportOf(Message const& request) const {
  std::string const& name = text(request.entity, "entity");
  auto const at = exports_.find(name);
  if (at != exports_.end()) return *at->second;
  std::string known;
  for (auto const& e : exports_) known += (known.empty() ? "" : ", ") + e.first;
  refuse("no entity is named \"{}\"; there are: {}", shortened(name), known);
}

Export& Peer::exportOfType(std::string const& type) const {
  Export* found = nullptr;
  for (auto const& [name, exported] : exports_) {
    if (exported->type().name() != type) continue;
    if (found)
      refuse("several entities have the type {}: {} and {}; name one as \"entity\"", type, found->name(),
             name);
    found = exported.get();
  }
  if (!found) refuse("no entity has the type \"{}\"", shortened(type));
  return *found;
}

std::string Peer::list(Message const& request) {
  if (request.entity.given()) {
    Export const& exported = exportOf(request);
    LineWriter line = reply(request, exported.name());
    line.text("type", exported.type().name()).json("attributes", exported.attributes());
    return line.tag(request.tag).line();
  }
  std::string entities = "[";
  for (auto const& [name, exported] : exports_) {
    if (entities.size() > 1) entities += ',';
    entities += exported->listed();
  }
  LineWriter line;
  return line.text("answer", "list").json("entities", entities + ']').tag(request.tag).line();
}

std::string Peer::mount(Message const& request) {
  Export& exported = request.entity.given() ? exportOf(request) : exportOfType(text(request.type, "type"));
  std::string const& type = exported.type().name();
  if (request.type.given() && text(request.type, "type") != type)
    refuse("{} has the type {}, not \"{}\"", exported.name(), type, shortened(*request.type.text()));
  if (!exported.watchable())
    refuse("{} does not tell its changes and cannot be mounted; read it instead", exported.name());
  exported.leave(mounts_[&exported]);  // mounted again, it begins with a fresh snapshot
  return reply(request, exported.name()).text("type", type).tag(request.tag).line();
}

std::string Peer::unmount(Message const& request) {
  std::string const& name = text(request.entity, "entity");
  auto const at = std::ranges::find_if(mounts_, [&](auto const& m) { return m.first->name() == name; });
  if (at == mounts_.end()) refuse("{} is not mounted", shortened(name));
  at->first->leave(at->second);
  mounts_.erase(at);
  return reply(request, name).tag(request.tag).line();
}

// A collection is read in pieces, behind this.
std::string Peer::read(Message const& request) {
  Export& exported = exportOf(request);
  Described const& object = *exported.object();
  LineWriter line = reply(request, exported.name());
  if (!request.attribute.given()) {
    LineWriter values;
    for (Attribute const* a : exported.type().attributes())
      if (a->read) values.value(a->name, a->read(object));
    return line.json("values", values.opening() + '}').tag(request.tag).line();
  }
  std::string const& attribute = text(request.attribute, "attribute");
  line.text("attribute", attribute);
  if (request.key.given()) {
    Value const& key = scalar(request.key, "key");
    std::optional<Value> const value = exported.type().member(object, attribute, key);
    if (!value) refuse("{} has no member {}", attribute, toText(key));
    return line.value("key", key).value("value", *value).tag(request.tag).line();
  }
  Attribute const& read = exported.type().at(attribute);
  if (read.kind != AttributeKind::Collection)
    return line.value("value", exported.type().read(object, attribute)).tag(request.tag).line();
  reading_.emplace(Reading{&exported, line.tag(request.tag).opening() + ",\"members\":", {}});
  exported.read(reading_->cursor, read);
  return {};
}

void Peer::readOn() {
  Members members;
  reading_->exported->readOn(reading_->cursor, members);
  socket_.out() += reading_->opening;
  Wire::append(socket_.out(), members);
  bool const done = reading_->cursor.member.done;
  socket_.out() += done ? "}\n" : ",\"more\":true}\n";
  if (done) endReading();
}

void Peer::endReading() {
  reading_->exported->leave(reading_->cursor);
  reading_.reset();
}

// Watchers may do anything, withdraw the entity too: what is needed behind them is held.
std::string Peer::write(Message const& request) {
  Ptr<Described> const object = exportOf(request).object();
  TypeInfo const& type = object->typeInfo();
  std::string const& attribute = text(request.attribute, "attribute");
  LineWriter line = reply(request, *request.entity.text());
  line.text("attribute", attribute);
  type.checkOutsider(*object, attribute);
  if (!request.key.given()) {
    type.write(*object, attribute, scalar(request.value, "value"));
    return line.value("value", type.read(*object, attribute)).tag(request.tag).line();
  }
  Value const& key = scalar(request.key, "key");
  type.memberIs(*object, attribute, key, scalar(request.value, "value"));
  Value const now = type.member(*object, attribute, key).value_or(Value());
  return line.value("key", key).value("value", now).tag(request.tag).line();
}

std::string Peer::erase(Message const& request) {
  Ptr<Described> const object = exportOf(request).object();
  std::string const& attribute = text(request.attribute, "attribute");
  object->typeInfo().checkOutsider(*object, attribute);
  Value const& key = scalar(request.key, "key");
  object->typeInfo().memberDel(*object, attribute, key);
  LineWriter line = reply(request, *request.entity.text());
  return line.text("attribute", attribute).value("key", key).tag(request.tag).line();
}

std::string Peer::invoke(Message const& request) {
  Ptr<Described> const object = exportOf(request).object();
  std::string const& operation = text(request.operation, "operation");
  std::vector<Value> const& values = arguments(request.arguments);
  object->typeInfo().checkOutsider(*object, operation);
  Value const result = object->typeInfo().invoke(*object, operation, values);
  LineWriter line = reply(request, *request.entity.text());
  line.text("operation", operation);
  if (result != Value()) line.value("result", result);
  return line.tag(request.tag).line();
}

}  // namespace Ostra
