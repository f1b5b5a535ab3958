// SPDX-License-Identifier: Apache-2.0
// An agent starts, and takes over what hardware holds from an earlier run: what differs from the table is
// written, nothing else, and nothing that is wanted becomes absent. Killed at any call, the next agent goes
// on.
#include "hw/adoption.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "hw/simulated_tcam.h"
#include "ostra/piecewise_map.h"
#include "tests/hw/outliving.h"
#include "tests/model/scale.h"
#include "tests/support/temp_dir.h"

namespace TestHw {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Kind = Hw::Outcome::Kind;

struct Wanted {
  U64 key;
  U32 ti;
  U32 prio;
  U64 version = 1;
  U16 action = 0;
  U16 pg = 0;
};

EntryConfig record(Wanted const& w) {
  EntryConfig e(EntryKey(w.key), OpId(w.version << 16 | w.action), static_cast<U32>(w.key), w.pg, w.prio);
  e.tableIndexIs(position, w.ti);
  e.dataIs(Vantrel::DataKey(0), w.action);
  return e;
}

class AdoptionTest : public testing::Test {
 protected:
  AdoptionTest() {
    setenv("LUMELOG_DISABLE", "1", 1);
    for (Wanted const& w : {Wanted{1, 3, 10}, {2, 6, 20}, {3, 9, 30}}) {
      held(record(w));
      want(record(w));
    }
  }
  void held(EntryConfig const& entry) { held(entry, entry.tableIndex(position)); }
  void held(EntryConfig const& entry, U32 ti) { driver.hardware.put(ti, entry); }
  void want(EntryConfig const& entry) { config->entryIs(entry); }
  void unwant(U64 key) { config->entryDel(EntryKey(key)); }
  void nothingHeld() {
    for (U32 ti = 0; ti < driver.hardware.size(); ++ti) driver.hardware.put(ti, {});
  }

  // A new agent starts, and everything is done. Returns its calls.
  std::vector<std::string> restart() {
    Agent agent(config, driver);
    adopted = agent.start();
    while (!driver.late.empty()) driver.completeOne(0);
    expectArrived(agent);
    return driver.takeCalls();
  }
  void expectArrived(Agent& agent) {
    EXPECT_EQ(driver.hardware.broken(), "");
    EXPECT_TRUE(agent.isSettled());
    std::size_t keys = 0;
    for (auto place = config->first(); place; place = config->next(*place)) {
      EntryConfig const e = config->entry(place->key);
      if (e.isDel()) continue;
      ++keys;
      EXPECT_THAT(driver.hardware.positionsOf(e.key()), ElementsAre(e.tableIndex(position))) << e.key();
      EXPECT_EQ(agent.acknowledged(e.key()), e.opId()) << "key " << e.key();
      if (auto const& there = driver.hardware.at(e.tableIndex(position))) {
        EXPECT_EQ(there->dataWords(), e.dataWords()) << "key " << e.key();
        EXPECT_EQ(there->hdl(), e.hdl()) << "key " << e.key();
      }
    }
    for (U32 ti = 0; ti < driver.hardware.size(); ++ti) keys -= driver.hardware.at(ti).has_value();
    EXPECT_EQ(keys, 0U) << driver.hardware.text();
  }

  OutlivingDriver driver{16};
  Ostra::Ptr<Config> config = Ostra::make<Config>();
  Hw::Adopted adopted;
};

TEST_F(AdoptionTest, CallsNothingWhenNothingChanged) {
  EXPECT_THAT(restart(), IsEmpty());
  EXPECT_EQ(adopted.entries, 3U);
  EXPECT_EQ(adopted.erased, 0U);
  EXPECT_THAT(adopted.unwanted, IsEmpty());
}

TEST_F(AdoptionTest, CallsNothingForANewVersionAlone) {
  want(record({2, 6, 20, 7}));
  EXPECT_THAT(restart(), IsEmpty());
}

TEST_F(AdoptionTest, UpdatesAChangedRecord) {
  want(record({2, 6, 20, 2, 5}));
  EXPECT_THAT(restart(), ElementsAre("write 2@6"));
}

TEST_F(AdoptionTest, MovesAMovedRecord) {
  want(record({2, 7, 20, 2}));
  EXPECT_THAT(restart(), ElementsAre("write 2@7", "erase 2@6"));
}

TEST_F(AdoptionTest, UpdatesAndMovesARecordChangedInBoth) {
  want(record({2, 7, 20, 2, 5}));
  EXPECT_THAT(restart(), ElementsAre("write 2@6", "write 2@7", "erase 2@6"));
}

TEST_F(AdoptionTest, ErasesARemovedRecord) {
  unwant(2);
  EXPECT_THAT(restart(), ElementsAre("erase 2@6"));
  EXPECT_THAT(adopted.unwanted, ElementsAre(EntryKey(2)));
}

TEST_F(AdoptionTest, WritesANewRecord) {
  want(record({4, 12, 40}));
  EXPECT_THAT(restart(), ElementsAre("write 4@12"));
}

TEST_F(AdoptionTest, LetsANewRecordTakeAnUnwantedPlace) {
  unwant(2);
  want(record({4, 6, 20}));
  EXPECT_THAT(restart(), ElementsAre("erase 2@6", "write 4@6"));
}

TEST_F(AdoptionTest, ErasesEverythingForAnEmptyTable) {
  for (U64 const key : {1, 2, 3}) unwant(key);
  EXPECT_THAT(restart(), UnorderedElementsAre("erase 1@3", "erase 2@6", "erase 3@9"));
}

TEST_F(AdoptionTest, StartsWithEmptyHardware) {
  nothingHeld();
  EXPECT_THAT(restart(), UnorderedElementsAre("write 1@3", "write 2@6", "write 3@9"));
}

TEST_F(AdoptionTest, CallsNothingAtTheSecondRestart) {
  unwant(1);
  want(record({2, 5, 20, 2, 5}));
  want(record({3, 9, 30, 3}));
  want(record({4, 12, 40}));
  EXPECT_THAT(restart(), testing::SizeIs(5));
  EXPECT_THAT(restart(), IsEmpty());
  EXPECT_THAT(restart(), IsEmpty());
}

TEST_F(AdoptionTest, AddsAnewWhatHasAnotherPriority) {
  want(record({2, 6, 25, 2, 0}));
  EXPECT_THAT(restart(), ElementsAre("erase 2@6", "write 2@6"));
  EXPECT_EQ(adopted.erased, 1U);
}

TEST_F(AdoptionTest, AddsAnewWhatHasAnotherGroup) {
  want(record({.key = 2, .ti = 6, .prio = 20, .version = 2, .action = 0, .pg = 1}));
  EXPECT_THAT(restart(), ElementsAre("erase 2@6", "write 2@6"));
}

TEST_F(AdoptionTest, RewritesWhatCameWithALowerVersion) {
  held(record({2, 6, 20, 900, 4}));
  want(record({2, 6, 20, 1, 4}));
  EXPECT_THAT(restart(), ElementsAre("write 2@6"));
  EXPECT_THAT(restart(), IsEmpty());
}

TEST_F(AdoptionTest, MovesWhatCameWithALowerVersion) {
  held(record({2, 6, 20, 900, 4}));
  want(record({2, 5, 20, 1, 4}));
  EXPECT_THAT(restart(), ElementsAre("write 2@6", "write 2@5", "erase 2@6"));
}

EntryConfig withData(EntryConfig entry, U64 data) {
  entry.dataIs(Vantrel::DataKey(0), data);
  return entry;
}

TEST_F(AdoptionTest, RewritesOtherContentsOfTheSameVersion) {
  want(withData(record({2, 6, 20}), 77));
  EXPECT_THAT(restart(), ElementsAre("write 2@6"));
}

TEST_F(AdoptionTest, RewritesOtherContentsOfTheSameAction) {
  want(withData(record({2, 6, 20, 9}), 77));
  EXPECT_THAT(restart(), ElementsAre("write 2@6"));
}

TEST_F(AdoptionTest, RewritesAnotherHandle) {
  EntryConfig const old = record({2, 6, 20});
  EntryConfig other(old.key(), OpId(2 << 16), 99, old.pg(), old.prio());
  other.tableIndexIs(position, 6);
  want(withData(other, 0));
  EXPECT_THAT(restart(), ElementsAre("write 2@6"));
}

// Read back, the position holds the wanted version before the write too.
TEST_F(AdoptionTest, RewritesTheSameVersionThoughNobodyKnows) {
  want(withData(record({2, 6, 20}), 77));
  driver.readsBack = true;
  driver.mood = [this] { return driver.arrived == 1 ? Kind::Unknown : Kind::Done; };
  Agent agent(config, driver);
  agent.start();
  agent.wheel().advance(1);
  EXPECT_THAT(driver.calls, ElementsAre("write 2@6", "write 2@6"));
  expectArrived(agent);
}

TEST_F(AdoptionTest, AcknowledgesTheDeleteOfAMarkedRecord) {
  EntryConfig marked = record({2, 6, 0, 2});
  marked.isDelIs(true);
  want(marked);
  Agent agent(config, driver);
  EXPECT_EQ(agent.start().erased, 0U) << "it is taken over, and deleted";
  EXPECT_THAT(driver.calls, ElementsAre("erase 2@6"));
  EXPECT_EQ(agent.acknowledged(EntryKey(2)), OpId::deleteAcknowledge());
  expectArrived(agent);
}

TEST_F(AdoptionTest, LeavesAHandleToTheWantedEntry) {
  EntryConfig second(EntryKey(8), OpId(1 << 16), 2, 0, 15);  // key 2 has its handle
  second.tableIndexIs(position, 5);
  held(second);
  EXPECT_THAT(restart(), ElementsAre("erase 8@5"));
  EXPECT_EQ(adopted.erased, 1U);
}

TEST_F(AdoptionTest, ExchangesHandlesWithoutAbsence) {
  for (auto const& [key, handle, ti, prio] : {std::tuple{1, 2, 3, 10}, {2, 1, 6, 20}}) {
    EntryConfig e(EntryKey(key), OpId(2 << 16), handle, 0, prio);
    e.tableIndexIs(position, ti);
    want(withData(e, 0));
  }
  EXPECT_THAT(restart(), UnorderedElementsAre("write 1@3", "write 2@6"));
}

TEST_F(AdoptionTest, ErasesTheUnreadableBeforeItWrites) {
  driver.unreadable = {6, 12};
  want(record({4, 14, 40}));
  driver.isLate = true;
  driver.most = 4;
  Agent agent(config, driver);
  EXPECT_EQ(agent.start().erased, 2U);
  EXPECT_EQ(driver.calls.size(), 1U) << "of one key";
  driver.completeOne(0);
  ASSERT_EQ(driver.calls.size(), 2U);
  std::ranges::sort(driver.calls);
  EXPECT_THAT(driver.calls, ElementsAre("erase 0@12", "erase 0@6"));
  while (!driver.late.empty()) driver.completeOne(0);
  EXPECT_THAT(driver.calls, UnorderedElementsAre("erase 0@12", "erase 0@6", "write 2@6", "write 4@14"));
  expectArrived(agent);
}

TEST_F(AdoptionTest, RepairsAnOrderThatIsWrong) {
  nothingHeld();
  held(record({1, 9, 10}), 9);
  held(record({3, 3, 30}), 3);
  Agent agent(config, driver);
  driver.staying.clear();  // one of the two has to go
  EXPECT_EQ(agent.adopt().erased, 1U);
  EXPECT_EQ(agent.engine().numPending(), 0U) << "the engine does not know of it";
  agent.readTable({});
  expectArrived(agent);
}

TEST_F(AdoptionTest, ErasesWhatDoesNotFit) {
  unwant(2);
  Agent agent(config, driver);
  EXPECT_EQ(agent.start([](EntryConfig const& e) { return e.key() != EntryKey(2); }).erased, 1U);
  EXPECT_THAT(driver.calls, ElementsAre("erase 2@6"));
  expectArrived(agent);
}

TEST_F(AdoptionTest, FinishesOrUndoesAHalfDoneMove) {
  for (auto const& [from, to] : {std::pair{5U, 7U}, {7U, 5U}})
    for (U64 const newer : {4, 5})
      for (U32 const wanted : {5U, 6U, 7U})
        for (U64 const version : {1, 4, 5, 6}) {
          SCOPED_TRACE(fmt::format("from {} to {}, version {}, wanted at {} in version {}", from, to, newer,
                                   wanted, version));
          for (U32 ti = 5; ti <= 7; ++ti) driver.hardware.put(ti, {});
          held(record({2, newer == 4 ? to : from, 20, 4}), from);
          held(record({2, to, 20, newer}), to);
          want(record({2, wanted, 20, version}));
          restart();
          EXPECT_EQ(adopted.erased, 1U);
          EXPECT_THAT(restart(), IsEmpty());
        }
}

TEST_F(AdoptionTest, KeepsTheNewPlaceOfAHalfDoneMove) {
  held(record({2, 7, 20, 4}), 6);
  held(record({2, 7, 20, 4}), 7);
  want(record({2, 7, 20, 4}));
  EXPECT_THAT(restart(), ElementsAre("erase 2@6"));
}

TEST_F(AdoptionTest, UndoesWithoutAWriteAMoveBack) {
  held(record({2, 6, 20, 4}), 6);
  held(record({2, 5, 20, 3}), 5);
  want(record({2, 6, 20, 5}));
  EXPECT_THAT(restart(), ElementsAre("erase 2@5"));
}

struct Impatient final : Vantrel::VantrelImpl::Yield {
  void betweenKeys() override {
    if (left-- == 0) throw std::runtime_error("stop");
  }
  int left = 0;
};

TEST_F(AdoptionTest, ErasesTheRestWhenItIsCutShort) {
  unwant(3);  // so that each pass over the contents is cut
  for (int calls = 0; calls < 6; ++calls) {
    for (Wanted const& w : {Wanted{1, 3, 10}, {2, 6, 20}, {3, 9, 30}}) held(record(w));
    Impatient impatient;
    impatient.left = calls;
    Agent agent(config, driver);
    agent.engine().yieldIs(&impatient);
    driver.staying.clear();
    EXPECT_THROW(agent.adopt(), std::runtime_error);
    agent.engine().yieldIs(nullptr);
    std::size_t const taken = agent.engine().handleToKey().size();
    EXPECT_EQ(agent.executor().eraseInherited(), 3 - taken) << "after " << calls;
    EXPECT_EQ(driver.takeCalls().size(), 3 - taken);
    for (auto const& [handle, key] : agent.engine().handleToKey()) EXPECT_TRUE(driver.hardware.holds(key));
    EXPECT_EQ(agent.executor().eraseInherited(), 0U);
  }
}

TEST_F(AdoptionTest, AdoptsWhenHardwareIsLate) {
  driver.isLate = true;
  driver.most = 2;
  want(record({1, 4, 10, 2, 3}));
  want(record({2, 6, 25, 2}));
  unwant(3);
  want(record({4, 9, 40}));
  Agent agent(config, driver);
  agent.start();
  EXPECT_FALSE(agent.isSettled());
  EXPECT_EQ(agent.acknowledged(EntryKey(1)), OpId(1 << 16)) << "it has that version yet";
  while (!driver.late.empty()) driver.completeOne(driver.late.size() - 1);
  expectArrived(agent);
}

// Changes of every kind, at once: a move, a change, a priority, a removed and a new key, a half-done move,
// and a position that cannot be read.
class KilledAdoptionTest : public AdoptionTest {
 protected:
  KilledAdoptionTest() {
    driver.unreadable = {14};
    held(record({4, 11, 35}), 11);
    held(record({4, 12, 35, 2, 1}), 12);
    held(record({5, 15, 60}), 15);
    want(record({1, 6, 10, 3, 1}));
    want(record({2, 9, 20, 4}));
    want(record({3, 10, 33, 5}));
    want(record({4, 11, 35, 1, 7}));  // versions begun anew
    want(record({6, 14, 50, 6}));
    before = driver.hardware;
  }
  // The hardware dies at this call, and with it the agent.
  void dieAt(U64 call) {
    driver.arrived = 0;
    driver.diesAt = call;
    Agent(config, driver).start();
    EXPECT_EQ(driver.hardware.broken(), "");
    driver.diesAt = 0;
    driver.takeCalls();
  }
  void beginAgain() {
    driver.hardware = before;
    driver.unreadable = {14};
  }
  U64 callsWithoutDeath() {
    U64 const all = restart().size();
    beginAgain();
    return all;
  }
  TrueHardware before{16};
};

TEST_F(KilledAdoptionTest, ArrivesThoughKilledAtAnyCall) {
  U64 const all = callsWithoutDeath();
  EXPECT_EQ(all, 14U);
  for (U64 call = 1; call <= all; ++call) {
    SCOPED_TRACE(call);
    beginAgain();
    dieAt(call);
    EXPECT_LE(call - 1 + restart().size(), all + 3) << "what is done is not done again";
    EXPECT_THAT(restart(), IsEmpty());
  }
}

TEST_F(KilledAdoptionTest, ArrivesThoughKilledTwice) {
  U64 const all = callsWithoutDeath();
  for (U64 first = 1; first <= all; ++first)
    for (U64 second = 1; second <= all; ++second) {
      SCOPED_TRACE(fmt::format("at {}, then at {}", first, second));
      beginAgain();
      dieAt(first);
      dieAt(second);
      restart();
    }
}

// The hardware dies with several calls under way, some of them carried out.
TEST_F(KilledAdoptionTest, ArrivesThoughKilledWithCallsUnderWay) {
  driver.most = 3;
  U64 const all = callsWithoutDeath();
  for (U64 call = 1; call <= all; ++call)
    for (unsigned carriedOut = 0; carriedOut < 8; ++carriedOut) {
      SCOPED_TRACE(fmt::format("at {}, carried out {:b}", call, carriedOut));
      beginAgain();
      driver.arrived = 0;
      {
        Agent agent(config, driver);
        driver.isLate = true;
        agent.start();
        while (!driver.late.empty() && driver.arrived < call) driver.completeOne(driver.late.size() - 1);
      }
      for (unsigned bits = carriedOut; !driver.late.empty(); bits >>= 1)
        if (bits & 1)
          driver.carryOutLate(0);
        else
          driver.late.erase(driver.late.begin());
      driver.isLate = false;
      restart();
    }
}

// The same by the simulated row, whose contents are in a file.
TEST_F(AdoptionTest, ArrivesThoughTheSimulatedRowDies) {
  TestSupport::TempDir const dir;
  std::vector<std::string> violations;
  auto const run = [&](std::string const& file, U64 diesAt) {
    Ostra::Ptr<Keel::VirtualWheel> const wheel = Ostra::make<Keel::VirtualWheel>(100.0);
    auto const row = Ostra::make<Hw::SimulatedTcam>("row", nullptr, 16U);
    row->violationHandlerIs([&](Hw::Violation const& v) { violations.emplace_back(v.what()); });
    EXPECT_EQ(row->contentsFileIs(file), 0U);
    row->diesAtIs(diesAt);
    auto const status = Ostra::make<Status>();
    auto const executor = Ostra::make<Hw::Executor>("executor", status, *row, wheel);
    auto engine = Ostra::make<Vantrel::FastVantrelImpl>("engine", config, nullptr, nullptr, executor, 1U);
    auto const adoption = Hw::adopt(*engine, *executor, *row, *config);
    auto frontEnd = vantrelSmFactory(config, status, nullptr, nullptr, engine, nullptr, wheel);
    for (EntryKey const& key : adoption.unwanted) frontEnd->handleEntry(key);
    executor->detach();
    frontEnd = nullptr;
    engine = nullptr;
    EXPECT_EQ(row->audit(), "");
    std::map<U32, U64> held;
    for (auto const& [ti, key] : row->positions()) held[ti] = key.value();
    return std::pair(row->writes(), held);
  };
  nothingHeld();
  run(dir / "before", 0);
  want(record({1, 6, 10, 3, 1}));
  want(record({2, 9, 20, 4}));
  want(record({3, 10, 33, 5}));
  want(record({4, 14, 50, 6}));
  std::map<U32, U64> const arrived{{6, 1}, {9, 2}, {10, 3}, {14, 4}};
  for (U64 call = 1; call <= 8; ++call) {
    SCOPED_TRACE(call);
    std::string const file = dir / fmt::format("state-{}", call);
    std::filesystem::copy_file(dir / "before", file);
    EXPECT_EQ(run(file, call).first, call) << "it dies at this call";
    EXPECT_EQ(run(file, 0).second, arrived);
    EXPECT_EQ(run(file, 0), std::pair(U64{0}, arrived));
  }
  EXPECT_THAT(violations, IsEmpty());
}

// Lives of agents over the same hardware: each reads a table of its own, and is killed at some call, or not.
class RandomLives {
 public:
  explicit RandomLives(U64 seed) : random_(seed), driver_(6 + below(11)), isSplit_(chance(30)) {
    driver_.most = 1 + below(4);
    driver_.readsBack = chance(50);
    driver_.mood = [this] {
      return !faults_ || !chance(30) ? Kind::Done : chance(50) ? Kind::Again : Kind::Unknown;
    };
  }

  // Empty, or what went wrong.
  std::string run() {
    for (unsigned life = 0; life < 3; ++life) {
      newTable();
      for (unsigned left = below(3); left > 0; --left) live(1 + below(20));
      live(0);
      if (!wrong_.empty() || !driver_.hardware.broken().empty()) break;
      U64 const before = driver_.arrived;
      live(0);
      if (driver_.arrived != before && wrong_.empty()) wrong_ = "what is right was written again";
    }
    return driver_.hardware.broken().empty() ? wrong_ : driver_.hardware.broken();
  }
  U64 calls = 0;
  U64 victims = 0;
  U64 deaths = 0;
  U64 entries = 0;  // taken over
  U64 erased = 0;   // not taken over

 private:
  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  bool chance(unsigned percent) { return below(100) < percent; }

  // Each key at a position of its own, priorities in order; one group, or each in its own half, so that every
  // key arrives.
  void newTable() {
    bool const anew = chance(30);
    if (anew) version_ = 0;
    U16 const shift = chance(20) ? static_cast<U16>(1 + below(3)) : 0;
    U64 const data = anew || chance(20) ? random_() : 0;
    group_ = chance(80) ? group_ : static_cast<U16>(below(2));
    auto const config = Ostra::make<Config>();
    std::vector<U64> keys(driver_.hardware.size());
    for (std::size_t i = 0; i < keys.size(); ++i) keys[i] = i + 1;
    if (chance(60)) std::shuffle(keys.begin(), keys.end(), random_);
    U32 prio = 1;
    for (U32 ti = 0; ti < keys.size(); ++ti) {
      if (chance(25)) continue;
      if (isSplit_) group_ = ti < keys.size() / 2 ? 0 : 1;
      prio += below(2);
      U64 const key = keys[ti];
      U32 const rank = chance(50) ? prio : prio_;
      EntryConfig const old = config_->entry(EntryKey(key));
      U16 const action = chance(70) ? old.opId().low() : static_cast<U16>(below(3));
      EntryConfig e(EntryKey(key), OpId(++version_ << 16 | action), static_cast<U32>(key + shift), group_,
                    std::max(rank, prio));
      prio = e.prio();
      e.tableIndexIs(position, ti);
      e.dataIs(Vantrel::DataKey(0), data + action);
      bool const isAsBefore = old.tableIndexs() != 0 && old.tableIndex(position) == ti &&
                              old.prio() == e.prio() && old.pg() == e.pg() && old.hdl() == e.hdl();
      config->entryIs(isAsBefore && !anew && chance(70) ? old : e);
    }
    config_ = config;
  }

  void live(U64 diesAt) {
    faults_ = chance(30);
    driver_.isLate = chance(50);
    driver_.diesAt = diesAt == 0 ? 0 : driver_.arrived + diesAt;
    U64 const before = driver_.arrived;
    {
      Agent agent(config_, driver_);
      Hw::Adopted const adopted = agent.start();
      entries += adopted.entries;
      erased += adopted.erased;
      passTime(agent);
      victims += agent.victims();
      if (diesAt == 0) expectArrived(agent);
    }
    while (!driver_.late.empty()) {
      if (chance(50))
        driver_.carryOutLate(below(static_cast<unsigned>(driver_.late.size())));
      else
        driver_.late.pop_back();
    }
    calls += driver_.arrived - before;
    deaths += diesAt != 0;
  }

  void passTime(Agent& agent) {
    for (unsigned i = 0; i < 2000 && !agent.isSettled(); ++i) {
      if (driver_.diesAt != 0 && driver_.arrived + 1 >= driver_.diesAt) return;
      if (!driver_.late.empty())
        driver_.completeOne(below(static_cast<unsigned>(driver_.late.size())));
      else
        agent.wheel().advance(2);
    }
  }

  void expectArrived(Agent const& agent) {
    if (!agent.isSettled()) wrong_ = "it does not end";
    std::size_t keys = 0;
    for (auto place = config_->first(); place; place = config_->next(*place), ++keys) {
      EntryConfig const e = config_->entry(place->key);
      auto const& there = driver_.hardware.at(e.tableIndex(position));
      bool const isRight = there && there->key() == e.key() && there->dataWords() == e.dataWords() &&
                           there->hdl() == e.hdl() && agent.acknowledged(e.key()) == e.opId();
      if (!isRight && wrong_.empty())
        wrong_ = fmt::format("key {} is not right; the row is {}", e.key().value(), driver_.hardware.text());
    }
    for (U32 ti = 0; ti < driver_.hardware.size(); ++ti) keys -= driver_.hardware.at(ti).has_value();
    if (keys != 0 && wrong_.empty()) wrong_ = "the row holds others too: " + driver_.hardware.text();
  }

  std::mt19937_64 random_;
  OutlivingDriver driver_;
  bool const isSplit_;  // each group has its half of the row
  Ostra::Ptr<Config> config_ = Ostra::make<Config>();
  U64 version_ = 0;
  U32 prio_ = 3;
  U16 group_ = 0;
  bool faults_ = false;
  std::string wrong_;
};

TEST_F(AdoptionTest, KeepsItsPromiseAtRandom) {
  U64 const seeds = Testing::slow ? 1000 : 6000;
  U64 const first = Testing::environment("VANTREL_SEED", 1);
  U64 calls = 0, victims = 0, deaths = 0, entries = 0, erased = 0;
  for (U64 seed = first; seed < first + seeds; ++seed) {
    RandomLives lives(seed);
    ASSERT_EQ(lives.run(), "") << "seed " << seed;
    calls += lives.calls;
    victims += lives.victims;
    deaths += lives.deaths;
    entries += lives.entries;
    erased += lives.erased;
  }
  std::printf("%s\n",
              fmt::format("{} seeds: {} calls, {} victims of rings, {} deaths, {} entries taken over, "
                          "{} erased",
                          seeds, calls, victims, deaths, entries, erased)
                  .c_str());
  for (U64 const met : {calls, victims, deaths, entries, erased}) EXPECT_GT(met, 0U);
}

}  // namespace
}  // namespace TestHw
