// SPDX-License-Identifier: Apache-2.0
#include "testing/canonical.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include "ostra/piecewise_map.h"
#include "vantrel/fast/mixed_rings.h"

namespace Testing {
namespace {

using Vantrel::CState_s;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::FastState;
using Vantrel::FastVantrelImpl;
using Vantrel::OpId;
using Vantrel::TableKey;

// Private members: an explicit instantiation may name them, and a friend hands them out.
template <class Tag, auto member>
struct Opened {
  friend constexpr auto memberOf(Tag) { return member; }
};
struct MixedRingsOfEngine {
  friend constexpr auto memberOf(MixedRingsOfEngine);
};
struct KeptRings {
  friend constexpr auto memberOf(KeptRings);
};
struct ClosingRings {
  friend constexpr auto memberOf(ClosingRings);
};
struct LostClaims {
  friend constexpr auto memberOf(LostClaims);
};
struct FreeSlots {
  friend constexpr auto memberOf(FreeSlots);
};
struct Slots {
  friend constexpr auto memberOf(Slots);
};
using Table = Shoal::LocalTable<EntryConfig>;
template struct Opened<MixedRingsOfEngine, &FastVantrelImpl::mixedRings_>;
template struct Opened<KeptRings, &FastVantrelImpl::MixedRings::kept_>;
template struct Opened<ClosingRings, &FastVantrelImpl::MixedRings::closing_>;
template struct Opened<LostClaims, &Vantrel::OpenChains::lost_>;
template struct Opened<FreeSlots, &Table::free_>;
template struct Opened<Slots, &Table::slots_>;

constexpr U8 nothing = 0xFF;

// A position or a priority of a small world.
U8 small(U32 value) {
  if (value != Vantrel::noIndex && value >= nothing) throw Broken("a small world has small numbers");
  return static_cast<U8>(value);
}

void append(std::string& bytes, U64 value, std::size_t width) {
  char raw[sizeof value];
  std::memcpy(raw, &value, sizeof value);
  bytes.append(raw, width);  // the low bytes: the machine is little-endian
}

// The place of a key in a list, from 1; 0 when it is not there.
template <class Keys>
U8 placeIn(Keys const& keys, EntryKey const& key) {
  U8 place = 1;
  for (auto const& other : keys) {
    if (other == key) return place;
    ++place;
  }
  return 0;
}

// Names numbered by their first appearance.
template <class Name>
class Labels {
 public:
  explicit Labels(bool renames) : renames_(renames) {}
  U8 of(Name name) {
    if (!renames_) return static_cast<U8>(name);
    auto const at = std::find(names_.begin(), names_.end(), name);
    if (at != names_.end()) return static_cast<U8>(at - names_.begin());
    names_.push_back(name);
    return static_cast<U8>(names_.size() - 1);
  }
  // The names in the order of their labels, less `base`, and then those that have none.
  Naming::Names all(Name base) const {
    Naming::Names names{};
    std::iota(names.begin(), names.end(), U8{0});
    std::size_t place = 0;
    for (Name name : names_) {
      auto const from = std::find(names.begin() + static_cast<std::ptrdiff_t>(place), names.end(),
                                  static_cast<U8>(name - base));
      if (from == names.end()) throw Broken("a small world has few names");
      std::rotate(names.begin() + static_cast<std::ptrdiff_t>(place), from, from + 1);
      ++place;
    }
    return names;
  }
  std::vector<Name> const& labelled() const { return names_; }

 private:
  bool renames_;
  std::vector<Name> names_;
};

}  // namespace

CanonicalForm::CanonicalForm(SmallWorld const& world, bool renames, FormOf what)
    : keys_(keysOf(world)),
      renames_(renames),
      givenVersions_(std::any_of(world.alphabet.begin(), world.alphabet.end(),
                                 [](Operation const& o) { return o.givenOpId; })),
      walks_(std::any_of(world.alphabet.begin(), world.alphabet.end(),
                         [](Operation const& o) { return o.step.what == Do::Walk; })),
      handlesShared_(std::any_of(world.alphabet.begin(), world.alphabet.end(),
                                 [](Operation const& o) { return o.handle > 0; })),
      what_(what),
      facts_(keys_) {
  if (keys_ > Naming::most) throw Broken("a small world has few keys");
}

void CanonicalForm::read(Differ const& differ) {
  rankVersions(differ);
  for (U32 i = 0; i < keys_; ++i) readKey(differ, i + 1, facts_[i]);
  Naming::Names order{};
  std::iota(order.begin(), order.end(), U8{0});
  best_.clear();
  if (!renames_) return tryOrder(order, differ);
  auto const plainBefore = [&](U8 a, U8 b) { return facts_[a].plain < facts_[b].plain; };
  auto const end = order.begin() + keys_;
  std::stable_sort(order.begin(), end, plainBefore);
  auto const alike = [&](U8 a, U8 b) { return !facts_[a].blank && facts_[a].plain == facts_[b].plain; };
  if (std::adjacent_find(order.begin(), end, alike) == end) return tryOrder(order, differ);
  std::iota(order.begin(), end, U8{0});
  do {
    if (std::is_sorted(order.begin(), end, plainBefore)) tryOrder(order, differ);
  } while (std::next_permutation(order.begin(), end));
}

// Every version that can still be compared with another one.
void CanonicalForm::rankVersions(Differ const& differ) {
  versions_.clear();
  for (U32 i = 0; i < keys_; ++i) {
    EntryConfig const entry = differ.world().table().entry(EntryKey(i + 1));
    CState_s const* const c = differ.state().record(EntryKey(i + 1));
    if (c && c->p.ti != Vantrel::noIndex) versions_.push_back(c->p.opId.value());
    if (!entry.empty() && !entry.isDel() && !settled(entry, c)) versions_.push_back(entry.opId().value());
  }
  std::sort(versions_.begin(), versions_.end());
  versions_.erase(std::unique(versions_.begin(), versions_.end()), versions_.end());
}

bool CanonicalForm::settled(EntryConfig const& entry, CState_s const* c) const {
  return !handlesShared_ && !givenVersions_ && c && c->opId >= entry.opId() && c->p.ti == Vantrel::noIndex;
}

U64 CanonicalForm::version(OpId opId) const {
  if (givenVersions_ || opId == OpId()) return opId.value();
  if (what_ == FormOf::WithoutOrderOfVersions) return opId.low();
  auto const at = std::lower_bound(versions_.begin(), versions_.end(), opId.value());
  return (static_cast<U64>(at - versions_.begin() + 1) << 16) | opId.low();
}

void CanonicalForm::readKey(Differ const& differ, U64 name, Key& out) {
  EntryKey const key(name);
  World const& world = differ.world();
  FastState const& state = differ.state();
  FastVantrelImpl const& engine = *world.engine();
  EntryConfig const entry = world.table().entry(key);
  CState_s const* const c = state.record(key);
  if (state.cachedRecord(key) != c) throw Broken("the prefetched record is stale, key " + std::to_string(name));
  auto const handle = engine.keyToHandle().find(key);
  bool const mapped = handle != engine.keyToHandle().end();

  std::string& plain = out.plain;
  plain.clear();
  out.groups.clear();
  out.handles.clear();
  bool const inTable = !entry.empty();
  append(plain,
         U64{inTable} | U64{entry.isDel()} << 1 | U64{c != nullptr} << 2 | U64{mapped} << 3 |
             U64{inTable && !entry.isDel() && c && c->opId >= entry.opId()} << 4,
         1);
  if (inTable) append(plain, entry.tableIndexs() ? small(entry.tableIndex(TableKey(0))) : nothing, 1);
  if (inTable && !entry.isDel()) {
    append(plain, settled(entry, c) ? entry.opId().low() : version(entry.opId()), 8);
    append(plain, small(entry.prio()), 1);
    out.groups.push_back(entry.pg());
    out.handles.push_back(entry.hdl());
  }
  if (c) {
    bool const marks = what_ != FormOf::WithoutChainMarks;
    append(plain, givenVersions_ ? c->opId.value() : c->opId.low(), 8);
    append(plain, version(c->p.opId), 8);
    append(plain, small(c->prio), 1);
    append(plain, small(c->sti), 1);
    append(plain, small(c->p.ti), 1);
    append(plain,
           static_cast<U64>(c->p.type) | U64{marks && c->p.open} << 2 | U64{marks && c->p.lost} << 3, 1);
    out.groups.push_back(c->pg);
    out.handles.push_back(c->hdl);
  }
  if (mapped) out.handles.push_back(handle->second);
  auto const& rings = *(engine.*memberOf(MixedRingsOfEngine{}));
  append(plain, placeIn(state.workq, key), 1);
  append(plain, placeIn(state.blocked, key), 1);
  append(plain, placeIn(rings.*memberOf(KeptRings{}), key), 1);
  append(plain, placeIn(rings.*memberOf(ClosingRings{}), key), 1);
  append(plain, world.frontEnd()->failedKey().find(key) != world.frontEnd()->failedKey().end(), 1);
  append(plain, static_cast<U64>(world.failures().times(name)), 1);
  append(plain, static_cast<U64>(std::count_if(engine.handleToKey().begin(), engine.handleToKey().end(),
                                               [&](auto const& owner) { return owner.second == key; })),
         1);
  out.blank = std::all_of(plain.begin(), plain.end(), [](char byte) { return byte == 0; });
}

// Writes the form with the keys in this order, and keeps it if it is the least one so far.
void CanonicalForm::tryOrder(Naming::Names const& order, Differ const& differ) {
  std::string bytes;
  bytes.reserve(256);
  Labels<U16> groups(renames_);
  Labels<U64> handles(renames_);
  for (U32 i = 0; i < keys_; ++i) {
    Key const& key = facts_[order[i]];
    bytes += key.plain;
    for (U16 group : key.groups) bytes.push_back(static_cast<char>(groups.of(group)));
    for (U64 handle : key.handles) bytes.push_back(static_cast<char>(handles.of(handle)));
  }
  // Handles that no key names, by their owner.
  auto const& owners = differ.world().engine()->handleToKey();
  if (renames_)
    for (U32 i = 0; i < keys_; ++i)
      for (auto const& [handle, key] : owners)
        if (key.value() == U64{order[i]} + 1) handles.of(handle);
  std::string owned(2 * Naming::most, '\0');
  for (auto const& [handle, key] : owners)
    for (U32 i = 0; i < keys_; ++i)
      if (key.value() == U64{order[i]} + 1) owned.at(handles.of(handle)) = static_cast<char>(i + 1);
  bytes += owned;
  bytes += rest(differ);
  if (walks_) {
    Table const& table = differ.world().table();
    for (auto const& slot : table.*memberOf(Slots{}))
      bytes.push_back(static_cast<char>(
          slot.change == 0 ? 0 : std::find(order.begin(), order.end(), slot.record.key().value() - 1) -
                                     order.begin() + 1));
    bytes.push_back(static_cast<char>(nothing));
    for (U32 slot : table.*memberOf(FreeSlots{})) bytes.push_back(static_cast<char>(slot));
  }
  if (!best_.empty() && best_ <= bytes) return;
  best_ = std::move(bytes);
  naming_.keys = order;
  naming_.groups = groups.all(0);
  naming_.handles = handles.all(1);
}

// What belongs to no key.
std::string CanonicalForm::rest(Differ const& differ) const {
  World const& world = differ.world();
  std::string bytes;
  auto const wakeUp = world.wheel().earliest();
  append(bytes, wakeUp ? 1 + static_cast<U64>(std::llround((*wakeUp - world.wheel().now()) * 10)) : 0, 4);
  append(bytes, world.frontEnd()->retryTimerSet(), 1);
  append(bytes, differ.state().chains.*memberOf(LostClaims{}), 1);
  append(bytes, differ.model().lostInDrain() > 0, 1);  // idle claims are no error from then on
  return bytes;
}

namespace {

// An operation but for the names in it.
bool alike(Operation const& a, Operation const& b) {
  Step const& s = a.step;
  Step const& t = b.step;
  return s.what == t.what && s.quiet == t.quiet && s.times == t.times && s.seconds == t.seconds &&
         s.entry.isDel() == t.entry.isDel() && s.entry.prio() == t.entry.prio() &&
         s.entry.tableIndexes() == t.entry.tableIndexes() && s.entry.opId() == t.entry.opId() &&
         a.group == b.group && a.handle == b.handle;
}

}  // namespace

U32 keysOf(SmallWorld const& world) {
  U32 keys = 0;
  for (Operation const& o : world.alphabet) keys = std::max(keys, o.key + 1);
  return keys;
}

bool mayRename(SmallWorld const& world) {
  U32 const keys = keysOf(world);
  for (Operation const& o : world.alphabet) {
    if (o.step.what == Do::Fail) return false;
    if (o.step.key() == 0) continue;
    for (U32 key = 0; key < keys; ++key)
      if (std::none_of(world.alphabet.begin(), world.alphabet.end(),
                       [&](Operation const& other) { return other.key == key && alike(o, other); }))
        return false;
  }
  return world.symmetric;
}

}  // namespace Testing
