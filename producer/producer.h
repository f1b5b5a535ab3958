// SPDX-License-Identifier: Apache-2.0
// Producer: writes wanted entries into the configuration table and keeps the rules that every producer must
// keep. docs/guide-producer.md says what they are, and what happens otherwise.
//
//   Producer producer(config, status, Mapping::fast());
//   OpId v = producer.put({.key = key, .pg = 0, .prio = 10, .ti = 5, .data = words});
//   ...                                   // later: producer.acknowledged(key)
//   producer.markDeleted(key);
//   ...                                   // and, when producer.acknowledged(key) again:
//   producer.remove(key);
//
// Invariants: a refused write leaves the table as it was. All it needs to know lies in the two tables: a
//   producer that was killed at any moment goes on with a new object. Versions this object chooses rise;
//   their low 16 bits change with match and action and only with them. Handles this object chooses are free,
//   and are not given again before all others had their turn. The caller's part: one position for one key.
//   Two keys may name the same position while a swap is being written, but the key that is to have it must
//   have the greater OpId: the engine drops the older claim and never looks again. A key that was removed
//   without acknowledgement may come back under another group or priority only after the agent has let go of
//   it; this object refuses that for keys it removed itself.
//   A damaged record is stepped over, and healed by the next write of its key: nothing is known of what it
//   held. An agent that has it programmed takes no other group, priority or handle for the key: mark it
//   deleted first.
// Ownership: holds references to both tables. The status table may still be empty, or null: nothing is
//   acknowledged.
// Threading: one thread.
// Cost: opening walks both tables once; a write is one read and one write of a record.
// Errors: BrokenRule for a refused write; what the table raises passes through.
#pragma once

#include <memory>
#include <optional>
#include <span>

#include "ostra/ptr.h"
#include "producer/broken_rule.h"
#include "vantrel/core/mapping.h"
#include "vantrel/core/tables.h"

namespace Vantrel {

class VANTREL_API Producer {
 public:
  // An entry without the version and the handle, which the producer chooses.
  struct Wish {
    EntryKey key;
    U16 pg = 0;
    U32 prio = 0;
    U32 ti = 0;                 // position
    std::span<U64 const> data;  // match and action, at most 64 words
  };

  // `writesBefore`: how many writes the configuration table has ever seen, if it counts them; versions start
  // above it, so that they rise even when every record has been removed meanwhile.
  Producer(Ostra::Ptr<TableConfig> config, Ostra::Ptr<TableStatus const> status, Mapping mapping,
           U64 writesBefore = 0);
  ~Producer();
  Producer(Producer const&) = delete;
  Producer& operator=(Producer const&) = delete;

  // Writes the wish with the next version; a key that is new gets a free handle.
  OpId put(Wish const& wish);
  // Writes the entry as it is, version and handle included.
  void put(EntryConfig const& entry);
  // Gives a key another position, or with the same one just a newer version. The low part of the version
  // stays.
  OpId move(EntryKey key, U32 ti);
  // Asks for the removal of the entry and for its acknowledgement. A key already marked stays as it is.
  void markDeleted(EntryKey key);
  // Takes the record out of the table: of a marked key once its removal is acknowledged, or, without any
  // acknowledgement, of a key that is simply no longer wanted. An absent key is no error.
  void remove(EntryKey key);
  // Removes the record of every marked key whose removal is acknowledged; returns how many.
  U64 removeAcknowledged();

  // What the key's record must find in the status table to be done: its version, or the mark of an
  // acknowledged delete; nothing for a key that is not in the table.
  std::optional<OpId> awaited(EntryKey key) const;
  // The status table holds exactly that.
  bool acknowledged(EntryKey key) const;

  // The status table holds anything at all.
  bool anyStatus() const { return status_ && status_->size() != 0; }

  // The configuration table has a record of the key, if only a damaged one.
  bool holds(EntryKey key) const;
  // A key above every key in either table.
  EntryKey freshKey() const;
  // What put() refuses, asked beforehand.
  void check(EntryConfig const& entry) const;

  Mapping const& mapping() const { return mapping_; }
  TableConfig const& config() const { return *config_; }

 private:
  struct Ledger;
  OpId nextVersion(EntryKey key, U16 low) const;
  U16 lowPart(EntryConfig const& before, Wish const& wish) const;
  std::optional<OpId> statusOf(EntryKey key) const;
  // The key's record, empty when there is none, or when it is damaged.
  EntryConfig recordOf(EntryKey key) const;
  void noteAll(U64 writesBefore);
  // `before`: what the table holds of the key.
  void replace(EntryConfig const& before, EntryConfig const& entry);
  void checkChange(EntryConfig const& before, EntryConfig const& entry) const;
  void write(EntryConfig const& entry);

  Ostra::Ptr<TableConfig> config_;
  Ostra::Ptr<TableStatus const> status_;
  Mapping mapping_;
  std::unique_ptr<Ledger> ledger_;
};

}  // namespace Vantrel
