// SPDX-License-Identifier: Apache-2.0
// Loader: brings the configuration table to a rule set, changing as little as possible and never more at a
// time than the hardware can follow without a break.
//
//   Loader loader(producer, acknowledgements, size);
//   loader.start(rules);
//   while (!loader.finished()) { ...wait until acknowledgements.done()...; loader.advance(); }
//
// An entry that the hardware refuses is not awaited, and what it was to take the place of stays.
//
// One round: rules that are new, or that come at another rank, get new keys; entries that are in their way
// move; when every wanted entry is acknowledged, the old keys are marked for delete, and once that is
// acknowledged their records go. If old and new do not fit together, entries without a successor go first,
// and the others change in as many rounds as the room asks for; a table without any free position has to give
// up an entry before it can take one.
//
// Invariants: after each round all entries have different positions, in the order of their priorities inside
//   each group: an engine that programs make-before-break reaches that from anything it can hold. All that
//   the loader knows lies in the table: after a crash at any moment a new loader goes on from there.
// Ownership: refers to producer and acknowledgements.
// Threading: one thread.
// Errors: std::runtime_error, before anything is written, for rules that do not fit and for a table that
//   holds entries of another kind.
#pragma once

#include <functional>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "hw/acl/rule.h"
#include "producer/acknowledgements.h"
#include "producer/producer.h"

namespace Acl {

class Loader {
 public:
  struct Counts {
    U64 added = 0;
    U64 updated = 0;
    U64 moved = 0;
    U64 deleted = 0;  // marked for delete
    U64 kept = 0;     // entries of the table that stay
  };

  // `size`: positions 0 to size-1 may be used.
  Loader(Vantrel::Producer& producer, Vantrel::Acknowledgements& acknowledgements, U32 size);

  // Called for each entry that is to be acknowledged, when it has been written and before it is awaited. May
  // dispatch the status table.
  void onWrittenIs(std::function<void(Vantrel::EntryKey)> handler) { handler_ = std::move(handler); }

  // The hardware refuses this key's entry, as it is wanted or in an older version. Before start(): it is
  // written again. Later: it is given up, unless a later round writes it.
  void refusedIs(Vantrel::EntryKey key) { refused_.insert(key.value()); }

  // Called once, before anything is written, with the number of entries that the table has and of those that
  // are to go without a successor of the same match. What it throws ends the load.
  void onComparedIs(std::function<void(U64 present, U64 leaving)> handler) { compared_ = std::move(handler); }

  // Compares and writes the first round.
  void start(std::vector<Rule> const& rules);
  // Goes on when everything that was written is acknowledged.
  void advance();
  // Nothing is left to write or to remove.
  bool finished() const { return stage_ == Stage::Finished; }
  // For a caller that is not going to wait: marks the entries without a successor. What remains to be done is
  // done by the next loader.
  void leave();

  Counts const& counts() const { return counts_; }
  // The key of each rule, in their order; meaningful when finished.
  std::vector<Vantrel::EntryKey> keys() const;
  // Old entries that are still to be deleted.
  U64 remaining() const;

 private:
  enum class Stage { Idle, Clearing, Putting, Deleting, Confirming, Finished };
  enum class Presence { Absent, Fresh, Present };  // Fresh: chosen for this round

  // A wanted rule.
  struct Target {
    Rule rule;
    U32 prio = 0;
    Presence presence = Presence::Absent;
    Vantrel::EntryKey key;
    U16 pg = 0;
    U32 ti = 0;
    bool update = false;     // the entry holds another action
    bool contested = false;  // another record names its position
    bool unawaited = false;  // found in the table
  };
  // An entry that has to go.
  struct Old {
    Vantrel::EntryKey key;
    U16 pg = 0;
    U32 prio = 0;
    U32 ti = 0;
    std::optional<std::size_t> successor;  // the target with the same match
    bool marked = false;
  };
  struct Record {
    Vantrel::EntryKey key;
    Rule rule;
    U16 pg = 0;
    U32 prio = 0;
    U32 ti = 0;
    bool contested = false;
  };
  // What needs a place in its group.
  struct Item {
    U32 prio;
    std::optional<U32> offset;  // where it is, or the place it takes over
    bool wanted;                // a target, else an old entry
    std::size_t index;          // of the target or old entry
    U32 ti;                     // the position it gets
  };
  using Group = std::vector<Item>;  // in wanted order
  struct Move {
    Item item;
    U32 from;  // position
  };

  std::vector<Record> readTable();
  void compare(std::vector<Record> const& records, std::vector<Rule> const& rules);
  void keep(Target& target, Record const& record);
  void giveUpSurplus();
  void pairSuccessors(std::vector<Record> const& records);

  void begin();
  void putRound();
  void chooseFresh();
  std::vector<Group> arrange() const;
  static void tradePlaces(Group& group);
  void layOutGroup(Group& group, U16 pg) const;
  void writeMoves(std::vector<Group> const& groups);
  std::optional<U32> positionOf(Item const& item) const;
  static std::vector<std::size_t> leavingFirst(std::vector<Move> const& moves,
                                               std::vector<std::size_t>& early);
  void writeMove(Item const& item);
  void writeTargets(std::vector<Group> const& groups);
  bool needsRenewal(Target const& target) const;
  bool isRefused(Vantrel::EntryKey key) const { return refused_.contains(key.value()); }
  void renew(Target& target);
  void change(Target& target, U32 ti);
  void add(Target& target, U32 ti);
  Vantrel::OpId put(Target const& target, U32 ti);
  void written(Target& target, Vantrel::OpId opId);
  void awaitUnwritten();
  void confirm();
  template <class Visit>
  void forTargets(std::vector<Group> const& groups, Visit visit);

  template <class Which>
  U64 mark(Which which);
  U64 markDamaged();
  U64 markReady();
  U64 relieveOverfull();
  void removeMarked();

  U64 absent() const;
  U64 room() const;

  Vantrel::Producer& producer_;
  Vantrel::Acknowledgements& acknowledgements_;
  std::function<void(Vantrel::EntryKey)> handler_;
  std::function<void(U64, U64)> compared_;
  Stage stage_ = Stage::Idle;
  Counts counts_;
  bool agentWorks_ = false;                 // an agent has acknowledged something
  std::vector<Target> targets_;             // in order of the rules
  std::vector<Old> old_;                    // by priority, then position
  std::vector<Vantrel::EntryKey> damaged_;  // records that cannot be read
  std::vector<Vantrel::EntryKey> marked_;   // records to remove when acknowledged
  std::unordered_set<U64> refused_;         // keys
  std::vector<U32> capacity_;               // of each group
  std::vector<U32> filled_;                 // entries of each group, marked ones not counted
};

}  // namespace Acl
