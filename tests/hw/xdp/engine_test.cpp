// SPDX-License-Identifier: Apache-2.0
// The engine edits a long rule list while packets are sent at all of it, on each CPU.
//
// Each packet is one that a single rule of the list matches. The lists before and after every edit agree on
// it: that rule decides. Rules move through a position that is free, as a producer moves them who wants no
// rings. The kernel counts which entry decided. The control, a table that does not wait, must show wrong
// verdicts.
//
// VANTREL_KERNEL_PACKETS and VANTREL_KERNEL_RULES say how many.
#include <atomic>
#include <iostream>
#include <thread>

#include "hw/executor.h"
#include "keel/timerfd_wheel.h"
#include "shoal/local_table.h"
#include "tests/apps/acl_generator.h"
#include "tests/hw/xdp/table.h"
#include "tests/model/scale.h"
#include "vantrel/vantrel.h"

namespace XdpTest {
namespace {

struct Target {
  U64 key;
  Bytes frame;
  U32 verdict;
};

// For as many rules as have a packet of their own, one.
std::vector<Target> targetsOf(std::vector<Acl::Rule> const& rules, XdpHook hook) {
  U32 const permitted = hook == XdpHook::Tc ? tcOk : xdpPass;
  U32 const denied = hook == XdpHook::Tc ? 2 : 1;
  std::mt19937_64 random(9);
  std::vector<Target> targets;
  for (std::size_t i = 0; i < rules.size(); ++i)
    for (int tries = 0; tries < 8; ++tries) {
      Header const h = headerAround(rules[i], random);
      auto const isMatched = [&h](Acl::Rule const& rule) { return matches(rule, h); };
      if (!isMatched(rules[i]) || std::ranges::count_if(rules, isMatched) != 1) continue;
      targets.push_back(
          {i + 1, frame(h), rules[i].action.kind == Acl::ActionKind::Deny ? denied : permitted});
      break;
    }
  return targets;
}

// Sends to all of them, in any order, on each CPU.
class Barrage {
 public:
  Barrage(int program, std::vector<Target> targets)
      : program_(program), targets_(std::move(targets)), sentTo_(targets_.size()) {
    for (U32 cpu = 0; cpu < std::max(1U, std::thread::hardware_concurrency()); ++cpu)
      threads_.emplace_back([this, cpu] { run(cpu); });
  }
  ~Barrage() { stop(); }
  void stop() {
    stop_ = true;
    for (std::thread& t : threads_)
      if (t.joinable()) t.join();
  }
  std::vector<Target> const& targets() const { return targets_; }
  U64 sentTo(std::size_t target) const { return sentTo_[target]; }
  U64 sent() const { return sent_; }
  U64 wrong() const { return wrong_; }  // verdicts, of the packet that was last in its call

 private:
  void run(U64 seed) {
    constexpr U32 inOneCall = 100;
    for (std::mt19937_64 random(seed); !stop_;) {
      std::size_t const i = random() % targets_.size();
      wrong_ += XdpTest::run(program_, targets_[i].frame, inOneCall) != targets_[i].verdict;
      sentTo_[i] += inOneCall;
      sent_ += inOneCall;
    }
  }
  int const program_;
  std::vector<Target> const targets_;
  std::vector<std::atomic<U64>> sentTo_;
  std::atomic<bool> stop_ = false;
  std::atomic<U64> sent_ = 0, wrong_ = 0;
  std::vector<std::thread> threads_;
};

// The engine above the table, and a producer. One position, the last, is free between edits.
class World {
 public:
  World(Ostra::Ptr<Hw::XdpTcam> table, std::vector<Acl::Rule> rules)
      : tcam(std::move(table)),
        rules_(std::move(rules)),
        row_(rules_.size() + 1),
        free_(static_cast<U32>(rules_.size())) {
    for (U32 ti = 0; ti < size(); ++ti) want(row_[ti] = ti, ti);
  }
  U32 size() const { return static_cast<U32>(rules_.size()); }
  void swap(U32 a, U32 b) {
    for (U32 const ti : {a, b, size()}) vacate(ti);
  }
  void reverse(U32 first, U32 last) {
    for (; first < last; ++first, --last) swap(first, last);
  }
  void rotate(U32 first, U32 last) {
    for (U32 ti = first; ti <= last; ++ti) vacate(ti);
    vacate(size());
  }
  // Each rule is where it was sent, and acknowledged; none was taken out to break a ring.
  void expectSettled() {
    EXPECT_EQ(executor_->calls().deadlockDeletes, 0);
    EXPECT_EQ(status_->size(), size());
    for (U32 ti = 0; ti < size(); ++ti) {
      auto const held = tcam->readBack(ti);
      ASSERT_TRUE(held && *held) << ti;
      EXPECT_EQ((*held)->key, EntryKey(row_[ti] + U64{1}));
      EXPECT_EQ((*held)->opId, status_->entry((*held)->key).opId());
    }
  }
  U64 moves() const { return executor_->calls().moves; }

  Ostra::Ptr<Hw::XdpTcam> const tcam;

 private:
  static constexpr U32 priority = 1;  // a key keeps its own, so rules that trade places have the same
  void want(U32 rule, U32 ti) {
    config_->entryIs(entryOf(rule + U64{1}, rules_[rule], ti, ++version_, priority));
  }
  // What is there moves to the position that is free.
  void vacate(U32 ti) {
    want(row_[free_] = row_[ti], free_);
    free_ = ti;
  }
  std::vector<Acl::Rule> const rules_;
  std::vector<U32> row_;  // by position: the rule
  U32 free_;
  U64 version_ = 0;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> const config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Shoal::LocalTable<Vantrel::EntryStatus>> const status_ =
      Ostra::make<Shoal::LocalTable<Vantrel::EntryStatus>>();
  Ostra::Ptr<Hw::Executor> const executor_ =
      Ostra::make<Hw::Executor>("executor", status_, *tcam, Ostra::make<Keel::TimerfdWheel>());
  Ostra::Ptr<Vantrel::FastVantrelImpl> const engine_ =
      Ostra::make<Vantrel::FastVantrelImpl>("engine", config_, nullptr, nullptr, executor_, 1);
  Ostra::Ptr<Vantrel::VantrelSm> const frontEnd_ =
      vantrelSmFactory(config_, status_, nullptr, nullptr, engine_, nullptr, nullptr);
};

class EngineTest : public TableTest {
 protected:
  EngineTest() { setenv("LUMELOG_DISABLE", "1", 1); }
};

// Moves some of the rules.
void edit(World& world, std::mt19937_64& random) {
  U32 const length = 2 + static_cast<U32>(random() % 200);
  U32 const first = static_cast<U32>(random() % (world.size() - length));
  U32 const last = first + length - 1;
  switch (random() % 3) {
    case 0:
      return world.reverse(first, last);
    case 1:
      return world.rotate(first, last);
    default:
      return world.swap(first, last);
  }
}

template <class Table>
Ostra::Ptr<Table> tableFor(std::vector<Acl::Rule> const& rules, XdpHook hook) {
  auto const positions = static_cast<U32>(rules.size()) + 1;
  return Ostra::make<Table>("hardware",
                            Hw::XdpOptions{.hook = hook, .positions = positions, .permits = false});
}

TEST_P(EngineTest, RuleDecidesItsPacketsWhereverItMoves) {
  U64 const packets = Testing::environment("VANTREL_KERNEL_PACKETS", Testing::slow ? 100'000 : 500'000);
  auto const rules = Acl::generateRules(7, Testing::environment("VANTREL_KERNEL_RULES", 1000));
  World world(tableFor<Hw::XdpTcam>(rules, GetParam()), rules);
  world.expectSettled();
  Barrage barrage(world.tcam->program().fd(), targetsOf(rules, GetParam()));
  ASSERT_GT(barrage.targets().size(), world.size() / 16);
  std::mt19937_64 random(3);
  int edits = 0;
  for (; edits < 30 || barrage.sent() < packets; ++edits) edit(world, random);
  barrage.stop();
  world.expectSettled();
  EXPECT_EQ(barrage.wrong(), 0);
  EXPECT_EQ(world.tcam->undecided(noEntryMatches), 0);
  for (std::size_t i = 0; i < barrage.targets().size(); ++i)
    EXPECT_EQ(world.tcam->hits(EntryKey(barrage.targets()[i].key)), barrage.sentTo(i)) << i;
  std::cout << barrage.sent() << " packets at " << barrage.targets().size() << " of " << world.size()
            << " rules, " << edits << " edits, " << world.moves() << " moves\n";
}

TEST_P(EngineTest, LosesVerdictsWithoutDrain) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one CPU: no edit meets a look-up";
  auto const rules = Acl::generateRules(7, 1000);
  World world(tableFor<Hasty>(rules, GetParam()), rules);
  Barrage barrage(world.tcam->program().fd(), targetsOf(rules, GetParam()));
  std::mt19937_64 random(3);
  while (barrage.sent() < 100'000'000 && world.tcam->undecided(noEntryMatches) == 0) edit(world, random);
  EXPECT_GT(world.tcam->undecided(noEntryMatches), 0);
  std::cout << "the first within " << barrage.sent() << " packets\n";
}

INSTANTIATE_TEST_SUITE_P(Hooks, EngineTest, testing::Values(XdpHook::Driver, XdpHook::Tc),
                         [](auto const& p) { return p.param == XdpHook::Tc ? "Tc" : "Xdp"; });

}  // namespace
}  // namespace XdpTest
