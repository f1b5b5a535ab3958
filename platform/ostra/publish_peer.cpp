// SPDX-License-Identifier: Apache-2.0
#include "ostra/publish_peer.h"

#include <fmt/format.h>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

namespace Ostra {
namespace {

constexpr std::size_t longestRequest = 64 * 1024;
constexpr std::size_t readAtOnce = 16 * 1024;
constexpr std::size_t slice = 32 * 1024;
constexpr std::size_t fullBuffer = 256 * 1024;
constexpr std::size_t membersALine = 256;
constexpr int requestsAtOnce = 32;

std::string text(Wire::Json const& request, char const* field) {
  auto const at = request.find(field);
  if (at == request.end()) throw AttributeException(fmt::format("the request needs \"{}\"", field));
  if (!at->is_string()) throw AttributeException(fmt::format("\"{}\" must be a text", field));
  return at->get<std::string>();
}

Value scalar(Wire::Json const& json, char const* what) {
  std::optional<Value> value = Wire::fromJson(json);
  if (!value)
    throw AttributeException(
        fmt::format("\"{}\" must be a bool, an unsigned integer, a double, a text or null", what));
  return std::move(*value);
}

Value field(Wire::Json const& request, char const* name) {
  auto const at = request.find(name);
  if (at == request.end()) throw AttributeException(fmt::format("the request needs \"{}\"", name));
  return scalar(*at, name);
}

char const* kindName(AttributeKind kind) {
  switch (kind) {
    case AttributeKind::Scalar:
      return "scalar";
    case AttributeKind::Collection:
      return "collection";
    case AttributeKind::Operation:
      return "operation";
  }
  return "";
}

bool writable(Attribute const& a) { return a.write || a.memberIs; }

}  // namespace

Peer::Peer(Pallo::Descriptor socket, bool mayWrite, Exports& exports)
    : socket_(std::move(socket)), mayWrite_(mayWrite), exports_(exports), in_(longestRequest) {}

Peer::~Peer() {
  for (auto& [name, cursor] : mounts_)
    if (auto const at = exports_.find(name); at != exports_.end()) at->second->leave(cursor);
}

bool Peer::serve(U32 events) {
  if (events & (EPOLLERR | EPOLLHUP)) return false;
  if (events & EPOLLIN) receive();
  takeRequests();
  produce();
  if (!send() || broken_) return false;
  bool const asked = waiting_ || reading_ || !mounts_.empty();
  return backlog() > 0 || (!ending_ && (!heardAll_ || asked));
}

U32 Peer::interest() const {
  U32 events = 0;
  bool const full = backlog() >= fullBuffer;
  if (!heardAll_ && !ending_ && !full && !waiting_) events |= EPOLLIN;
  bool const news = std::ranges::any_of(
      mounts_, [&](auto const& mount) { return exports_.find(mount.first)->second->hasNews(mount.second); });
  if (backlog() > 0 || reading_ || waiting_ || news) events |= EPOLLOUT;
  return events;
}

void Peer::withdrawn(std::string const& name) {
  auto const at = mounts_.find(name);
  if (at == mounts_.end()) return;
  exports_.find(name)->second->leave(at->second);
  mounts_.erase(at);
  out_ += Wire::line({{"event", "gone"}, {"entity", name}});
}

bool Peer::stalledFor(int calls) {
  int unread = 0;  // a slow peer empties the socket's buffer long before it is writable again
  ::ioctl(fd(), SIOCOUTQ, &unread);
  bool const reads = std::exchange(progressed_, false) || std::exchange(unread_, unread) != unread;
  bool const waits = interest() & EPOLLOUT;
  stalledCalls_ = reads || !waits ? 0 : stalledCalls_ + 1;
  return stalledCalls_ >= calls;
}

void Peer::refuse(std::string const& why) {
  fail(why);
  ending_ = true;
}

void Peer::receive() {
  if (heardAll_ || ending_) return;
  char bytes[readAtOnce];
  ssize_t const n = ::recv(fd(), bytes, sizeof bytes, 0);
  if (n > 0)
    in_.append(bytes, static_cast<std::size_t>(n));
  else if (n == 0)
    heardAll_ = true;
  else if (errno != EAGAIN && errno != EINTR)
    broken_ = true;
}

void Peer::takeRequests() {
  acted_ = false;
  for (int n = 0; n < requestsAtOnce && !acted_ && !ending_ && !reading_ && backlog() < fullBuffer; ++n) {
    std::optional<std::string_view> const line = in_.next();
    waiting_ = line.has_value();
    if (waiting_ ? line->size() > longestRequest : in_.overlong()) {
      waiting_ = false;
      return refuse(fmt::format("a line is longer than {} bytes", longestRequest));
    }
    if (!waiting_) return;
    if (!line->empty()) handle(*line);
  }
  waiting_ = !ending_ && in_.hasLine();
}

void Peer::produce() {
  if (ending_) return;
  std::size_t const upTo = out_.size() + slice;
  if (backlog() >= fullBuffer) return;
  while (reading_ && out_.size() < upTo) continueReading();
  auto at = mounts_.upper_bound(turn_);
  for (std::size_t n = 0; n < mounts_.size() && out_.size() < upTo; ++n, ++at) {
    if (at == mounts_.end()) at = mounts_.begin();
    exports_.find(at->first)->second->produce(at->second, out_, upTo);
    turn_ = at->first;
  }
}

bool Peer::send() {
  if (backlog() == 0) return true;
  ssize_t const n = ::send(fd(), out_.data() + sent_, backlog(), MSG_NOSIGNAL);
  if (n < 0) return errno == EAGAIN || errno == EINTR;
  progressed_ = true;
  sent_ += static_cast<std::size_t>(n);
  if (sent_ == out_.size() || sent_ >= slice) {
    out_.erase(0, sent_);
    sent_ = 0;
  }
  return true;
}

void Peer::fail(std::string const& why, Json const* tag) {
  Json error{{"error", why}};
  if (tag) error["tag"] = *tag;
  out_ += Wire::line(error);
}

void Peer::handle(std::string_view line) {
  Json request;
  Json const* tag = nullptr;
  try {
    request = Wire::parseObject(line);
    if (auto const at = request.find("tag"); at != request.end()) {
      if (at->is_structured()) throw AttributeException("\"tag\" must be a number or a text");
      tag = &*at;
    }
    Json reply = answer(request, text(request, "verb"));
    if (reply.is_null()) return;
    if (tag) reply["tag"] = *tag;
    out_ += Wire::line(reply);
  } catch (std::exception const& e) {
    fail(e.what(), tag);
  }
}

Peer::Json Peer::answer(Json const& request, std::string_view verb) {
  if (verb == "list") return list(request);
  if (verb == "mount") return mount(request);
  if (verb == "unmount") return unmount(request);
  if (verb == "read") return read(request);
  acted_ = true;
  if (verb == "write") return write(request);
  if (verb == "delete") return erase(request);
  if (verb == "invoke") return invoke(request);
  acted_ = false;
  throw AttributeException(
      fmt::format("unknown verb \"{}\"; expected list, mount, unmount, read, write, delete or invoke",
                  verb.substr(0, 64)));
}

void Peer::checkMayWrite() const {
  if (!mayWrite_)
    throw AttributeException("writing and invoking are for the owner of the agent and for root");
}

Export& Peer::exportOf(Json const& request, bool orType) {
  if (orType && !request.contains("entity")) {
    std::string const type = text(request, "type");
    Export* found = nullptr;
    for (auto const& [name, exported] : exports_) {
      if (exported->object()->typeInfo().name() != type) continue;
      if (found)
        throw AttributeException(
            fmt::format("several entities have the type {}: {} and {}; name one as \"entity\"", type,
                        found->name(), name));
      found = exported.get();
    }
    if (!found) throw AttributeException(fmt::format("no entity has the type \"{}\"", type.substr(0, 200)));
    return *found;
  }
  std::string const name = text(request, "entity");
  auto const at = exports_.find(name);
  if (at != exports_.end()) return *at->second;
  std::string known;
  for (auto const& e : exports_) known += (known.empty() ? "" : ", ") + e.first;
  throw AttributeException(
      fmt::format("no entity is named \"{}\"; there are: {}", name.substr(0, 200), known));
}

Peer::Json Peer::list(Json const& request) {
  if (request.contains("entity")) return listOne(exportOf(request));
  Json entities = Json::array();
  for (auto const& [name, exported] : exports_)
    entities.push_back({{"entity", name},
                        {"type", exported->object()->typeInfo().name()},
                        {"mountable", exported->watchable()}});
  return {{"answer", "list"}, {"entities", std::move(entities)}};
}

Peer::Json Peer::listOne(Export const& exported) {
  TypeInfo const& type = exported.object()->typeInfo();
  Json attributes = Json::array();
  for (Attribute const* a : type.attributes()) {
    Json& entry = attributes.emplace_back(
        Json{{"name", a->name}, {"kind", kindName(a->kind)}, {"type", a->type}, {"writable", writable(*a)}});
    std::string const why = a->refusal ? a->refusal(*exported.object()) : std::string();
    if (!why.empty()) entry["refused"] = why;
  }
  return {{"answer", "list"}, {"entity", exported.name()}, {"type", type.name()}, {"attributes", attributes}};
}

Peer::Json Peer::mount(Json const& request) {
  Export& exported = exportOf(request, true);
  TypeInfo const& type = exported.object()->typeInfo();
  if (request.contains("type") && text(request, "type") != type.name())
    throw AttributeException(fmt::format("{} has the type {}, not \"{}\"", exported.name(), type.name(),
                                         text(request, "type").substr(0, 200)));
  if (!exported.watchable())
    throw AttributeException(
        fmt::format("{} does not tell its changes and cannot be mounted; read it instead", exported.name()));
  exported.leave(mounts_[exported.name()]);  // mounted again, it begins with a fresh snapshot
  return {{"answer", "mount"}, {"entity", exported.name()}, {"type", type.name()}};
}

Peer::Json Peer::unmount(Json const& request) {
  std::string const name = text(request, "entity");
  auto const at = mounts_.find(name);
  if (at == mounts_.end()) throw AttributeException(fmt::format("{} is not mounted", name.substr(0, 200)));
  exports_.find(name)->second->leave(at->second);
  mounts_.erase(at);
  return {{"answer", "unmount"}, {"entity", name}};
}

Peer::Json Peer::read(Json const& request) {
  Export const& exported = exportOf(request);
  Described const& object = *exported.object();
  TypeInfo const& type = object.typeInfo();
  Json reply{{"answer", "read"}, {"entity", exported.name()}};
  if (!request.contains("attribute")) {
    Json values = Json::object();
    for (Attribute const* a : type.attributes())
      if (a->read) values[a->name] = Wire::toJson(a->read(object));
    reply["values"] = std::move(values);
    return reply;
  }
  std::string const attribute = text(request, "attribute");
  reply["attribute"] = attribute;
  if (request.contains("key")) {
    Value const key = field(request, "key");
    std::optional<Value> const value = type.member(object, attribute, key);
    if (!value) throw AttributeException(fmt::format("{} has no member {}", attribute, toText(key)));
    reply["key"] = request["key"];
    reply["value"] = Wire::toJson(*value);
    return reply;
  }
  if (type.at(attribute).kind == AttributeKind::Collection) {
    beginReading(request, exported, attribute);
    return nullptr;
  }
  reply["value"] = Wire::toJson(type.read(object, attribute));
  return reply;
}

// The answer to the read of a collection is as many lines as it takes; all but the last say that there are
// more.
void Peer::beginReading(Json const& request, Export const& exported, std::string const& attribute) {
  Json opening{{"answer", "read"}, {"entity", exported.name()}, {"attribute", attribute}};
  if (request.contains("tag")) opening["tag"] = request["tag"];
  std::string begun = Wire::line(opening);
  begun.resize(begun.size() - 2);  // without the closing bracket and the line's end
  reading_.emplace(Reading{exported.name(), attribute, begun + R"(,"members":[)", {}});
}

void Peer::continueReading() {
  auto const at = exports_.find(reading_->entity);
  if (at == exports_.end()) {
    fail(fmt::format("{} is gone", reading_->entity));
    reading_.reset();
    return;
  }
  Described const& object = *at->second->object();
  Members members;
  object.typeInfo().membersFrom(object, reading_->attribute, reading_->cursor, membersALine, members);
  out_ += reading_->opening;
  for (std::size_t i = 0; i < members.size(); ++i) {
    out_ += i > 0 ? ",[" : "[";
    Wire::append(out_, members[i].first);
    out_ += ',';
    Wire::append(out_, members[i].second);
    out_ += ']';
  }
  out_ += reading_->cursor.done ? "]}\n" : "],\"more\":true}\n";
  if (reading_->cursor.done) reading_.reset();
}

Peer::Json Peer::write(Json const& request) {
  checkMayWrite();
  Export const& exported = exportOf(request);
  Ptr<Described> const object = exported.object();  // stays while its watchers run
  TypeInfo const& type = object->typeInfo();
  std::string const attribute = text(request, "attribute");
  Json reply{{"answer", "write"}, {"entity", exported.name()}, {"attribute", attribute}};
  type.checkOutsider(*object, attribute);
  if (request.contains("key")) {
    Value const key = field(request, "key");
    type.memberIs(*object, attribute, key, field(request, "value"));
    reply["key"] = request["key"];
    std::optional<Value> const now = type.member(*object, attribute, key);
    reply["value"] = now ? Wire::toJson(*now) : Json();
  } else {
    type.write(*object, attribute, field(request, "value"));
    reply["value"] = Wire::toJson(type.read(*object, attribute));
  }
  return reply;
}

Peer::Json Peer::erase(Json const& request) {
  checkMayWrite();
  Export const& exported = exportOf(request);
  Ptr<Described> const object = exported.object();
  TypeInfo const& type = object->typeInfo();
  std::string const attribute = text(request, "attribute");
  Json reply{{"answer", "delete"}, {"entity", exported.name()}, {"attribute", attribute}};
  type.checkOutsider(*object, attribute);
  type.memberDel(*object, attribute, field(request, "key"));
  reply["key"] = request["key"];
  return reply;
}

Peer::Json Peer::invoke(Json const& request) {
  checkMayWrite();
  Export const& exported = exportOf(request);
  Ptr<Described> const object = exported.object();
  TypeInfo const& type = object->typeInfo();
  std::string const operation = text(request, "operation");
  Json reply{{"answer", "invoke"}, {"entity", exported.name()}, {"operation", operation}};
  std::vector<Value> arguments;
  if (auto const at = request.find("arguments"); at != request.end()) {
    if (!at->is_array()) throw AttributeException("\"arguments\" must be an array");
    for (Json const& a : *at) arguments.push_back(scalar(a, "arguments"));
  }
  type.checkOutsider(*object, operation);
  Value const result = type.invoke(*object, operation, arguments);
  if (result != Value()) reply["result"] = Wire::toJson(result);
  return reply;
}

}  // namespace Ostra
