// SPDX-License-Identifier: Apache-2.0
// The log of changes and the cursors in it. What is remembered of a change is where it is, so that the values
// of a fast-changing object are never queued. It does not know peers, sockets or requests: a cursor is served
// when its owner asks for more lines.
#include "ostra/publish_export.h"

#include <algorithm>
#include <memory>

#include "ostra/publish_wire.h"
#include "ostra/type_info.h"

namespace Ostra {
namespace {

constexpr std::size_t shortLog = 16384;
constexpr std::size_t longLog = 65536;
constexpr U64 membersAChange = 8;
constexpr std::size_t membersALine = 256;
constexpr int forgottenAChange = 4;

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

std::string described(Attribute const& a) {
  bool const writable = a.write || a.memberIs;
  Wire::LineWriter text;
  text.text("name", a.name).text("kind", kindName(a.kind)).text("type", a.type).value("writable", writable);
  return text.opening();
}

}  // namespace

Export::Export(std::string name, Ptr<Described> object, std::function<void()> wake)
    : name_(std::move(name)),
      object_(std::move(object)),
      entity_(dynamic_cast<Entity const*>(object_.get())),
      wake_(std::move(wake)),
      attributes_(type().attributes()),
      longestLog_(shortLog),
      scalarChanges_(attributes_.size()) {
  Wire::LineWriter entry;
  entry.text("entity", name_).text("type", type().name()).value("mountable", watchable());
  listed_ = entry.opening() + '}';
  for (std::size_t i = 0; i < attributes_.size(); ++i) {
    Wire::LineWriter opening;
    openings_.push_back(opening.text("entity", name_).text("attribute", attributes_[i]->name).opening());
    described_.push_back(described(*attributes_[i]));
    if (attributes_[i]->kind == AttributeKind::Scalar) scalarChanged(i);
  }
}

std::string Export::attributes() const {
  std::string out = "[";
  for (std::size_t i = 0; i < attributes_.size(); ++i) {
    std::string const why = attributes_[i]->refusal ? attributes_[i]->refusal(*object_) : std::string();
    out += i > 0 ? "," : "";
    out += described_[i];
    if (!why.empty()) Wire::appendQuoted(out += ",\"refused\":", why);
    out += '}';
  }
  return out + ']';
}

void Export::changed(std::string_view name, Value const& key) {
  auto const a = std::ranges::find(attributes_, name, &Attribute::name);
  if (a == attributes_.end()) return;
  auto const attribute = static_cast<std::size_t>(a - attributes_.begin());
  if ((*a)->kind == AttributeKind::Collection) return memberChanged({attribute, key});
  scalarChanged(attribute);
  wake_();
}

void Export::scalarChanged(std::size_t attribute) {
  U64 const next = std::max(newestAtOnce_, newestLast_) + 1;
  scalarChanges_[attribute] = next;
  (attributes_[attribute]->toldLast ? newestLast_ : newestAtOnce_) = next;
}

void Export::memberChanged(Change change) {
  if (needing_ == 0) return;
  if (log_.size() >= longestLog_ && base_ == needed_) makeRoom();
  if (needing_ == 0) return;
  forget(forgottenAChange);
  auto const [at, fresh] = latest_.try_emplace(change, head());
  if (!fresh && at->second >= consumed_) return;  // nobody was told yet: the value will be read later
  at->second = head();
  log_.push_back(std::move(change));
  wake_();
}

// Leaves behind who is in the older half of the log.
void Export::makeRoom() {
  U64 const keepFrom = head() - log_.size() / 2;
  needed_ = head();
  for (Cursor* c : followers_) {
    if (c->behind) continue;
    if (c->position >= keepFrom) {
      needed_ = std::min(needed_, c->position);
      continue;
    }
    --needing_;
    if (c->stage == Cursor::Stage::Walk)
      c->behind = true;
    else
      *c = Cursor();
  }
  std::erase_if(followers_, [](Cursor const* c) { return c->stage == Cursor::Stage::Begin; });
  if (followers_.empty()) notifierIs(nullptr);
  wake_();
}

// A few at a time, so that no change pays for all.
void Export::forget(int atMost) {
  for (; base_ < needed_ && atMost-- > 0; ++base_, log_.pop_front())
    if (auto const at = latest_.find(log_.front()); at->second == base_) latest_.erase(at);
}

bool Export::hasNews(Cursor const& c) const {
  return c.stage != Cursor::Stage::Follow || c.position != head() || c.toldAtOnce != newestAtOnce_ ||
         c.toldLast != newestLast_ || !c.live;
}

void Export::produce(Cursor& c, std::string& out, std::size_t upTo, Turn const& turn) {
  if (c.stage == Cursor::Stage::Begin) {
    follows(c, false);
    Wire::LineWriter begins;
    out += begins.text("event", "snapshot").text("entity", name_).line();
  }
  tellScalars(false, c.toldAtOnce, out);
  if (c.stage == Cursor::Stage::Walk) walk(c, out, upTo, turn);
  if (c.stage == Cursor::Stage::Follow) follow(c, out, upTo, turn);
}

void Export::read(Cursor& c, Attribute const& collection) {
  follows(c, true);
  c.attribute = static_cast<std::size_t>(std::ranges::find(attributes_, &collection) - attributes_.begin());
}

void Export::follows(Cursor& c, bool reads) {
  c = Cursor();
  c.stage = Cursor::Stage::Walk;
  c.behind = reads;
  c.position = head();
  if (!reads) {
    consumed_ = head();
    ++needing_;
  }
  followers_.push_back(&c);
  if (!notifier()) notifierIs(entity_);
}

void Export::leave(Cursor& c) {
  if (std::erase(followers_, &c) > 0 && !c.behind) --needing_;
  c = Cursor();
  if (!followers_.empty()) return;
  notifierIs(nullptr);
  base_ = needed_ = head();
  log_.clear();
  latest_.clear();
}

void Export::walk(Cursor& c, std::string& out, std::size_t upTo, Turn const& turn) {
  Members members;
  do {
    while (c.attribute < attributes_.size() && attributes_[c.attribute]->kind != AttributeKind::Collection)
      ++c.attribute;
    if (c.attribute == attributes_.size()) return walked(c);
    members.clear();
    readOn(c, members);
    c.members += members.size();
    if (!members.empty()) tellMembers(out, c.attribute, members);
    if (c.member.done) {
      c.member = MemberCursor();
      ++c.attribute;
    }
  } while (out.size() < upTo && !turn.over());
}

void Export::walked(Cursor& c) {
  longestLog_ = std::clamp<std::size_t>(c.members / membersAChange, shortLog, longLog);
  if (c.behind)
    leave(c);  // and begins again
  else
    c.stage = Cursor::Stage::Follow;
}

void Export::readOn(Cursor& c, Members& members) {
  attributes_[c.attribute]->membersFrom(*object_, c.member, membersALine, members);
}

void Export::follow(Cursor& c, std::string& out, std::size_t upTo, Turn const& turn) {
  while (c.position != head()) {
    tellRun(c, out);
    if (out.size() >= upTo || turn.over()) break;
  }
  consumed_ = std::max(consumed_, c.position);
  if (c.position != head()) return;
  tellScalars(true, c.toldLast, out);
  if (c.live) return;
  Wire::LineWriter complete;
  out += complete.text("event", "live").text("entity", name_).line();
  c.live = true;
}

// Told when the cursor comes there. A member that changes all the time is told once a lap all the same.
bool Export::comesAgain(Cursor const& c, Change const& change) const {
  U64 const latest = latest_.at(change);
  return latest != c.position && latest < c.lapEnd;
}

// A piece of the log, the changes of each collection together.
void Export::tellRun(Cursor& c, std::string& out) {
  struct Told {
    Members set;
    std::vector<Value> gone;
  };
  std::vector<std::pair<std::size_t, Told>> collections;  // in the order in which the log names them first
  if (c.position >= c.lapEnd) c.lapEnd = head();
  for (std::size_t n = 0; n < membersALine && c.position != head(); ++n, ++c.position) {
    Change const& change = log_[c.position - base_];
    if (comesAgain(c, change)) continue;
    auto at = std::ranges::find(collections, change.attribute, &std::pair<std::size_t, Told>::first);
    if (at == collections.end()) at = collections.emplace(at, change.attribute, Told());
    if (std::optional<Value> value = attributes_[change.attribute]->member(*object_, change.key))
      at->second.set.emplace_back(change.key, std::move(*value));
    else
      at->second.gone.push_back(change.key);
  }
  for (auto const& [attribute, told] : collections) {
    if (!told.set.empty()) tellMembers(out, attribute, told.set);
    if (told.gone.empty()) continue;
    event(out, "del", attribute);
    Wire::append(out += R"(,"keys":)", told.gone);
    out += "}\n";
  }
}

// In the order in which they changed last.
void Export::tellScalars(bool last, U64& told, std::string& out) {
  U64 const newest = last ? newestLast_ : newestAtOnce_;
  if (told == newest) return;
  std::vector<std::pair<U64, std::size_t>> due;
  for (std::size_t i = 0; i < attributes_.size(); ++i)
    if (attributes_[i]->toldLast == last && scalarChanges_[i] > told) due.emplace_back(scalarChanges_[i], i);
  std::ranges::sort(due);
  for (auto const& [change, attribute] : due) {
    event(out, "set", attribute);
    Wire::append(out += R"(,"value":)", attributes_[attribute]->read(*object_));
    out += "}\n";
  }
  told = newest;
}

void Export::event(std::string& out, std::string_view event, std::size_t attribute) const {
  ((out += R"({"event":")") += event) += "\",";
  out.append(openings_[attribute], 1);
}

void Export::tellMembers(std::string& out, std::size_t attribute, Members const& members) const {
  event(out, "set", attribute);
  Wire::append(out += R"(,"members":)", members);
  out += "}\n";
}

}  // namespace Ostra
