// SPDX-License-Identifier: Apache-2.0
// The reference model: front end, engine, tables and clock as flat lists, every question answered by a full
// scan. It is written to be checked by reading, not to be fast, and shares nothing with the engine but the
// record types.
//
// It has no index: the occupant of a position, its waiter and its nearest neighbours are found by looking at
// every record, so that it cannot have two views that disagree.
//
// Where the engine may choose (the next candidate of the deadlock check, which of several rings is broken
// first, the order of a walk and of the clean-up), the model is given the engine's choice and checks that it
// was a legal one.
//
// Invariants: after each hardware call no two programmed records share a position, and in each group
//   priorities do not decrease along the precedence order; after each step no two records wait for one
//   position.
// Errors: Illegal, when a choice was not legal or an invariant breaks; Fatal, when the engine's process would
//   end.
#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "testing/scenario.h"

namespace Testing {

class Illegal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The assertion that the engine would fail.
class Fatal : public Illegal {
 public:
  using Illegal::Illegal;
};

// What the engine chose where it may choose.
struct Choices {
  std::vector<U64> candidates;  // of the deadlock check, in the order in which they were taken
  std::vector<U64> victims;     // of rings through a priority-blocked entry, in the order of their deletes
  std::vector<U64> order;       // keys of a full walk or of the cleanup, in the order of the visit
  bool foreseen = false;        // the engine has not run yet: the model chooses, the longest blocked first
};

// Why a record waits, as in the engine's records.
enum class Wait : U8 { None = 0, Occupied = 1, Priority = 2 };

constexpr U32 nowhere = 0xFFFFFFFF;

struct ModelRecord {
  U64 key = 0;
  U64 opId = 0;  // programmed
  U32 hdl = 0;
  U32 prio = 0;
  U16 pg = 0;
  U32 at = nowhere;  // position programmed
  U64 waitOpId = 0;
  U32 waitsFor = nowhere;  // position waited for
  Wait why = Wait::None;
};

class Model {
 public:
  explicit Model(EngineChoice const& engine);

  // Both handle maps emptied, as through their writers. / No dependants fail from now on.
  void forgetHandles() {
    handleToKey_.clear();
    keyToHandle_.clear();
  }
  void forgetFailures() { fails_.clear(); }

  // What creating the front end does: one walk of the empty table.
  void start();
  void run(Step const& step, Choices const& choices);

  // Everything that reached the hardware client and the status table since the last clear.
  std::vector<Event> events;

  Snapshot const& snapshot() const { return snapshot_; }
  Counters counters() const;
  std::vector<ModelRecord> const& records() const { return records_; }
  std::vector<U64> const& workq() const { return workq_; }
  std::vector<U64> const& blocked() const { return blocked_; }
  std::vector<U64> const& failed() const { return failed_; }
  std::map<U64, U64> const& handleToKey() const { return handleToKey_; }
  std::map<U64, U64> const& keyToHandle() const { return keyToHandle_; }
  std::map<U64, Vantrel::EntryConfig> const& table() const { return table_; }
  std::map<U64, U64> const& statuses() const { return statuses_; }
  std::optional<double> wakeUp() const { return wakeUp_; }
  bool dirty() const { return dirty_; }
  // How many exceptions left a drain or the breaking of a ring: after one, a wake-up or a victim may be lost.
  U64 lostInDrain() const { return lostInDrain_; }
  // How many claims ended without their key being queued: beaten by a newer claim, or their position taken.
  U64 claimsLost() const { return claimsLost_; }
  // How often the deadlock check had more than one blocked key to go on with.
  U64 choices() const { return choicesMade_; }

  // The nearest programmed records of any group beside a place in the precedence order; null when there is
  // none.
  ModelRecord const* below(U16 pg, U32 ti) const;
  ModelRecord const* above(U16 pg, U32 ti) const;
  ModelRecord const* occupant(U32 ti) const;
  // Whether a record of this group and priority would be out of order at a free position.
  ModelRecord const* outOfOrderWith(ModelRecord const& record, U32 ti) const;

 private:
  struct GiveUp {};  // dependants could not be programmed

  // The front end.
  void frontEndHandleEntry(U64 key);
  void fullWalk(Choices const& choices);
  void scheduleRetry(U64 key);
  void retryPass();
  void advanceClock(double seconds);
  void requestDebug(U32 version);
  void setAttribute(Step const& step);

  // The engine base.
  void handleEntry(U64 key);
  bool dispatch(U64 key);
  bool dispatchDelete(U64 key, bool ack);
  bool dispatchEntry(Vantrel::EntryConfig const& entry, U64 key);
  Vantrel::EntryConfig readWithDependants(U64 key);
  bool programDependants(U64 key);

  // The fast engine.
  bool conflicts(Vantrel::EntryConfig const& entry);
  void claim(ModelRecord& r, Vantrel::EntryConfig const& entry, U32 ti, Wait why);
  bool processEntry(Vantrel::EntryConfig const& entry);
  void moveRecord(U64 key, U32 to, Vantrel::EntryConfig const& entry);
  void wakeMoveRange(ModelRecord const& moved, U32 from, U32 to);
  bool processDelete(U64 key, bool deadlock, bool ack);
  void wakeDeleteRange(ModelRecord const& gone);
  void wakeBetween(U16 pg, U64 lo, U64 hi);
  void drain();
  void checkDeadlock();
  void breakRings();
  bool ringFrom(U64 start, std::vector<U64>& visited);
  void breakRing(U64 start);
  void takeOutAndBack(U64 key);
  void breakMixedRingsIs(bool v);
  void breakMixedRings();
  std::optional<U64> nextMixedVictim();
  std::vector<U64> cheapestOfEachRing() const;
  std::vector<ModelRecord const*> ringOf(ModelRecord const& start) const;
  ModelRecord const* obstacleOf(ModelRecord const& r) const;
  bool mayStillGo(ModelRecord const& r) const;
  bool contradict(ModelRecord const& a, ModelRecord const& b) const;
  void retry(U64 key);
  void answerDebug();
  void cleanUp(Choices const& choices);

  // Small facts.
  U32 precedence(U16 pg, U32 ti) const;
  U32 positionOf(U32 precedence) const;
  Vantrel::EntryConfig read(U64 key) const;
  ModelRecord* find(U64 key);
  ModelRecord* waiter(U32 ti);
  void endClaim(ModelRecord& r);
  void wake(U32 ti);
  U64 nextCandidate();
  void hardware(EventKind kind, Vantrel::EntryConfig const& entry);
  void statusIs(U64 key, U64 opId);
  void statusDel(U64 key);
  void flush();
  void checkHardware() const;
  void checkClaims() const;

  EngineChoice engine_;
  U32 shift_;

  std::map<U64, Vantrel::EntryConfig> table_;
  std::map<U64, U64> statuses_;
  std::map<U64, std::int64_t> fails_;
  double now_ = 0.0;

  bool smInitialized_ = true;
  bool initialFlushed_ = false;
  bool retryTimerSet_ = false;
  double retryPeriod_ = 10.0;
  std::optional<double> wakeUp_;
  std::vector<U64> failed_;  // ascending
  U32 tableCounter_ = 1;
  U32 flushCounter_ = 0;

  bool initialized_ = true;
  U32 retryDepsMaxCnt_ = 1000;
  U64 failedDepCnt_ = 0;
  bool debugEnabled_ = false;
  bool dirty_ = true;
  bool alwaysProcessPending_ = false;
  U32 deadlockCount_ = 0;
  bool breakMixedRings_ = false;
  U32 numMixedRings_ = 0;
  std::map<U64, U64> handleToKey_;
  std::map<U64, U64> keyToHandle_;

  std::vector<ModelRecord> records_;
  std::vector<U64> workq_;
  std::vector<U64> blocked_;

  U32 debugVersion_ = 0;
  Snapshot snapshot_;

  Choices const* choices_ = nullptr;  // of the step being run
  std::size_t candidatesTaken_ = 0;
  std::size_t victimsTaken_ = 0;
  U64 lostInDrain_ = 0;
  U64 claimsLost_ = 0;
  U64 choicesMade_ = 0;
};

}  // namespace Testing
