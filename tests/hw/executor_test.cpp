// SPDX-License-Identifier: Apache-2.0
// An engine in front of hardware that is late, busy, refuses and forgets to answer: after every step the true
// hardware keeps the order, and when the faults end, everything arrives.
#include "hw/executor.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <map>
#include <random>
#include <vector>

#include "keel/virtual_wheel.h"
#include "ostra/clock.h"
#include "ostra/piecewise_map.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

namespace {

using namespace Vantrel;
using Hw::Driver;
using Hw::Executor;
using Hw::Outcome;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Kind = Outcome::Kind;

constexpr U16 groups = 2;

// Hardware that does as it is told, checks the order, and answers as it likes.
class Moody : public Driver {
 public:
  struct Entry {
    U64 key;
    U64 opId;
    U32 prio;
    U16 pg;
  };
  struct Late {
    U64 token;
    std::function<void()> carryOut;
  };

  Outcome write(EntryConfig const& entry, U32 ti, U64 token) override {
    calls.push_back(fmt::format("write {}@{}", entry.key().value(), ti));
    Entry const made{entry.key().value(), entry.opId().value(), entry.prio(), entry.pg()};
    return answer(token, [this, made, ti] { place(made, ti); });
  }
  Outcome erase(EntryKey const& key, U32 ti, U64 token) override {
    calls.push_back(fmt::format("erase {}@{}", key.value(), ti));
    return answer(token, [this, key, ti] {
      if (auto const at = held.find(ti); at != held.end()) {
        EXPECT_EQ(at->second.key, key.value()) << "erased at " << ti;
        held.erase(at);
      }
    });
  }
  void flush() override { calls.push_back("flush"); }
  std::size_t mostAtOnce() const override { return most; }

  // What the mood gives; Done when there is none.
  std::function<Kind()> mood;
  std::size_t most = 1;
  std::map<U32, Entry> held;
  std::vector<Late> late;
  std::vector<std::string> calls;

  bool doesAcknowledge = true;
  bool acknowledges() const override { return doesAcknowledge; }

  void completedAs(U64 token, Kind kind) { completed(token, {kind, "later"}); }
  void completeOne(std::size_t which, Kind kind) {
    Late const done = late[which];
    late.erase(late.begin() + which);
    if (kind == Kind::Done) done.carryOut();
    completed(done.token, {kind, "later"});
  }

 private:
  Outcome answer(U64 token, std::function<void()> const& carryOut) {
    Kind const kind = mood ? mood() : Kind::Done;
    if (kind == Kind::Done) carryOut();
    if (kind == Kind::Unknown && (++unknown % 2 != 0)) carryOut();  // it was done, and nobody knows
    if (kind == Kind::Later) late.push_back({token, carryOut});
    return {kind, "a mood"};
  }
  void place(Entry const& entry, U32 ti) {
    if (auto const at = held.find(ti); at != held.end()) {
      EXPECT_EQ(at->second.key, entry.key) << "written at " << ti;
    }
    held[ti] = entry;
    for (auto const& [other, there] : held)
      if (there.pg == entry.pg && other != ti) {
        EXPECT_TRUE(other < ti ? there.prio <= entry.prio : there.prio >= entry.prio)
            << entry.key << " at " << ti << ", " << there.key << " at " << other;
      }
  }
  unsigned unknown = 0;
};

// Behind a test without an engine it says itself where an entry is.
class Told : public Executor {
 public:
  using Executor::Executor;
  void addEntry(EntryConfig const& e) override {
    at_[e.key()] = {e.key(), e.tableIndex(TableKey(0)), e.prio(), e.pg()};
    Executor::addEntry(e);
  }
  void updateEntry(EntryConfig const& e) override {
    say(e.key());
    Executor::updateEntry(e);
  }
  void moveEntry(EntryConfig const& e) override {
    say(e.key());
    at_[e.key()].ti = e.tableIndex(TableKey(0));
    Executor::moveEntry(e);
  }
  void deleteEntry(EntryConfig const& e) override {
    say(e.key());
    Executor::deleteEntry(e);
  }
  void noopAck(EntryKey const& key, OpId const& opId) override {
    say(key);
    Executor::noopAck(key, opId);
  }

 private:
  void say(EntryKey const& key) {
    if (Programmed const& p = at_[key]; !programmed(key)) programmedIs(key, p.ti, p.prio, p.pg);
  }
  std::map<EntryKey, Programmed> at_;
};

class ExecutorTest : public testing::Test {
 protected:
  int const quiet = setenv("LUMELOG_DISABLE", "1", 1);
  Ostra::Ptr<Keel::VirtualWheel> wheel = Ostra::make<Keel::VirtualWheel>(100.0);
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Moody driver;
  Ostra::Ptr<Executor> executor = Ostra::make<Told>("executor", status, driver, wheel);
  U64 version = 0;

  EntryConfig entry(U64 key, U32 ti, U32 prio, U16 pg = 0) {
    ++version;
    return entry(key, OpId(version << 16 | (version & 0xFFFF)), ti, prio, pg);  // its action is another
  }
  EntryConfig entry(U64 key, OpId opId, U32 ti, U32 prio, U16 pg) {
    EntryConfig e(EntryKey(key), opId, static_cast<U32>(key), pg, prio);
    e.tableIndexIs(TableKey(0), ti);
    return e;
  }
  U64 acknowledged(U64 key) { return status->entry(EntryKey(key)).opId().value(); }
  std::vector<std::string> calls() { return std::exchange(driver.calls, {}); }
};

TEST_F(ExecutorTest, DoesAtOnceWhatHardwareDoesAtOnce) {
  EntryConfig const first = entry(1, 5, 10);
  executor->addEntry(first);
  EXPECT_EQ(acknowledged(1), first.opId().value());
  EntryConfig const moved = entry(1, 6, 10);
  executor->updateEntry(moved);
  EXPECT_EQ(acknowledged(1), first.opId().value()) << "it is not where it is to be";
  executor->moveEntry(moved);
  EXPECT_EQ(acknowledged(1), moved.opId().value());
  EXPECT_THAT(calls(), ElementsAre("write 1@5", "write 1@5", "write 1@6", "erase 1@5"));
  EXPECT_EQ(executor->behind(), 0U);
}

TEST_F(ExecutorTest, AcknowledgesWhenALateCallIsDone) {
  driver.mood = [] { return Kind::Later; };
  executor->addEntry(entry(1, 5, 10));
  executor->addEntry(entry(2, 6, 20));
  EXPECT_THAT(calls(), ElementsAre("write 1@5")) << "the driver takes one at a time";
  EXPECT_EQ(executor->behind(), 2U);
  driver.completeOne(0, Kind::Done);
  EXPECT_NE(acknowledged(1), 0U);
  EXPECT_EQ(acknowledged(2), 0U);
  EXPECT_THAT(calls(), ElementsAre("write 2@6"));
  driver.completeOne(0, Kind::Done);
  EXPECT_NE(acknowledged(2), 0U);
  EXPECT_EQ(executor->behind(), 0U);
}

TEST_F(ExecutorTest, BeginsSeveralThatAgree) {
  driver.most = 8;
  driver.mood = [] { return Kind::Later; };
  executor->addEntry(entry(1, 5, 10));
  executor->addEntry(entry(2, 6, 20));
  executor->updateEntry(entry(1, 5, 10));
  EXPECT_THAT(calls(), ElementsAre("write 1@5", "write 2@6")) << "a key's calls one after another";
}

// What comes to the place of an entry that would not go, and what it would contradict, waits.
TEST_F(ExecutorTest, WaitsForAnEraseThatFails) {
  executor->addEntry(entry(1, 5, 20));
  driver.mood = [] { return Kind::Again; };
  executor->deleteEntry(entry(1, 5, 0));
  driver.mood = nullptr;
  calls();
  executor->addEntry(entry(2, 5, 5));
  executor->addEntry(entry(3, 7, 10));
  executor->addEntry(entry(4, 8, 30));
  executor->addEntry(entry(5, 4, 30, 1));
  EXPECT_THAT(calls(), ElementsAre("write 4@8", "write 5@4"));
  EXPECT_EQ(executor->behind(), 3U);
  wheel->advance(1);
  EXPECT_THAT(calls(), ElementsAre("erase 1@5", "write 2@5", "write 3@7"));
  EXPECT_EQ(executor->behind(), 0U);
  EXPECT_EQ(executor->retries(), 1U);
}

TEST_F(ExecutorTest, TakesBackTheStatusOfALostMove) {
  EntryConfig const first = entry(1, 5, 10);
  executor->addEntry(first);
  driver.mood = [this] { return driver.calls.back().starts_with("erase") ? Kind::Again : Kind::Refused; };
  executor->moveEntry(entry(1, 6, 10));
  EXPECT_EQ(acknowledged(1), first.opId().value()) << "it is still there";
  driver.mood = nullptr;
  wheel->advance(1);
  EXPECT_THAT(driver.held, IsEmpty());
  EXPECT_EQ(acknowledged(1), 0U);
  EntryConfig const again = entry(1, 7, 10);
  executor->moveEntry(again);
  EXPECT_EQ(acknowledged(1), again.opId().value());
}

TEST_F(ExecutorTest, RefusesAnEngineThatDoesNotSayWhereItIs) {
  auto const bare = Ostra::make<Executor>("bare", status, driver, wheel);
  bare->addEntry(entry(1, 5, 10));
  EXPECT_THROW(bare->moveEntry(entry(1, 6, 10)), std::logic_error);
  EXPECT_THROW(bare->deleteEntry(entry(1, 5, 0)), std::logic_error);
  bare->programmedIs(EntryKey(1), 5, 10, 0);
  EXPECT_NO_THROW(bare->moveEntry(entry(1, 6, 10)));
  EXPECT_THAT(calls(), ElementsAre("write 1@5", "write 1@6", "erase 1@5"));
}

TEST_F(ExecutorTest, IgnoresACompletionThatSaysLater) {
  driver.mood = [] { return Kind::Later; };
  executor->addEntry(entry(1, 5, 10));
  driver.completedAs(driver.late.front().token, Kind::Later);
  EXPECT_EQ(executor->retries(), 0U);
  driver.completeOne(0, Kind::Done);
  EXPECT_NE(acknowledged(1), 0U);
}

TEST_F(ExecutorTest, ForgetsAFailureWithItsKey) {
  for (bool const acknowledges : {true, false}) {
    driver.doesAcknowledge = acknowledges;
    auto const other = Ostra::make<Told>("other", status, driver, wheel);
    driver.mood = [] { return Kind::Refused; };
    EntryConfig const refused = entry(1, 5, 10);
    other->addEntry(refused);
    ASSERT_EQ(other->failed().size(), 1U);
    driver.mood = nullptr;
    other->deleteEntry(refused);
    EXPECT_EQ(other->failed().size(), 0U);
  }
}

TEST_F(ExecutorTest, LeavesARefusedEntryOut) {
  driver.mood = [] { return Kind::Refused; };
  EntryConfig const first = entry(1, 5, 10);
  executor->addEntry(first);
  EXPECT_THAT(executor->failed(), ElementsAre(Pair(EntryKey(1), "a mood")));
  EXPECT_THAT(executor->failedOpId(), ElementsAre(Pair(EntryKey(1), first.opId())));
  EXPECT_EQ(acknowledged(1), 0U);
  executor->noopAck(EntryKey(1), OpId(99 << 16));
  EXPECT_EQ(acknowledged(1), 0U) << "it is not there";
  EXPECT_THAT(executor->failedOpId(), ElementsAre(Pair(EntryKey(1), OpId(99 << 16))));
  driver.mood = nullptr;
  executor->moveEntry(entry(1, 6, 10));
  EXPECT_THAT(executor->failed(), IsEmpty()) << "its next version is tried";
  EXPECT_THAT(executor->failedOpId(), IsEmpty());
  EXPECT_EQ(driver.held.at(6).key, 1U);
  EXPECT_EQ(driver.held.size(), 1U);
}

// The engine has nothing to write: the version differs in its number only.
TEST_F(ExecutorTest, TriesARefusedEntryInAnUnchangedVersion) {
  driver.mood = [] { return Kind::Refused; };
  EntryConfig first = entry(1, 5, 10);
  first.dataIs(DataKey(1), 0xAB);
  executor->addEntry(first);
  driver.mood = nullptr;
  executor->noopAck(EntryKey(1), OpId(99 << 16));
  EXPECT_EQ(acknowledged(1), U64{99} << 16);
  EXPECT_EQ(driver.held.at(5).opId, U64{99} << 16);
  EXPECT_THAT(executor->failed(), IsEmpty());
  calls();
  executor->noopAck(EntryKey(1), OpId(100 << 16));
  EXPECT_THAT(calls(), IsEmpty());
}

// It is written where the engine had it when it acknowledged, before it is moved.
TEST_F(ExecutorTest, TriesAnUnchangedVersionInItsTurn) {
  driver.mood = [] { return Kind::Later; };
  executor->addEntry(entry(1, 5, 10));
  executor->noopAck(EntryKey(1), OpId(99 << 16));
  executor->moveEntry(entry(1, OpId(100 << 16), 6, 10, 0));
  driver.completeOne(0, Kind::Refused);
  driver.mood = nullptr;
  driver.completeOne(0, Kind::Done);
  EXPECT_THAT(calls(), ElementsAre("write 1@5", "write 1@5", "write 1@6", "erase 1@5"));
  EXPECT_EQ(acknowledged(1), U64{100} << 16);
}

TEST_F(ExecutorTest, AcknowledgesTheDeleteOfARefusedEntry) {
  driver.mood = [] { return Kind::Refused; };
  executor->addEntry(entry(1, 5, 10));
  driver.mood = nullptr;
  executor->deleteEntry(entry(1, OpId::deleteAcknowledge(), 5, 0, 0));
  EXPECT_EQ(acknowledged(1), OpId::deleteAcknowledge().value());
  EXPECT_THAT(executor->failed(), IsEmpty());
}

TEST_F(ExecutorTest, FlushesBehindWhatIsQueued) {
  driver.mood = [] { return Kind::Later; };
  executor->addEntry(entry(1, 5, 10));
  executor->flush();
  EXPECT_THAT(calls(), ElementsAre("write 1@5"));
  driver.completeOne(0, Kind::Done);
  EXPECT_THAT(calls(), ElementsAre("flush"));
}

// A clock that moves on whenever it is read: a pause is over before the wake-up is asked for.
TEST_F(ExecutorTest, TriesAgainAfterAPauseThatIsOverAtOnce) {
  struct Hurried : Ostra::Clock {
    double now() const override { return time += 10; }
    mutable double time = 1000;
  } const hurried;
  Ostra::Clock const* const before = Ostra::clockIs(&hurried);
  driver.mood = [] { return Kind::Again; };
  executor->addEntry(entry(1, 5, 10));
  driver.mood = nullptr;
  wheel->advance(2000);
  Ostra::clockIs(before);
  EXPECT_EQ(executor->behind(), 0U);
  EXPECT_NE(acknowledged(1), 0U);
}

// A status table that is full for a while.
class Full : public Shoal::LocalTable<EntryStatus> {
 public:
  void entryIs(EntryStatus const& record) override {
    if (full) throw std::runtime_error("no space");
    LocalTable::entryIs(record);
  }
  bool full = false;
};

TEST_F(ExecutorTest, KeepsWhatCannotBeAcknowledged) {
  auto const table = Ostra::make<Full>();
  status = table;
  executor = Ostra::make<Told>("executor", status, driver, wheel);
  table->full = true;
  executor->addEntry(entry(1, 5, 10));
  EntryConfig const newer = entry(1, 5, 10);
  executor->updateEntry(newer);
  EXPECT_EQ(acknowledged(1), 0U);
  EXPECT_EQ(executor->unwritten(), 1U);
  EXPECT_EQ(executor->behind(), 0U) << "the hardware is right";
  table->full = false;
  wheel->advance(5);
  EXPECT_EQ(acknowledged(1), newer.opId().value());
  EXPECT_EQ(executor->unwritten(), 0U);
}

// A producer in the same process, which writes a key's next version when it sees an acknowledgement.
class Eager : public Shoal::Table<EntryStatus>::Notifiee {
 public:
  explicit Eager(Ostra::Ptr<Shoal::Table<EntryStatus> const> table) {
    notifierIs(std::move(table));
    synchronizedIs(true);
    hasNotificationActiveIs(true);
  }
  void onEntry(EntryKey const&) override {
    if (next) std::exchange(next, nullptr)();
  }
  std::function<void()> next;
};

TEST_F(ExecutorTest, TakesACallFromInsideACompletion) {
  driver.mood = [] { return Kind::Later; };
  executor->addEntry(entry(1, 5, 10));
  Eager eager(status);
  EntryConfig const newer = entry(1, 5, 10);
  eager.next = [&] { executor->updateEntry(newer); };
  driver.completeOne(0, Kind::Done);
  EXPECT_THAT(calls(), ElementsAre("write 1@5", "write 1@5"));
  ASSERT_EQ(driver.late.size(), 1U);
  driver.completeOne(0, Kind::Done);
  EXPECT_EQ(acknowledged(1), newer.opId().value());
  EXPECT_EQ(executor->behind(), 0U);
}

TEST_F(ExecutorTest, TakesACallFromInsideAnAcknowledgement) {
  auto const table = Ostra::make<Full>();
  status = table;
  executor = Ostra::make<Told>("executor", status, driver, wheel);
  table->full = true;
  executor->addEntry(entry(1, 5, 10));
  table->full = false;
  Eager eager(status);
  EntryConfig const newer = entry(1, 5, 10);
  eager.next = [&] { executor->updateEntry(newer); };
  wheel->advance(5);
  wheel->advance(5);
  EXPECT_EQ(acknowledged(1), newer.opId().value());
  EXPECT_EQ(executor->unwritten(), 0U);
}

// Though a driver should not.
TEST_F(ExecutorTest, SurvivesADriverThatThrows) {
  struct Throwing : Moody {
    std::optional<std::optional<Hw::Held>> readBack(U32) override { throw std::runtime_error("no bus"); }
    void flush() override {
      if (++flushes == 1) throw std::runtime_error("no bus");
    }
    int flushes = 0;
  } throwing;
  auto const failing = Ostra::make<Told>("executor", status, throwing, wheel);
  int left = 2;
  throwing.mood = [&] { return left-- > 0 ? Kind::Unknown : Kind::Done; };
  EntryConfig const first = entry(1, 5, 10);
  EXPECT_NO_THROW(failing->addEntry(first));
  EXPECT_NO_THROW(failing->flush());
  EXPECT_NO_THROW(wheel->advance(5));
  EXPECT_EQ(acknowledged(1), first.opId().value());
  EXPECT_EQ(throwing.flushes, 2) << "tried again";
}

class Moods : public ExecutorTest, public testing::WithParamInterface<std::size_t> {
 protected:
  Moods() {
    executor = nullptr;  // before another takes its driver
    executor = Ostra::make<Executor>("executor", status, driver, wheel);
  }
  void startEngine() {
    engine = Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, executor, 1U);
    frontEnd = vantrelSmFactory(config, status, nullptr, nullptr, engine, nullptr, wheel);
  }
  // What the engine holds for programmed is what is in hardware, in the version that is acknowledged.
  void expectSettled() {
    EXPECT_EQ(executor->behind(), 0U);
    EXPECT_EQ(executor->unwritten(), 0U);
    std::map<U64, U32> held;
    for (auto place = config->first(); place; place = config->next(*place)) {
      U64 const opId = engine->currentOpId(place->key).value();
      bool const waits = opId != config->entry(place->key).opId().value();
      if (executor->failed().contains(place->key)) {
        EXPECT_TRUE(waits) << "key " << place->key << " was tried again";
      } else if (opId != 0) {
        EXPECT_EQ(acknowledged(place->key.value()), opId) << "key " << place->key;
      }
    }
    for (auto const& [ti, entry] : driver.held) {
      EXPECT_EQ(engine->currentOpId(EntryKey(entry.key)).value(), entry.opId) << "key " << entry.key;
      EXPECT_TRUE(held.emplace(entry.key, ti).second) << "key " << entry.key << " twice";
    }
  }
  // The engine's clean-up calls the driver once more.
  std::mt19937_64 random{GetParam()};
  bool faults = true;
  Ostra::Ptr<FastVantrelImpl> engine;
  Ostra::Ptr<VantrelSm> frontEnd;
};

TEST_P(Moods, KeepTheOrderAndLoseNothing) {
  constexpr U32 positions = 16, keys = 14;
  auto const chance = [&](unsigned percent) { return random() % 100 < percent; };
  driver.most = 1 + GetParam() % 4;
  driver.mood = [this] {
    if (!faults) return Kind::Done;
    U64 const at = random() % 100;
    return at < 40   ? Kind::Done
           : at < 70 ? Kind::Later
           : at < 85 ? Kind::Again
           : at < 97 ? Kind::Unknown
                     : Kind::Refused;
  };
  startEngine();
  for (int step = 0; step < 4000; ++step) {
    U64 const key = 1 + random() % keys;
    if (chance(20)) {
      config->entryDel(EntryKey(key));
    } else if (chance(50)) {
      U32 const ti = static_cast<U32>(random() % positions);
      config->entryIs(entry(key, ti, 1 + static_cast<U32>(key % 5), key % groups));
    }
    if (chance(60) && !driver.late.empty())
      driver.completeOne(random() % driver.late.size(), chance(80) ? Kind::Done : Kind::Again);
    if (chance(30)) wheel->advance(0.01);
    ASSERT_FALSE(HasFailure()) << "step " << step;
  }
  faults = false;
  while (!driver.late.empty()) driver.completeOne(0, Kind::Done);
  for (int i = 0; i < 100 && (executor->behind() || executor->unwritten()); ++i) wheel->advance(1);
  // Whoever was refused is tried again with its next version.
  for (U64 key = 1; key <= keys; ++key) {
    EntryConfig const old = config->entry(EntryKey(key));
    if (old == EntryConfig()) continue;
    config->entryIs(entry(key, old.tableIndex(TableKey(0)), old.prio(), old.pg()));
  }
  expectSettled();
  EXPECT_GT(executor->retries(), 100U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Moods, testing::Range(std::size_t{0}, std::size_t{40}));

}  // namespace
