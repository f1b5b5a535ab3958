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

}  // namespace

// Names numbered by their first appearance.
template <class Name>
class CanonicalForm::Labels {
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

 private:
  bool renames_;
  std::vector<Name> names_;
};

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

// Whether the version of the configuration is not compared any more.
bool CanonicalForm::settled(EntryConfig const& entry, CState_s const* c) const {
  return !handlesShared_ && !givenVersions_ && c && c->opId >= entry.opId() && c->p.ti == Vantrel::noIndex;
}

U64 CanonicalForm::version(OpId opId) const {
  if (givenVersions_ || opId == OpId()) return opId.value();
  if (what_ == FormOf::WithoutOrderOfVersions) return opId.low();
  auto const at = std::lower_bound(versions_.begin(), versions_.end(), opId.value());
  return (static_cast<U64>(at - versions_.begin() + 1) << 16) | opId.low();
}

void CanonicalForm::readKey(Differ const& differ, U64 name, Key& out) const {
  EntryKey const key(name);
  FastState const& state = differ.state();
  EntryConfig const entry = differ.world().table().entry(key);
  CState_s const* const c = state.record(key);
  if (state.cachedRecord(key) != c) throw Broken("a stale prefetched record, key " + std::to_string(name));
  out.plain.clear();
  out.groups.clear();
  out.handles.clear();
  writeConfiguration(entry, c, out);
  if (c) writeRecord(*c, out);
  writePlaces(differ, key, out);
  out.blank = std::all_of(out.plain.begin(), out.plain.end(), [](char byte) { return byte == 0; });
}

void CanonicalForm::writeConfiguration(EntryConfig const& entry, CState_s const* c, Key& out) const {
  bool const present = !entry.empty();
  bool const wanted = present && !entry.isDel();
  bool const inHardware = wanted && c && c->opId >= entry.opId();
  append(out.plain, U64{present} | U64{wanted} << 1 | U64{inHardware} << 2 | U64{c != nullptr} << 3, 1);
  if (present) append(out.plain, entry.tableIndexs() ? small(entry.tableIndex(TableKey(0))) : nothing, 1);
  if (!wanted) return;
  append(out.plain, settled(entry, c) ? entry.opId().low() : version(entry.opId()), 8);
  append(out.plain, small(entry.prio()), 1);
  out.groups.push_back(entry.pg());
  out.handles.push_back(entry.hdl());
}

void CanonicalForm::writeRecord(CState_s const& c, Key& out) const {
  bool const marks = what_ != FormOf::WithoutChainMarks;
  append(out.plain, givenVersions_ ? c.opId.value() : c.opId.low(), 8);
  append(out.plain, version(c.p.opId), 8);
  append(out.plain, small(c.prio), 1);
  append(out.plain, small(c.sti), 1);
  append(out.plain, small(c.p.ti), 1);
  append(out.plain, static_cast<U64>(c.p.type) | U64{marks && c.p.open} << 2 | U64{marks && c.p.lost} << 3,
         1);
  out.groups.push_back(c.pg);
  out.handles.push_back(c.hdl);
}

// Where the key is listed, beside the indexes by position.
void CanonicalForm::writePlaces(Differ const& differ, EntryKey const& key, Key& out) {
  World const& world = differ.world();
  FastState const& state = differ.state();
  FastVantrelImpl const& engine = *world.engine();
  auto const& rings = *(engine.*memberOf(MixedRingsOfEngine{}));
  append(out.plain, placeIn(state.workq, key), 1);
  append(out.plain, placeIn(state.blocked, key), 1);
  append(out.plain, placeIn(rings.*memberOf(KeptRings{}), key), 1);
  append(out.plain, placeIn(rings.*memberOf(ClosingRings{}), key), 1);
  append(out.plain, world.frontEnd()->failedKey().find(key) != world.frontEnd()->failedKey().end(), 1);
  append(out.plain, static_cast<U64>(world.failures().times(key.value())), 1);
  auto const owned = std::count_if(engine.handleToKey().begin(), engine.handleToKey().end(),
                                   [&](auto const& owner) { return owner.second == key; });
  auto const handle = engine.keyToHandle().find(key);
  bool const mapped = handle != engine.keyToHandle().end();
  append(out.plain, static_cast<U64>(owned) << 1 | U64{mapped}, 1);
  if (mapped) out.handles.push_back(handle->second);
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
  writeOwners(differ, order, handles, bytes);
  writeRest(differ, bytes);
  if (walks_) writeSlots(differ, order, bytes);
  if (!best_.empty() && best_ <= bytes) return;
  best_ = std::move(bytes);
  naming_.keys = order;
  naming_.groups = groups.all(0);
  naming_.handles = handles.all(1);
}

// Who owns each handle; those that no key names are labelled by their owner.
void CanonicalForm::writeOwners(Differ const& differ, Naming::Names const& order, Labels<U64>& handles,
                                std::string& bytes) const {
  std::string owners(2 * Naming::most, '\0');
  for (U32 i = 0; i < keys_; ++i)
    for (auto const& [handle, key] : differ.world().engine()->handleToKey())
      if (key.value() == U64{order[i]} + 1) owners.at(handles.of(handle)) = static_cast<char>(i + 1);
  bytes += owners;
}

// The table's slots with the keys in them, and the free ones in the order in which they are used again. A
// walk over the table goes by them.
void CanonicalForm::writeSlots(Differ const& differ, Naming::Names const& order, std::string& bytes) {
  Table const& table = differ.world().table();
  for (auto const& slot : table.*memberOf(Slots{})) {
    auto const place = std::find(order.begin(), order.end(), slot.record.key().value() - 1);
    append(bytes, slot.change == 0 ? 0 : static_cast<U64>(place - order.begin()) + 1, 1);
  }
  append(bytes, nothing, 1);
  for (U32 slot : table.*memberOf(FreeSlots{})) append(bytes, slot, 1);
}

// What belongs to no key.
void CanonicalForm::writeRest(Differ const& differ, std::string& bytes) {
  World const& world = differ.world();
  auto const wakeUp = world.wheel().earliest();
  append(bytes, wakeUp ? 1 + static_cast<U64>(std::llround((*wakeUp - world.wheel().now()) * 10)) : 0, 4);
  append(bytes, world.frontEnd()->retryTimerSet(), 1);
  append(bytes, differ.state().chains.*memberOf(LostClaims{}), 1);
  append(bytes, differ.model().lostInDrain() > 0, 1);  // idle claims are no error from then on
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
