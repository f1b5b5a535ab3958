// SPDX-License-Identifier: Apache-2.0
// An engine in front of hardware that fails as a test says, and the same engine in front of hardware that
// does not.
//
//   put, remove --> configuration table --> engine --> executor --> FailingDriver --> TrueHardware
//                                             |           '-------> WatchedStatus
//                                             '--> Ledger: the calls that hardware has to get for each key
//
// Faults, asked at every call, decides what comes of it. The ledger is what the engine asked for, key by key:
// a call that it does not list next is wrong, and so is an erase that makes a key absent when the engine did
// not withdraw it and the hardware did not refuse it.
//
// Ownership: a world owns all of it, and refers to the faults.
// Threading: one thread. A world's wheel is the clock while it lives.
// Errors: what goes wrong is kept in broken(); a driver's exceptions would count as faults.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hw/executor.h"
#include "keel/virtual_wheel.h"
#include "shoal/local_table.h"
#include "tests/hw/true_hardware.h"
#include "vantrel/vantrel.h"

namespace TestHw {

// What becomes of a driver's call.
enum class Fate { Done, Later, Again, Refused, UnknownDone, UnknownNot, Throws };
constexpr unsigned fates = 7;
// What becomes of one that is completed late: all but Later and Throws.
constexpr Fate lateFates[] = {Fate::Done, Fate::Again, Fate::Refused, Fate::UnknownDone, Fate::UnknownNot};

class Faults {
 public:
  virtual Fate ofCall() { return Fate::Done; }
  virtual Fate ofCompletion() { return Fate::Done; }
  // The status table has no space from now on.
  virtual bool statusFills() { return false; }
  virtual ~Faults() = default;
};

// What was met, to show that it was.
struct Met {
  U64 steps = 0;            // changes of the configuration
  U64 calls[fates] = {};    // that reached the driver, by what became of them
  U64 completions = 0;      // of late calls
  U64 most = 0;             // late calls at once
  U64 victims = 0;          // withdrawn to break a ring
  U64 refusedAbsent = 0;    // moves whose write was refused: the key is absent
  U64 statusesRefused = 0;  // acknowledgements that met a full table
  U64 retries = 0;          // the executor's count
  U64 flushes = 0;          // that reached the driver

  U64 allCalls() const;
  Met& operator+=(Met const& other);
  std::string text() const;
};

struct Step {
  enum class Kind { Put, PutSame, Mark, Remove };  // PutSame: match and action stay. Mark: the delete marker
  Kind kind;
  U64 key;
  U32 ti = 0;
};
std::string toText(Step const& step);

// What does not change about a key.
struct Rank {
  U16 pg;
  U32 prio;
};

struct Shape {
  U32 positions;
  std::vector<Rank> ranks;  // of key 1, 2, ...
  std::size_t mostAtOnce = 1;
  bool readsBack = false;
};

// What the engine asked hardware for, key by key.
class Ledger {
 public:
  struct Line {
    bool isWrite;
    U32 ti;
    OpId opId;             // of a write
    bool withdraws;        // the erase of a delete, not of a move
    bool ifRefused;        // asked for only when the version before is refused
    bool perhaps = false;  // carried out, or not
    double triedAt = -1;   // when it did not succeed
  };
  Ledger(std::size_t keys, TrueHardware& hardware)
      : lines_(keys + 1), refused_(keys + 1), hardware_(hardware) {}

  void add(EntryKey const& key, Line const& line);
  // The line of a call that the driver got; what is there already needs no call.
  Line* next(EntryKey const& key, bool isWrite, U32 ti, OpId opId);
  // The first line is done, or refused.
  void done(EntryKey const& key, bool isRefused = false);
  bool isOpen(EntryKey const& key) const;
  bool isOpen() const;
  bool refused(EntryKey const& key) const { return refused_[key.value()]; }

 private:
  void dropWhatIsNotAskedFor(EntryKey const& key);
  std::vector<std::vector<Line>> lines_;
  std::vector<bool> refused_;
  TrueHardware& hardware_;
};

class FailingDriver : public Hw::Driver {
 public:
  FailingDriver(Shape const& shape, TrueHardware& hardware, Ledger& ledger, Met& met)
      : shape_(shape), hardware_(hardware), ledger_(ledger), met_(met) {}

  void faultsAre(Faults* faults) { faults_ = faults; }
  std::size_t late() const { return late_.size(); }
  void completeOne(std::size_t which);

  Hw::Outcome write(EntryConfig const& entry, U32 ti, U64 token) override;
  Hw::Outcome erase(EntryKey const& key, U32 ti, U64 token) override;
  void flush() override;
  std::size_t mostAtOnce() const override { return shape_.mostAtOnce; }
  std::optional<std::optional<Hw::Held>> readBack(U32 ti) override;

 private:
  struct Call {
    EntryKey key;
    U32 ti;
    std::optional<EntryConfig> entry;  // of a write
    U64 token;
  };
  Hw::Outcome answer(Call call);
  Hw::Outcome settle(Call const& call, Fate fate);
  void carryOut(Call const& call);
  void checkUnderWay(Call const& call);

  Shape const& shape_;
  TrueHardware& hardware_;
  Ledger& ledger_;
  Met& met_;
  Faults* faults_ = nullptr;
  std::vector<Call> late_;
};

// Hardware that does every call at once, and acknowledges it.
class PlainHardware : public Vantrel::VantrelHelper {
 public:
  PlainHardware(Ostra::Ptr<Vantrel::TableStatus> status, U32 size)
      : VantrelHelper("plain", std::move(status)), hardware(size) {}
  void addEntry(EntryConfig const& entry) override;
  void updateEntry(EntryConfig const& entry) override;
  void moveEntry(EntryConfig const& entry) override;
  void deleteEntry(EntryConfig const& record) override;
  void deleteEntryDeadlock(EntryConfig const& record) override { deleteEntry(record); }

  TrueHardware hardware;

 private:
  void write(EntryConfig const& entry, U32 ti);
};

using Status = Shoal::LocalTable<Vantrel::EntryStatus>;

// Producer, configuration and engine; in front of what, a subclass says.
class EngineWorld {
 public:
  explicit EngineWorld(Shape const& shape);
  void run(Step const& step);
  // The key's wanted record anew, with another action.
  void again(EntryKey const& key);

  Shape const& shape() const { return shape_; }
  bool wants(EntryKey const& key) const;
  EntryKey key(std::size_t number) const { return EntryKey(number); }
  std::size_t keys() const { return shape_.ranks.size(); }

 protected:
  void engineIs(Ostra::Ptr<Vantrel::VantrelHelper> helper);
  EntryConfig record(U64 key, U32 ti, bool isAnother);

  Shape const shape_;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> const config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine_;

 private:
  U64 version_ = 0;
  std::vector<U16> action_;  // of each key
};

class PerfectWorld : public EngineWorld {
 public:
  explicit PerfectWorld(Shape const& shape);
  TrueHardware const& hardware() const { return plain_->hardware; }
  Status const& status() const { return *status_; }

 private:
  Ostra::Ptr<Status> const status_ = Ostra::make<Status>();
  Ostra::Ptr<PlainHardware> const plain_;
};

class FailingWorld : public EngineWorld {
 public:
  FailingWorld(Shape const& shape, Faults& faults);
  ~FailingWorld();

  void run(Step const& step);
  void completeOne(std::size_t which);
  void advance(double seconds);
  void flush();
  void spaceIsFree() { isFull_ = false; }
  // Ends the faults, and lets everything arrive that can. Returns the keys that were refused for good.
  std::vector<EntryKey> settle();
  // After settle() and again() for each key that it returned: what differs from the other world, which was
  // told the same, empty when nothing.
  std::string difference(PerfectWorld const& perfect);

  // The engine goes and cleans up, while faults go on; then they end. Returns what is left, empty when
  // nothing.
  std::string withdraw(Faults& faults);

  std::size_t late() const { return driver_.late(); }
  bool isFull() const { return isFull_; }
  bool waitsForTime() const { return wheel_->earliest().has_value(); }
  std::string const& broken() const { return hardware_.broken(); }
  Met const& met() const { return met_; }

 private:
  class WatchedExecutor;
  class WatchedStatus;
  void look();
  void lookAt(EntryKey const& key);
  bool isSettled() const;

  Ostra::Ptr<Keel::VirtualWheel> const wheel_ = Ostra::make<Keel::VirtualWheel>(100.0);
  TrueHardware hardware_;
  Met met_;
  Ledger ledger_;
  FailingDriver driver_;
  Faults* faults_;
  bool isWithdrawn_ = false;
  std::optional<U64> flushesBefore_;  // those that reached the driver before the last was asked for
  bool isFull_ = false;
  Ostra::Ptr<Status> status_;
  Ostra::Ptr<Hw::Executor> executor_;
};

}  // namespace TestHw
