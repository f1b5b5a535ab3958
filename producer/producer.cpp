// SPDX-License-Identifier: Apache-2.0
#include "producer/producer.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <limits>
#include <utility>
#include <vector>

#include "producer/acknowledgements.h"

namespace Vantrel {

// What must be known of all records at once.
struct VANTREL_LOCAL Producer::Ledger {
  // A key that went without acknowledgement: the agent may still have it.
  struct Departed {
    U16 pg;
    U32 prio;
    U16 low;
  };

  boost::unordered_flat_map<U32, U64> owner;  // handle -> key
  boost::unordered_flat_map<U64, Departed> departed;
  OpId greatest;        // version
  U64 greatestKey = 0;  // in either table
  U32 lastHandle = 0;   // given or met, whichever is greater

  void note(EntryConfig const& record) {
    owner[record.hdl()] = record.key().value();
    greatest = std::max(greatest, record.opId());
    greatestKey = std::max(greatestKey, record.key().value());
    lastHandle = std::max(lastHandle, record.hdl());
  }
  void note(EntryStatus const& status) {
    if (status.opId() < OpId::deleteAcknowledge()) greatest = std::max(greatest, status.opId());
    greatestKey = std::max(greatestKey, status.key().value());
  }
  U32 freeHandle() const {
    U32 handle = lastHandle + 1;  // wraps to the smallest after the greatest
    while (handle == 0 || owner.contains(handle)) ++handle;
    return handle;
  }
};

namespace {

using Rule = ProducerRule;

// Each key of the table with its record. Damage of the index passes through: there may be more keys.
template <class R, class Read, class Visit>
void walk(Shoal::Table<R> const& table, Read read, Visit visit) {
  for (auto place = table.first(); place; place = table.next(*place)) visit(place->key, read(place->key));
}

// The status table is another's: what is damaged there is as good as not acknowledged.
template <class Visit>
void walkStatus(TableStatus const& table, Visit visit) {
  try {
    walk(
        table, [&](EntryKey key) { return readStatus(table, key); }, visit);
  } catch (Pallo::CorruptionDetectedException const& damage) {
    table.corruptionDetected(damage.what());
  }
}

[[noreturn]] void refuse(Rule rule, EntryKey key, std::string const& values) {
  throw BrokenRule(rule, key, values);
}

void checkShape(EntryConfig const& entry, Mapping const& mapping) {
  if (entry.isDel()) refuse(Rule::NoDeleteMarker, entry.key(), "it carries one");
  if (entry.tableIndexs() != 1)
    refuse(Rule::OneTableIndex, entry.key(), fmt::format("it has {}", entry.tableIndexs()));
  if (auto const wrong = mapping.violation(entry.pg(), entry.tableIndex(TableKey(0))))
    refuse(Rule::Mapping, entry.key(), *wrong);
}

void checkConstants(EntryConfig const& before, EntryConfig const& entry) {
  if (entry.hdl() != before.hdl())
    refuse(Rule::ConstantHandle, entry.key(),
           fmt::format("it has handle {}, not {}", before.hdl(), entry.hdl()));
  if (entry.pg() != before.pg())
    refuse(Rule::ConstantGroup, entry.key(),
           fmt::format("it is in group {}, not {}", before.pg(), entry.pg()));
  if (entry.prio() != before.prio())
    refuse(Rule::ConstantPriority, entry.key(),
           fmt::format("it has priority {}, not {}", before.prio(), entry.prio()));
}

void checkLowPart(EntryConfig const& before, EntryConfig const& entry, std::optional<OpId> programmed) {
  bool const sameContent = before.dataWords() == entry.dataWords();
  U16 const low = entry.opId().low();
  if (sameContent && low != before.opId().low())
    refuse(Rule::LowPartStays, entry.key(), fmt::format("{:#06x} became {:#06x}", before.opId().low(), low));
  if (!sameContent && low == before.opId().low())
    refuse(Rule::LowPartChanges, entry.key(), fmt::format("it is still {:#06x}", low));
  if (!sameContent && programmed && programmed->low() == low)
    refuse(Rule::LowPartChanges, entry.key(),
           fmt::format("{:#06x} is that of version {}, which may still be programmed", low,
                       programmed->value()));
}

EntryConfig withPosition(EntryConfig const& from, OpId opId, U32 ti) {
  EntryConfig entry(from.key(), opId, from.hdl(), from.pg(), from.prio());
  entry.tableIndexIs(TableKey(0), ti);
  for (unsigned i = 0; i < from.datas(); ++i) entry.dataIs(DataKey(i), from.data(DataKey(i)));
  return entry;
}

}  // namespace

Producer::Producer(Ostra::Ptr<TableConfig> config, Ostra::Ptr<TableStatus const> status, Mapping mapping,
                   U64 writesBefore)
    : config_(std::move(config)),
      status_(std::move(status)),
      mapping_(mapping),
      ledger_(std::make_unique<Ledger>()) {
  ledger_->greatest = OpId(writesBefore << 16);
  noteAll(writesBefore);
}

// The handle of a damaged record is not above the number of writes, if one like this object chose it.
void Producer::noteAll(U64 writesBefore) {
  bool damaged = false;
  auto const read = [this](EntryKey key) { return recordOf(key); };
  walk(*config_, read, [&](EntryKey key, EntryConfig const& record) {
    damaged |= record == EntryConfig() && key != EntryKey();
    if (record == EntryConfig())
      ledger_->greatestKey = std::max(ledger_->greatestKey, key.value());
    else
      ledger_->note(record);
  });
  if (damaged)
    ledger_->lastHandle = std::max(
        ledger_->lastHandle, static_cast<U32>(std::min<U64>(writesBefore, std::numeric_limits<U32>::max())));
  if (status_) walkStatus(*status_, [this](EntryKey, EntryStatus const& record) { ledger_->note(record); });
}

Producer::~Producer() = default;

EntryConfig Producer::recordOf(EntryKey key) const {
  try {
    return config_->entry(key);
  } catch (Pallo::Exception const& damage) {
    config_->corruptionDetected(damage.what());
    return {};
  }
}

bool Producer::holds(EntryKey key) const {
  try {
    return !(config_->entry(key) == EntryConfig());
  } catch (Pallo::Exception const&) {
    return true;
  }
}

std::optional<OpId> Producer::statusOf(EntryKey key) const {
  if (!status_) return std::nullopt;
  EntryStatus const status = readStatus(*status_, key);
  if (status == EntryStatus()) return std::nullopt;
  return status.opId();
}

OpId Producer::nextVersion(EntryKey key, U16 low) const {
  U64 const high = ledger_->greatest.high() + 1;
  OpId const version((high << 16) | low);
  if (version <= ledger_->greatest || version >= OpId::deleteAcknowledge())
    refuse(Rule::VersionRange, key, fmt::format("version {} is the last", ledger_->greatest.value()));
  return version;
}

// Differs from that of every version which may still be programmed with another content. Counting up a key's
// changes does it: before a low part comes again, the high part has risen by more than the engine takes for
// "a little further on".
U16 Producer::lowPart(EntryConfig const& before, Wish const& wish) const {
  if (before.tableIndexs() != 0) {
    bool const same = std::ranges::equal(before.dataWords().elements(), wish.data);
    return static_cast<U16>(before.opId().low() + (same ? 0 : 1));
  }
  auto const gone = ledger_->departed.find(wish.key.value());
  if (gone != ledger_->departed.end()) return static_cast<U16>(gone->second.low + 1);
  auto const left = statusOf(wish.key);
  if (left && *left < OpId::deleteAcknowledge()) return static_cast<U16>(left->low() + 1);
  return static_cast<U16>(ledger_->greatest.high() + 1);
}

OpId Producer::put(Wish const& wish) {
  EntryConfig const before = recordOf(wish.key);
  OpId const version = nextVersion(wish.key, lowPart(before, wish));
  U32 const handle = before.tableIndexs() != 0 ? before.hdl() : ledger_->freeHandle();
  EntryConfig entry(wish.key, version, handle, wish.pg, wish.prio);
  entry.tableIndexIs(TableKey(0), wish.ti);
  for (unsigned i = 0; i < wish.data.size(); ++i) entry.dataIs(DataKey(i), wish.data[i]);
  replace(before, entry);
  return version;
}

void Producer::put(EntryConfig const& entry) { replace(recordOf(entry.key()), entry); }

void Producer::replace(EntryConfig const& before, EntryConfig const& entry) {
  checkChange(before, entry);
  write(entry);
  ledger_->departed.erase(entry.key().value());
}

OpId Producer::move(EntryKey key, U32 ti) {
  EntryConfig const before = recordOf(key);
  if (before.tableIndexs() == 0) refuse(Rule::KnownKey, key, "it is not in the table");
  EntryConfig const entry = withPosition(before, nextVersion(key, before.opId().low()), ti);
  replace(before, entry);
  return entry.opId();
}

void Producer::markDeleted(EntryKey key) {
  EntryConfig record = recordOf(key);
  if (!holds(key)) refuse(Rule::KnownKey, key, "it is not in the table");
  if (record.isDel()) return;
  if (record == EntryConfig())
    record = EntryConfig(key, nextVersion(key, 0), ledger_->freeHandle(), 0, 0);
  else
    record = withPosition(record, nextVersion(key, record.opId().low()), record.tableIndex(TableKey(0)));
  record.isDelIs(true);
  write(record);
}

void Producer::remove(EntryKey key) {
  EntryConfig const record = recordOf(key);
  if (record == EntryConfig()) return config_->entryDel(key);  // if it is there, it is damaged
  if (!(record.isDel() && acknowledged(key)))
    ledger_->departed[key.value()] = {record.pg(), record.prio(), record.opId().low()};
  ledger_->owner.erase(record.hdl());
  config_->entryDel(key);
}

U64 Producer::removeAcknowledged() {
  std::vector<EntryKey> done;
  auto const read = [this](EntryKey key) { return recordOf(key); };
  walk(*config_, read, [&](EntryKey key, EntryConfig const& record) {
    if (record.isDel() && acknowledged(key)) done.push_back(key);
  });
  for (EntryKey const key : done) remove(key);
  return done.size();
}

std::optional<OpId> Producer::awaited(EntryKey key) const {
  EntryConfig const record = recordOf(key);
  if (record == EntryConfig()) return std::nullopt;
  return record.isDel() ? OpId::deleteAcknowledge() : record.opId();
}

bool Producer::acknowledged(EntryKey key) const {
  auto const wanted = awaited(key);
  return wanted && statusOf(key) == wanted;
}

EntryKey Producer::freshKey() const {
  U64 key = ledger_->greatestKey + 1;
  while (key == 0 || holds(EntryKey(key))) ++key;
  return EntryKey(key);
}

void Producer::check(EntryConfig const& entry) const { checkChange(recordOf(entry.key()), entry); }

void Producer::checkChange(EntryConfig const& before, EntryConfig const& entry) const {
  checkShape(entry, mapping_);
  if (entry.opId() >= OpId::deleteAcknowledge())
    refuse(Rule::VersionRange, entry.key(), fmt::format("version {}", entry.opId().value()));
  if (entry.opId() <= ledger_->greatest)
    refuse(Rule::RisingVersion, entry.key(),
           fmt::format("version {} is not above {}", entry.opId().value(), ledger_->greatest.value()));
  if (auto const owner = ledger_->owner.find(entry.hdl());
      owner != ledger_->owner.end() && owner->second != entry.key().value())
    refuse(Rule::UniqueHandle, entry.key(),
           fmt::format("handle {} is that of key {}", entry.hdl(), owner->second));
  if (!(before == EntryConfig())) {
    checkConstants(before, entry);
    checkLowPart(before, entry, statusOf(entry.key()));
  } else if (auto const gone = ledger_->departed.find(entry.key().value()); gone != ledger_->departed.end()) {
    EntryConfig const ghost(entry.key(), OpId(), entry.hdl(), gone->second.pg, gone->second.prio);
    checkConstants(ghost, entry);
  }
}

void Producer::write(EntryConfig const& entry) {
  config_->entryIs(entry);
  ledger_->note(entry);
}

}  // namespace Vantrel
