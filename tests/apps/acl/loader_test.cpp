// SPDX-License-Identifier: Apache-2.0
// The loader against the real engine on the simulated hardware, which checks the order at each call. The
// engine lags: it hears of changes late, in slices, or as one walk in an order of its own, and the loader may
// be killed at any write.
#include "apps/vantrel/acl/loader.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <set>

#include "apps/vantrel/acl/parse.h"
#include "hw/simulated_tcam.h"
#include "shoal/local_table.h"
#include "tests/apps/acl/random_rules.h"
#include "tests/support/damageable_table.h"
#include "vantrel/vantrel.h"

namespace Acl {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::EntryStatus;
using Vantrel::Mapping;
using Vantrel::TableKey;
using Config = TestSupport::DamageableTable;
using Status = Shoal::LocalTable<EntryStatus>;

// The engines' trace is not looked at here.
[[maybe_unused]] int const noTrace = setenv("LUMELOG_DISABLE", "1", 1);

struct Killed {};

// What the engine has yet to hear of; and, when armed, the end of the writer.
class Changes : public Vantrel::TableConfig::Notifiee {
 public:
  void onEntry(EntryKey const& key) override {
    queue.push_back(key);
    if (killAfter && --*killAfter == 0) {
      killAfter.reset();
      throw Killed();
    }
  }
  std::deque<EntryKey> queue;
  std::optional<U64> killAfter;
};

class World {
 public:
  World(Mapping const& m, U32 positions, U32 partitions)
      : mapping(m), size(positions), partitions_(partitions) {
    changes.notifierIs(config);
    changes.synchronizedIs(true);
    changes.hasNotificationActiveIs(true);
    startAgent();
  }

  // The agent is killed: what it held and acknowledged is gone, and a new one walks the table.
  void startAgent() {
    engine = nullptr;
    std::vector<EntryKey> left;
    for (auto place = status->first(); place; place = status->next(*place)) left.push_back(place->key);
    for (EntryKey const key : left) status->entryDel(key);
    hardware = Ostra::make<Hw::SimulatedTcam>("hardware", status, size);
    auto const debugConfig = Ostra::make<Vantrel::DebugConfig>("debugConfig");
    auto const debugStatus = Ostra::make<Vantrel::DebugStatus>("debugStatus");
    if (partitions_)
      engine = Ostra::make<Vantrel::FastVantrelAtcamImpl>("engine", config, debugConfig, debugStatus,
                                                          hardware, 1U, partitions_);
    else
      engine =
          Ostra::make<Vantrel::FastVantrelImpl>("engine", config, debugConfig, debugStatus, hardware, 1U);
    changes.queue.clear();
    walk();
  }
  void walk() {
    std::vector<EntryKey> keys;
    for (auto place = config->first(); place; place = config->next(*place)) keys.push_back(place->key);
    for (EntryKey const key : keys) engine->handleEntry(key);
  }
  // The engine hears of up to `most` changes.
  void run(std::size_t most) {
    while (most-- > 0 && !changes.queue.empty()) {
      EntryKey const key = changes.queue.front();
      changes.queue.pop_front();
      engine->handleEntry(key);
    }
  }
  // It fell behind: those that vanished one by one, then everything, in the table's order.
  void overrun() {
    std::deque<EntryKey> const missed = std::exchange(changes.queue, {});
    for (EntryKey const key : missed)
      if (config->entry(key) == EntryConfig()) engine->handleEntry(key);
    walk();
  }

  // What the keys want, and who is there.
  std::string why(std::vector<EntryKey> const& keys) const {
    std::string text;
    for (EntryKey const key : keys) {
      EntryConfig const entry = config->entry(key);
      U32 const ti = entry.tableIndex(TableKey(0));
      auto const at = hardware->at(ti);
      auto const now = hardware->entry(key);
      text += fmt::format("key {} prio {} wants {} ({}), is at {}\n", key.value(), entry.prio(), ti,
                          at ? fmt::format("held by {}", at->key.value()) : "free",
                          now ? std::to_string(now->ti) : "no place");
    }
    for (auto const& [ti, key] : hardware->positions()) {
      EntryConfig const entry = config->entry(key);
      text += fmt::format("  {}: key {} prio {} wants {}{}\n", ti, key.value(), entry.prio(),
                          entry.tableIndex(TableKey(0)), entry.isDel() ? " to be deleted" : "");
    }
    return text;
  }

  Mapping const mapping;
  U32 const size;
  U32 const partitions_;
  Ostra::Ptr<Config> config = Ostra::make<Config>();
  Ostra::Ptr<Status> status = Ostra::make<Status>();
  Changes changes;
  Ostra::Ptr<Hw::SimulatedTcam> hardware;
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine;
};

// A loader's life: everything it knows begins and ends with it.
class Life {
 public:
  explicit Life(World& world)
      : world_(world),
        producer_(world.config, world.status, world.mapping),
        acknowledgements_(world.status),
        loader_(producer_, acknowledgements_, world.size) {}

  // False when the engine has nothing left to do and the loader still waits.
  bool toTheEnd(std::vector<Rule> const& rules) {
    loader_.start(rules);
    while (!loader_.finished()) {
      world_.run(~std::size_t{0});
      if (!acknowledgements_.done()) return false;
      loader_.advance();
    }
    world_.run(~std::size_t{0});
    return true;
  }
  // With an engine that lags by chance, and now and then starts anew.
  template <class Random>
  bool lagging(std::vector<Rule> const& rules, Random& random) {
    loader_.onWrittenIs([&](EntryKey) {
      if (random() % 4 == 0) world_.run(random() % 8);
      if (random() % 64 == 0) world_.overrun();
      if (random() % 256 == 0) world_.startAgent();
    });
    return toTheEnd(rules);
  }
  Loader& loader() { return loader_; }
  std::vector<EntryKey> waiting() const { return acknowledgements_.keys(); }

 private:
  World& world_;
  Vantrel::Producer producer_;
  Vantrel::Acknowledgements acknowledgements_;
  Loader loader_;
};

// The hardware holds exactly the rules, overlapping ones of a group in the file's order by priority, nothing
// else is left.
void expectHolds(World& world, std::vector<Rule> const& rules) {
  ASSERT_EQ(world.hardware->violations(), 0U) << world.hardware->lastViolation();
  ASSERT_EQ(world.hardware->audit(), "");
  ASSERT_EQ(world.config->size(), rules.size());
  ASSERT_EQ(world.hardware->entries(), rules.size());
  ASSERT_EQ(world.status->size(), rules.size());
  std::vector<EntryConfig> entries;
  for (auto place = world.config->first(); place; place = world.config->next(*place)) {
    EntryConfig const entry = world.config->entry(place->key);
    ASSERT_FALSE(entry.isDel());
    ASSERT_EQ(world.status->entry(place->key).opId(), entry.opId());
    ASSERT_EQ(world.hardware->entry(place->key)->ti, entry.tableIndex(TableKey(0)));
    entries.push_back(entry);
  }
  auto const offset = [&](EntryConfig const& e) { return world.mapping.offset(e.tableIndex(TableKey(0))); };
  std::ranges::sort(entries, [&](EntryConfig const& a, EntryConfig const& b) {
    return std::pair(a.prio(), offset(a)) < std::pair(b.prio(), offset(b));
  });
  // By priority, bands in any order: each rule is the next of its band.
  std::vector<Rule> held;
  for (EntryConfig const& entry : entries) held.push_back(*decode(entry.dataWords().elements()));
  std::set<U32> handles;
  for (EntryConfig const& entry : entries) handles.insert(entry.hdl());
  ASSERT_EQ(handles.size(), entries.size());
  if (world.partitions_ <= 1) {
    ASSERT_EQ(held, rules) << "left to right is first to last";
  } else {
    for (std::size_t i = 0; i < held.size();) {
      std::size_t end = i;
      while (end < held.size() && entries[end].prio() == entries[i].prio()) ++end;
      ASSERT_TRUE(std::is_permutation(held.begin() + static_cast<std::ptrdiff_t>(i),
                                      held.begin() + static_cast<std::ptrdiff_t>(end),
                                      rules.begin() + static_cast<std::ptrdiff_t>(i)));
      i = end;
    }
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    for (std::size_t j = i + 1; j < entries.size(); ++j) {
      if (overlap(held[i], held[j])) {
        ASSERT_LT(entries[i].prio(), entries[j].prio());
      }
    }
  }
}

std::vector<Rule> distinctRules(U32 count) {
  std::vector<Rule> rules(count);
  for (U32 i = 0; i < count; ++i) {
    rules[i].destination = {i << 8, 0xFFFFFF00};
    rules[i].sourcePort = {0, static_cast<U16>(i % 100)};
  }
  return rules;
}
// Every one overlaps every other.
std::vector<Rule> overlappingRules(U16 count) {
  std::vector<Rule> rules(count);
  for (U16 i = 0; i < count; ++i) rules[i].sourcePort = {0, i};
  return rules;
}

class LoaderTest : public testing::Test {
 protected:
  World world{Mapping::fast(), 100, 0};
  Loader::Counts load(std::vector<Rule> const& rules) {
    Life life(world);
    EXPECT_TRUE(life.toTheEnd(rules));
    expectHolds(world, rules);
    return life.loader().counts();
  }
};

TEST_F(LoaderTest, FreshRulesAreSpreadOverTheRow) {
  EXPECT_EQ(load(overlappingRules(9)).added, 9U);
  std::vector<U32> positions;
  for (auto const& [ti, key] : world.hardware->positions()) positions.push_back(ti);
  EXPECT_EQ(positions, (std::vector<U32>{9, 19, 29, 39, 49, 59, 69, 79, 89}));
}

TEST_F(LoaderTest, TheSameFileWritesNothing) {
  std::vector<Rule> const rules = overlappingRules(20);
  load(rules);
  U64 const calls = world.hardware->adds() + world.hardware->updates() + world.hardware->moves();
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.added + n.updated + n.moved + n.deleted, 0U);
  EXPECT_EQ(n.kept, 20U);
  EXPECT_EQ(world.hardware->adds() + world.hardware->updates() + world.hardware->moves(), calls);
}

TEST_F(LoaderTest, OneRuleMoreIsOneAdd) {
  std::vector<Rule> rules = overlappingRules(20);
  load(rules);
  rules.insert(rules.begin() + 7, Rule());
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.added, 1U);
  EXPECT_EQ(n.moved + n.updated + n.deleted, 0U);
}

TEST_F(LoaderTest, OneRuleLessIsOneDelete) {
  std::vector<Rule> rules = overlappingRules(20);
  load(rules);
  rules.erase(rules.begin() + 7);
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.deleted, 1U);
  EXPECT_EQ(n.moved + n.updated + n.added, 0U);
}

TEST_F(LoaderTest, AnotherActionIsOneUpdateInPlace) {
  std::vector<Rule> rules = overlappingRules(20);
  load(rules);
  rules[3].action.kind = ActionKind::Deny;
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.updated, 1U);
  EXPECT_EQ(n.moved + n.added + n.deleted, 0U);
  EXPECT_EQ(world.hardware->updates(), 1U);
}

TEST_F(LoaderTest, AnotherRankIsANewKeyAndThenADelete) {
  std::vector<Rule> rules = overlappingRules(20);
  load(rules);
  std::rotate(rules.begin(), rules.begin() + 1, rules.end());
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.added, 1U);
  EXPECT_EQ(n.deleted, 1U);
  EXPECT_EQ(n.moved, 0U);
}

TEST_F(LoaderTest, EqualPrioritiesTradePlacesInARing) {
  std::vector<Rule> rules = distinctRules(6);
  load(rules);
  std::swap(rules[1], rules[4]);
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.moved, 2U);
  EXPECT_EQ(n.added + n.deleted, 0U);
  EXPECT_EQ(world.engine->numDeadlock(), 1U) << "neither can go first";
}

TEST_F(LoaderTest, AFullRowChangesEntryByEntry) {
  std::vector<Rule> rules = overlappingRules(100);
  load(rules);
  std::ranges::reverse(rules);
  load(rules);
}

TEST_F(LoaderTest, ARowWithLittleRoomChangesInRounds) {
  std::vector<Rule> rules = overlappingRules(97);
  load(rules);
  std::ranges::reverse(rules);
  Loader::Counts const n = load(rules);
  EXPECT_EQ(n.kept, 1U);
  EXPECT_EQ(n.added, 96U);
}

TEST_F(LoaderTest, EverythingElseInAFullRow) {
  load(overlappingRules(100));
  load(distinctRules(100));
  load({});
  EXPECT_EQ(world.hardware->entries(), 0U);
}

TEST_F(LoaderTest, EqualRulesAreEntriesOfTheirOwn) {
  load(std::vector<Rule>(10));
  Loader::Counts const n = load(std::vector<Rule>(13));
  EXPECT_EQ(n.added, 3U);
  EXPECT_EQ(load(std::vector<Rule>(4)).deleted, 9U);
}

TEST_F(LoaderTest, RefusesTooManyRulesBeforeItWrites) {
  EXPECT_THROW(load(overlappingRules(101)), std::runtime_error);
  EXPECT_EQ(world.config->size(), 0U);
}

// Nothing is known of what it held: its key goes, and the rule that is missing then comes under another.
TEST_F(LoaderTest, ReplacesADamagedRecord) {
  std::vector<Rule> const rules = overlappingRules(20);
  load(rules);
  for (bool const agentKnowsIt : {true, false}) {
    world.config->damaged = world.hardware->positions().begin()->second;
    if (!agentKnowsIt) world.startAgent();
    Loader::Counts const n = load(rules);
    EXPECT_EQ(n.kept, 19U);
    EXPECT_EQ(n.added, 1U);
    EXPECT_EQ(n.deleted, 1U);
    EXPECT_FALSE(world.config->damaged) << "its record is gone";
  }
}

TEST_F(LoaderTest, EntriesOfAnotherKindAreRefused) {
  EntryConfig entry(EntryKey(5), Vantrel::OpId(1 << 16), 1, 0, 10);
  entry.tableIndexIs(TableKey(0), 3);
  world.config->entryIs(entry);
  EXPECT_THROW(load(overlappingRules(3)), std::runtime_error);
  EXPECT_EQ(world.config->size(), 1U);
}

TEST_F(LoaderTest, EntriesOfAnotherMappingAreRefused) {
  load(overlappingRules(5));
  Vantrel::Producer producer(world.config, world.status, Mapping::algorithmic(4));
  Vantrel::Acknowledgements acknowledgements(world.status);
  Loader loader(producer, acknowledgements, 100);
  EXPECT_THROW(loader.start(overlappingRules(5)), std::runtime_error);
}

TEST_F(LoaderTest, ASmallerRowIsMovedInto) {
  load(overlappingRules(20));
  Vantrel::Producer producer(world.config, world.status, world.mapping);
  Vantrel::Acknowledgements acknowledgements(world.status);
  Loader loader(producer, acknowledgements, 25);
  loader.start(overlappingRules(20));
  while (!loader.finished()) {
    world.run(~std::size_t{0});
    ASSERT_TRUE(acknowledgements.done());
    loader.advance();
  }
  EXPECT_LT(world.hardware->positions().rbegin()->first, 25U);
  expectHolds(world, overlappingRules(20));
}

TEST_F(LoaderTest, WhoDoesNotWaitLeavesTheRestToTheNext) {
  std::vector<Rule> rules = overlappingRules(20);
  load(rules);
  std::ranges::reverse(rules);
  {
    Life life(world);
    life.loader().start(rules);
    life.loader().leave();
    EXPECT_EQ(life.loader().remaining(), 19U);
  }
  world.run(~std::size_t{0});
  load(rules);
}

TEST(LoaderGroupsTest, RulesAreSpreadOverTheGroups) {
  World world(Mapping::algorithmic(4), 100, 4);
  Life life(world);
  ASSERT_TRUE(life.toTheEnd(overlappingRules(100)));
  expectHolds(world, overlappingRules(100));
}

enum class Shape { Fast, OneGroup, FourGroups };

class RandomLoaderTest : public testing::TestWithParam<std::tuple<Shape, unsigned>> {
 protected:
  static World makeWorld(U32 size) {
    switch (std::get<0>(GetParam())) {
      case Shape::Fast:
        return World(Mapping::fast(), size, 0);
      case Shape::OneGroup:
        return World(Mapping::algorithmic(1), size, 1);
      case Shape::FourGroups:
        return World(Mapping::algorithmic(4), size, 4);
    }
    throw std::logic_error("shape");
  }
  std::mt19937 random{std::get<1>(GetParam())};

  void edit(std::vector<Rule>& rules, std::size_t most) {
    std::size_t const changes = 1 + random() % 10;
    for (std::size_t i = 0; i < changes; ++i) {
      auto const at = [&] { return rules.begin() + static_cast<std::ptrdiff_t>(random() % rules.size()); };
      switch (random() % 6) {
        case 0:
        case 1:
          if (rules.size() < most)
            rules.insert(rules.empty() ? rules.end() : at(), randomRule(random, 1 + random() % 2));
          break;
        case 2:
          if (!rules.empty()) rules.erase(at());
          break;
        case 3:
          if (!rules.empty()) std::iter_swap(at(), at());
          break;
        case 4:
          if (!rules.empty()) at()->action.kind = static_cast<ActionKind>(random() % 2);
          break;
        case 5:
          if (!rules.empty()) {
            auto a = at();
            auto b = at();
            if (b < a) std::swap(a, b);
            std::reverse(a, b);
          }
      }
    }
  }
  std::vector<Rule> someRules(std::size_t count) {
    std::vector<Rule> rules;
    while (rules.size() < count) rules.push_back(randomRule(random, 1 + random() % 2));
    return rules;
  }
};

TEST_P(RandomLoaderTest, EveryEditIsReachedByAnEngineThatLags) {
  U32 const size = 8 + static_cast<U32>(random() % 40);
  World world = makeWorld(size);
  std::vector<Rule> rules = someRules(random() % (size + 1));
  for (int i = 0; i < 15; ++i) {
    Life life(world);
    ASSERT_TRUE(life.lagging(rules, random)) << "load " << i << "\n" << world.why(life.waiting());
    expectHolds(world, rules);
    if (HasFatalFailure()) return;
    edit(rules, size);
  }
}

TEST_P(RandomLoaderTest, AKilledLoaderIsFinishedByTheNext) {
  U32 const size = 8 + static_cast<U32>(random() % 40);
  World world = makeWorld(size);
  std::vector<Rule> rules = someRules(random() % (size + 1));
  for (int i = 0; i < 30; ++i) {
    bool const killed = random() % 3 != 0;
    if (killed) world.changes.killAfter = 1 + random() % 30;
    try {
      Life life(world);
      ASSERT_TRUE(life.lagging(rules, random)) << "load " << i << "\n" << world.why(life.waiting());
      world.changes.killAfter.reset();
      expectHolds(world, rules);
      if (HasFatalFailure()) return;
    } catch (Killed const&) {
      if (random() % 3 == 0) world.startAgent();
    }
    if (random() % 2) edit(rules, size);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLoaderTest,
                         testing::Combine(testing::Values(Shape::Fast, Shape::OneGroup, Shape::FourGroups),
                                          testing::Range(1U, 201U)));

}  // namespace
}  // namespace Acl
