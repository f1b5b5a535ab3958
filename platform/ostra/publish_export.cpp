// SPDX-License-Identifier: Apache-2.0
#include "ostra/publish_export.h"

#include <algorithm>
#include <memory>

#include "ostra/publish_wire.h"

namespace Ostra {
namespace {
constexpr std::size_t shortLog = 16384;
constexpr std::size_t longLog = 65536;
constexpr U64 membersAChange = 8;
constexpr std::size_t membersALine = 256;
constexpr int slicesAtOnce = 64;
}  // namespace

Export::Export(std::string name, Ptr<Described> object, std::function<void()> wake)
    : name_(std::move(name)),
      object_(std::move(object)),
      entity_(dynamic_cast<Entity const*>(object_.get())),
      wake_(std::move(wake)),
      attributes_(object_->typeInfo().attributes()),
      longestLog_(shortLog),
      scalarChanges_(attributes_.size()),
      sharedKeys_(attributes_.size()) {
  Wire::appendQuoted(quotedName_, name_);
  for (Attribute const* a : attributes_) {
    std::string& opening = openings_.emplace_back(R"(","entity":)" + quotedName_ + R"(,"attribute":)");
    Wire::appendQuoted(opening, a->name);
  }
  for (std::size_t i = 0; i < attributes_.size(); ++i)
    if (attributes_[i]->kind == AttributeKind::Scalar) scalarChanged(i);
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
  ++changes_;
  if (log_.size() >= longestLog_) makeRoom();
  if (needing_ == 0) return;
  auto const [at, fresh] = latest_.try_emplace(change, head());
  if (!fresh && at->second >= consumed_) return;  // nobody was told yet: the value will be read later
  at->second = head();
  log_.push_back(std::move(change));
  wake_();
}

void Export::makeRoom() {
  U64 const keepFrom = head() - log_.size() / 2;
  for (Cursor* c : followers_)
    if (!c->behind && c->position < keepFrom) leftBehind(*c);
  std::erase_if(followers_, [](Cursor const* c) { return c->stage == Cursor::Stage::Begin; });
  trim();
  wake_();
}

void Export::leftBehind(Cursor& c) {
  --needing_;
  if (c.stage == Cursor::Stage::Walk)
    c.behind = true;
  else
    c = Cursor();
}

void Export::trim() {
  U64 keepFrom = head();
  for (Cursor const* c : followers_)
    if (!c->behind) keepFrom = std::min(keepFrom, c->position);
  for (; base_ < keepFrom; ++base_, log_.pop_front())
    if (auto const at = latest_.find(log_.front()); at->second == base_) latest_.erase(at);
  if (followers_.empty()) notifierIs(nullptr);
}

bool Export::hasNews(Cursor const& c) const {
  return c.stage != Cursor::Stage::Follow || c.position != head() || c.toldAtOnce != newestAtOnce_ ||
         c.toldLast != newestLast_ || !c.live;
}

bool Export::produce(Cursor& c, std::string& out, std::size_t upTo) {
  if (c.stage == Cursor::Stage::Begin) begin(c, out);
  tellScalars(false, c.toldAtOnce, out);
  if (c.stage == Cursor::Stage::Walk) walk(c, out, upTo);
  if (c.stage == Cursor::Stage::Follow) follow(c, out, upTo);
  return hasNews(c);
}

void Export::leave(Cursor& c) {
  if (std::erase(followers_, &c) > 0) {
    if (!c.behind) --needing_;
    trim();
  }
  c = Cursor();
}

void Export::begin(Cursor& c, std::string& out) {
  c = Cursor();
  c.stage = Cursor::Stage::Walk;
  c.position = consumed_ = head();
  followers_.push_back(&c);
  ++needing_;
  if (!notifier()) notifierIs(entity_);
  out += R"({"event":"snapshot","entity":)" + quotedName_ + "}\n";
}

void Export::walk(Cursor& c, std::string& out, std::size_t upTo) {
  Members members;
  for (int slices = 0; slices < slicesAtOnce && out.size() < upTo; ++slices) {
    while (c.attribute < attributes_.size() && attributes_[c.attribute]->kind != AttributeKind::Collection)
      ++c.attribute;
    if (c.attribute == attributes_.size()) return walked(c);
    members.clear();
    slice(c, members);
    c.members += members.size();
    if (!members.empty()) tellMembers(out, c.attribute, members);
    if (c.member.done) {
      c.member = MemberCursor();
      ++c.attribute;
    }
  }
}

void Export::walked(Cursor& c) {
  longestLog_ = std::clamp<std::size_t>(c.members / membersAChange, shortLog, longLog);
  if (c.behind)
    leave(c);  // and begins again
  else
    c.stage = Cursor::Stage::Follow;
}

void Export::slice(Cursor& c, Members& members) {
  SharedKeys& shared = sharedKeys_[c.attribute];
  bool const begins = !c.member.keys && c.member.bucket == 0;
  if (begins && shared.changes == changes_) c.member.keys = shared.keys.lock();
  bool const copies = begins && !c.member.keys;
  attributes_[c.attribute]->membersFrom(*object_, c.member, membersALine, members);
  if (copies && c.member.keys) shared = {c.member.keys, changes_};
}

void Export::follow(Cursor& c, std::string& out, std::size_t upTo) {
  while (c.position != head() && out.size() < upTo) tellRun(c, out);
  consumed_ = std::max(consumed_, c.position);
  if (c.position != head()) return;
  tellScalars(true, c.toldLast, out);
  if (c.live) return;
  out += R"({"event":"live","entity":)" + quotedName_ + "}\n";
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
    if (!told.gone.empty()) tellGone(out, attribute, told.gone);
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
    out += R"(,"value":)";
    Wire::append(out, attributes_[attribute]->read(*object_));
    out += "}\n";
  }
  told = newest;
}

void Export::event(std::string& out, std::string_view event, std::size_t attribute) const {
  out += R"({"event":")";
  out += event;
  out += openings_[attribute];
}

void Export::tellMembers(std::string& out, std::size_t attribute, Members const& members) const {
  event(out, "set", attribute);
  out += R"(,"members":[)";
  for (auto const& [key, value] : members) {
    out += '[';
    Wire::append(out, key);
    out += ',';
    Wire::append(out, value);
    out += "],";
  }
  out.back() = ']';
  out += "}\n";
}

void Export::tellGone(std::string& out, std::size_t attribute, std::vector<Value> const& keys) const {
  event(out, "del", attribute);
  out += R"(,"keys":[)";
  for (Value const& key : keys) {
    Wire::append(out, key);
    out += ',';
  }
  out.back() = ']';
  out += "}\n";
}

}  // namespace Ostra
