// SPDX-License-Identifier: Apache-2.0
// SimulatedTcam: a row of positions that checks every call as it is carried out.
//
// It stands behind an Executor, as a driver: then it may be late, busy, full or dead, as its attributes say,
// and its contents may outlive the process in a file. Or it stands behind an engine directly, as a hardware
// client that does every call at once and acknowledges it:
//
//   position     100    101    102    103    104        one priority group: precedence falls from left
//              | A 10 |      | B 10 |      | C 20 |     to right, and priorities must not decrease
//
//   addEntry      the position is free, the key is not in the row
//   moveEntry     the key is in the row, the new position is free; made there, then broken at the old one
//   updateEntry   the key is in the row
//   deleteEntry   the key is in the row at the position that the record names
//
// and after each call the nearest entries of the same group on both sides do not contradict the priority.
//
// A driver's write adds, updates or moves, by where the key is; a moved key is at two positions until the old
// one is erased.
//
// The key finds an entry, not the position of a record: an update before a move names the position that the
// entry is yet to reach (it is acknowledged at the move), and a delete record's group is always 0. Group and
// priority are those that the key came with; later records of the key do not change them.
//
// Invariants: positions(), the entries and the order index name the same entries; audit() compares them.
// Ownership: holds a reference to the status table (may be null: nothing is acknowledged), and the file of
//   its contents.
// Threading: the agent's event loop, which polls fd() when calls are late.
// Cost: logarithmic in the entries; one acknowledgement an operation.
// Errors: a broken rule is counted and handed to the violation handler, which by default throws it. When the
//   handler returns, a call that has nowhere to go (position, key) is dropped unacknowledged; one that breaks
//   the order is carried out and acknowledged, as hardware would do.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>

#include "hw/driver.h"
#include "keel/timerfd_wheel.h"
#include "ostra/piecewise_map_fwd.h"
#include "vantrel/engine/vantrel_helper.h"

namespace Hw {

enum class Rule {
  OnePosition,       // a record names exactly one position
  PositionInRow,     // which is one of the row's
  PositionFree,      // and, for an add or a move, free
  KeyAbsent,         // an added key is not in the row
  KeyPresent,        // a deleted, moved or updated key is
  PositionOfEntry,   // a delete names the position where the key is
  PrioritiesAscend,  // priorities of a group do not decrease along the row
};
VANTREL_API char const* toText(Rule rule);

// A broken rule; what() names the call, the rule, the entries and their positions.
class VANTREL_API Violation : public std::logic_error {
 public:
  Violation(Rule rule, std::string const& text) : std::logic_error(text), rule_(rule) {}
  Rule rule() const { return rule_; }

 private:
  Rule rule_;
};

class ContentsFile;

class VANTREL_API SimulatedTcam : public Vantrel::VantrelHelper, public Driver {
 public:
  using EntryConfig = Vantrel::EntryConfig;
  using EntryKey = Vantrel::EntryKey;
  using OpId = Vantrel::OpId;

  class VANTREL_API Notifiee : public Ostra::NotifieeOf<SimulatedTcam const> {
   public:
    virtual void onCounter() {}      // any of the counters
    virtual void onLatency() {}      // any of the latencies
    virtual void onMood() {}         // what a driver's calls meet
    virtual void onViolation() {}    // another one, lastViolation() tells
    virtual void onPosition(U32) {}  // an entry came to this position or left it
  };

  // What the row holds for a key.
  struct Entry {
    EntryKey key;
    OpId opId;  // of the configuration written last
    U16 pg;     // as the key came
    U32 prio;   // as the key came
    U32 ti;     // where it is
  };

  using ViolationHandler = std::function<void(Violation const&)>;

  // A row of `size` positions, 0 to size - 1.
  SimulatedTcam(std::string name, Ostra::Ptr<Vantrel::TableStatus> tableStatus, U32 size);
  ~SimulatedTcam() override;

  // Null puts the default back, which throws the violation.
  void violationHandlerIs(ViolationHandler handler);

  U32 size() const { return size_; }
  // Who sits where, left to right.
  std::map<U32, EntryKey> const& positions() const { return positions_; }
  std::optional<Entry> entry(EntryKey const& key) const;
  std::optional<Entry> at(U32 ti) const;
  U64 entries() const { return positions_.size(); }

  // Microseconds that a driver's call takes. The write of a move takes all of a move's time.
  U32 addLatency() const { return latency_.add; }
  U32 updateLatency() const { return latency_.update; }
  U32 moveLatency() const { return latency_.move; }
  U32 deleteLatency() const { return latency_.del; }
  void addLatencyIs(U32 us) { scalarIs("addLatency", latency_.add, us, &Notifiee::onLatency); }
  void updateLatencyIs(U32 us) { scalarIs("updateLatency", latency_.update, us, &Notifiee::onLatency); }
  void moveLatencyIs(U32 us) { scalarIs("moveLatency", latency_.move, us, &Notifiee::onLatency); }
  void deleteLatencyIs(U32 us) { scalarIs("deleteLatency", latency_.del, us, &Notifiee::onLatency); }
  // All four at once.
  void latencyIs(U32 us);

  // The share of a driver's calls that end so, from 0 to 1: busy, and worth another try; refused for good;
  // unknown, of which half are carried out. They throw Ostra::AttributeException for another number.
  double busyRate() const { return mood_.busy; }
  double refusedRate() const { return mood_.refused; }
  double unknownRate() const { return mood_.unknown; }
  void busyRateIs(double share) { rateIs("busyRate", mood_.busy, share); }
  void refusedRateIs(double share) { rateIs("refusedRate", mood_.refused, share); }
  void unknownRateIs(double share) { rateIs("unknownRate", mood_.unknown, share); }
  // A driver's write to a free position is refused when so many are held. At first: size().
  U32 capacity() const { return mood_.capacity; }
  void capacityIs(U32 entries) { scalarIs("capacity", mood_.capacity, entries, &Notifiee::onMood); }
  // From its call of this number on the hardware is dead: nothing is carried out or answered. 0: it lives.
  U64 diesAt() const { return mood_.diesAt; }
  void diesAtIs(U64 call) { scalarIs("diesAt", mood_.diesAt, call, &Notifiee::onMood); }
  // How many late calls it takes at once.
  U32 atOnce() const { return mood_.atOnce; }
  void atOnceIs(U32 calls) { scalarIs("atOnce", mood_.atOnce, calls, &Notifiee::onMood); }

  // From now on the file has the contents. What it has from an earlier run is in the row now; entries beyond
  // the row are gone. Returns their number. The row must be empty. Throws as ContentsFile does.
  U64 contentsFileIs(std::string const& path);

  // Readable when late calls are due; dispatch() completes them.
  int fd() const { return wheel_->fd(); }
  void dispatch() { wheel_->dispatch(); }

  // A driver's calls that arrived.
  U64 writes() const { return count_.writes; }
  // By what they did, or were to do. An engine's calls that arrived, broken rules included.
  U64 adds() const { return count_.adds; }
  U64 updates() const { return count_.updates; }
  U64 moves() const { return count_.moves; }
  U64 deletes() const { return count_.deletes; }
  U64 deadlockDeletes() const { return count_.deadlockDeletes; }
  U64 flushes() const { return count_.flushes; }
  // Rules broken.
  U64 violations() const { return count_.violations; }
  // What the last one said, empty before the first.
  std::string const& lastViolation() const { return lastViolation_; }

  void addEntry(EntryConfig const& entry) override;
  void deleteEntry(EntryConfig const& entry) override;
  void deleteEntryDeadlock(EntryConfig const& entry) override;
  void moveEntry(EntryConfig const& entry) override;
  void updateEntry(EntryConfig const& entry) override;
  void flush() override;

  Outcome write(EntryConfig const& entry, U32 ti, U64 token) override;
  Outcome erase(EntryKey const& key, U32 ti, U64 token) override;
  std::size_t mostAtOnce() const override { return mood_.atOnce; }
  std::optional<std::optional<Held>> readBack(U32 ti) override;
  void contents(Visitor const& visit) override;

  // The first inconsistency between the indexes, or the first two entries of a group that are in the wrong
  // order, as a sentence; empty when all is well. Walks everything.
  std::string audit() const;

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  struct Latency {
    U32 add = 0, update = 0, move = 0, del = 0;
  };
  struct Mood {
    double busy = 0, refused = 0, unknown = 0;
    U32 capacity;
    U64 diesAt = 0;
    U32 atOnce = 1;
  };
  struct Count {
    U64 adds = 0, updates = 0, moves = 0, deletes = 0, deadlockDeletes = 0, flushes = 0, violations = 0,
        writes = 0;
  };
  class Alarm;
  // A driver's call: an erase has no entry.
  struct Step {
    EntryKey key;
    U32 ti;
    EntryConfig const* entry;
  };

  void countOne(std::string_view name, U64& counter) {
    scalarIs(name, counter, counter + 1, &Notifiee::onCounter);
  }
  static std::string describe(Entry const& entry);
  // Counts a broken rule and tells the handler. Always false, so that a check reads as one expression.
  bool broken(Rule rule, std::string const& text);
  bool canPlace(char const* call, EntryConfig const& record);
  bool isFree(char const* call, EntryKey const& key, U32 ti);
  Entry* find(char const* call, EntryConfig const& record);
  bool namesOnePosition(char const* call, EntryConfig const& record);
  using Order = std::map<std::pair<U16, U32>, U32>;
  void checkOrder(char const* call, Order::const_iterator here);
  void outOfOrder(char const* call, U32 left, U32 right);
  Order::iterator reordered(Entry const& entry, U32 from);
  void remove(char const* call, EntryConfig const& record);
  void acknowledge(EntryKey const& key, OpId const& opId);

  // As a driver (simulated_driver.cpp).
  void rateIs(std::string_view name, double& rate, double share);
  bool isDead() const { return mood_.diesAt != 0 && count_.writes >= mood_.diesAt; }
  Outcome answer(U64 token, U32 us, Step const& step);
  Outcome carryOut(Outcome::Kind kind, Step const& step);
  Outcome stepNow(Step const& step);
  bool inherit(Entry const& held);
  void complete();
  Outcome::Kind draw();
  U32 latencyOfWrite(EntryKey const& key, U32 ti) const;
  Outcome writeNow(EntryConfig const& entry, U32 ti);
  Outcome eraseNow(EntryKey const& key, U32 ti);
  void addNow(EntryConfig const& entry, U32 ti);
  void moveNow(Entry& entry, EntryConfig const& record, U32 ti);
  void forget(EntryKey const& key, U32 ti);

  U32 const size_;
  Latency latency_;
  Mood mood_;
  Count count_;
  std::string lastViolation_;
  ViolationHandler handler_;
  std::unique_ptr<Ostra::PiecewiseMap<EntryKey, Entry>> const entries_;
  std::map<EntryKey, Entry> leaving_;  // moved keys, at the position that is to be erased yet
  std::map<U32, EntryKey> positions_;
  Order order_;               // by group, then position: the entry's priority
  std::set<U32> unreadable_;  // positions whose record in the file is damaged
  std::unique_ptr<ContentsFile> file_;
  Ostra::Ptr<Keel::TimerfdWheel> const wheel_;
  std::unique_ptr<Alarm> const alarm_;
  std::minstd_rand random_;
  struct Late {
    U64 token;
    Outcome::Kind kind;
    Step step;
    std::optional<EntryConfig> kept;
  };
  std::multimap<double, Late> late_;  // by the time when they are done
};

}  // namespace Hw
