// SPDX-License-Identifier: Apache-2.0
// Executor: makes hardware that is late, or fails, follow the engine's order.
//
//   engine --> add 7@4, move 3 5->6, delete 9@1 ...  --> [ queue ] --> write 7@4 | write 3@6, erase 3@5 | ...
//                                                            ^               |
//                                                            +-- completed --+--> status table
//
// To the engine it is a hardware client that does everything at once. The engine's order of calls is right
// for hardware that obeys; every prefix of it keeps the priority order. What is not done yet is queued, and
// other calls may overtake it under three rules:
//
//   1. The calls of one key are carried out one after another.
//   2. A write waits for every earlier erase, not done yet, of an entry that is at its position or that it
//      would contradict by priority.
//   3. While a call is under way, others are begun only as far as the driver can take several.
//
// That keeps the order. What is in hardware is a part of what the engine believes, but for erases not done.
// An entry that is written early or late agrees with everything that the engine believes at its call: with
// those by the engine's own check, and with the erases that are not done by rule 2. Whoever comes later
// agrees with it as long as the engine believes in it, and when the engine has withdrawn it, by rule 2 again.
//
// A missing entry breaks no order. So a write that is refused for good leaves its key out: the key is listed
// in failed(), its later calls are carried out as if it were absent, and its next version is tried again,
// also one that the engine only acknowledges because match and action are the same. An erase is never given
// up: whoever is to come to the position waits.
//
// Acknowledgements are written when their call is done. One that cannot be written (no space) is kept,
// replaced by a newer one of its key, and tried again.
//
// Entries that hardware holds from an earlier run are inherited (adoption.h): when the engine adds one where
// it already is, nothing is written.
//
// Invariants: at most one position holds a key, but for a move between its write and its erase. A key's
//   acknowledgements appear in the order of its calls.
// Ownership: refers to the driver; holds references to status table and wheel.
// Threading: the agent's event loop. The wheel must not be dispatched from inside a call.
// Cost: while nothing is queued, no look-up and no copy: where an entry is, the engine says with the call. A
//   queued call is copied once, and each completion looks through the queue: the agent must stop feeding the
//   engine while behind() is large. Of each refused entry a copy is kept.
// Errors: none of the hardware reach the engine. std::logic_error when an engine does not say where an entry
//   is that it updates, moves or deletes (programmedIs).
#pragma once

#include <memory>
#include <string>

#include "hw/driver.h"
#include "keel/timer_wheel.h"
#include "ostra/piecewise_map_fwd.h"
#include "vantrel/engine/vantrel_helper.h"

namespace Hw {

class VANTREL_API Executor : public Vantrel::VantrelHelper {
 public:
  using EntryConfig = Vantrel::EntryConfig;
  using EntryKey = Vantrel::EntryKey;
  using OpId = Vantrel::OpId;
  using Reasons = Ostra::PiecewiseMap<EntryKey, std::string>;
  using Versions = Ostra::PiecewiseMap<EntryKey, OpId>;

  class VANTREL_API Notifiee : public Ostra::NotifieeOf<Executor const> {
   public:
    virtual void onBehind() {}
    virtual void onFailed(EntryKey const&) {}
    virtual void onFailedOpId(EntryKey const&) {}
    virtual void onRetries() {}
    virtual void onProblem() {}
    virtual void onUnwritten() {}
  };

  // The engine's calls, by kind. An add of what hardware holds already is not an add, but adopted.
  struct Calls {
    U64 adopted = 0, adds = 0, updates = 0, moves = 0, deletes = 0, deadlockDeletes = 0, flushes = 0;
  };

  // `wheel`: its time paces what is tried again.
  Executor(std::string name, Ostra::Ptr<Vantrel::TableStatus> tableStatus, Driver& driver,
           Ostra::Ptr<Keel::TimerWheel const> wheel);
  ~Executor() override;

  // Calls that are not completed.
  U64 behind() const { return behind_; }
  // Keys whose entry the hardware refuses for good, and why.
  Reasons const& failed() const { return *failed_; }
  // The version of each of them that was refused, which tells an old refusal from that of a newer version.
  Versions const& failedOpId() const { return *failedOpId_; }
  // Calls that had to be made again.
  U64 retries() const { return retries_; }
  // What went wrong last and is tried again: told once a call, not at each try. Empty before the first.
  std::string const& problem() const { return problem_; }
  // Acknowledgements that could not be written yet.
  U64 unwritten() const { return unwritten_; }
  Calls const& calls() const { return calls_; }

  void addEntry(EntryConfig const& entry) override;
  void deleteEntry(EntryConfig const& entry) override;
  void deleteEntryDeadlock(EntryConfig const& entry) override;
  void moveEntry(EntryConfig const& entry) override;
  void updateEntry(EntryConfig const& entry) override;
  void delAck(EntryKey const& key) override;
  void delStatus(EntryKey const& key) override;
  void noopAck(EntryKey const& key, OpId const& opId) override;
  // When everything that is queued is done.
  void flush() override;

  // The position holds this entry from an earlier run; null when nobody knows which. Only before the engine's
  // first call, or between calls of eraseInherited().
  void inherit(U32 ti, EntryConfig const* entry);
  // Erases every inherited entry that the engine has not added where it is. Returns their number. Requires
  // that the engine added no other entry since inherit().
  U64 eraseInherited();
  // From now on nothing reaches hardware or the status table: the engine may be destroyed, and hardware goes
  // on as it is. What is queued is dropped.
  void detach();

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  class Queue;

  U64 adopted() const { return calls_.adopted; }
  U64 adds() const { return calls_.adds; }
  U64 updates() const { return calls_.updates; }
  U64 moves() const { return calls_.moves; }
  U64 deletes() const { return calls_.deletes; }
  U64 deadlockDeletes() const { return calls_.deadlockDeletes; }
  U64 flushes() const { return calls_.flushes; }

  std::unique_ptr<Reasons> const failed_;
  std::unique_ptr<Versions> const failedOpId_;
  U64 behind_ = 0;
  U64 retries_ = 0;
  U64 unwritten_ = 0;
  std::string problem_;
  Calls calls_;
  std::unique_ptr<Queue> const queue_;
};

}  // namespace Hw
