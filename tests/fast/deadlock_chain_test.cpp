// SPDX-License-Identifier: Apache-2.0
// Long chains: the cost of a key that joins one, and that skipping open chains finds the same rings.
#include <numeric>
#include <random>
#include <set>

#include "ostra/exception.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {

class Chain : public FastWorld {
 protected:
  void row(U32 entries) {
    for (U32 k = 1; k <= entries; ++k) put({.key = k, .ti = k});
  }
  // Written and dispatched, then searched for rings.
  void want(U64 key, U32 ti) { put({.key = key, .ti = ti}); }
  void wantQuietly(U64 key, U32 ti) { write({.key = key, .ti = ti}); }
};

// The facility trace off and on: what is found out is the same.
class ChainDamage : public Chain, public testing::WithParamInterface<char const*> {
 protected:
  ChainDamage() : lines(GetParam()) {
    table = damaging = make<Damaging>();
    engineIs();
    row(4);
    want(2, 3);
  }
  // 1 joins the chain, at whose end 3 stands still.
  void join() { want(1, 2); }
  FacilityLines lines;
  Ptr<Damaging> damaging;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Traces, ChainDamage, testing::Values("VantrelFastImpl/0", "VantrelFastImpl/7"),
                         [](auto const& traced) { return traced.param[16] == '0' ? "off" : "on"; });

TEST_P(ChainDamage, IsNotFoundBehindTheStartOfAnOpenChain) {
  damaging->oversize = 2;
  EXPECT_NO_THROW(join());
  EXPECT_EQ(record(1).p.ti, 2U);
  damaging->oversize = 0;
  damaging->corrupt = 2;
  EXPECT_NO_THROW(join());
  EXPECT_EQ(damaging->corruptions(), 0U);
}

TEST_P(ChainDamage, IsFoundAtTheStartOfAChain) {
  write({.key = 1, .ti = 2});
  engine->handleEntryHelper(EntryKey(1));
  damaging->oversize = 1;
  EXPECT_THROW(engine->checkDeadlock(), Pallo::InvalidSizeException);
  damaging->oversize = 0;
  engine->handleEntryHelper(EntryKey(1));
  damaging->corrupt = 1;
  engine->checkDeadlock();
  EXPECT_EQ(damaging->corruptions(), 1U);
}

// a waits for b, b for 3: the chain of whoever comes first in the run may pass the other, who is damaged.
TEST_P(ChainDamage, IsFoundAtAStartThatAnEarlierChainPassed) {
  std::set<U64> first;
  for (auto const& [a, b] : {std::pair<U64, U64>{1, 2}, {2, 1}}) {
    engineIs();
    put({.key = a, .ti = 1});
    put({.key = b, .ti = 2});
    put({.key = 3, .ti = 3});
    for (auto const& [key, ti] : {std::pair<U64, U32>{b, 3}, {a, 2}}) {
      write({.key = key, .ti = ti});
      engine->handleEntryHelper(EntryKey(key));
    }
    first.insert(state().blocked.begin()->value() == a ? 1 : 2);
    damaging->corrupt = std::next(state().blocked.begin())->value();
    U64 const before = damaging->corruptions();
    engine->checkDeadlock();
    EXPECT_EQ(damaging->corruptions() - before, 1U) << a;
    damaging->corrupt = 0;
    engine->keyToHandleDelAll();
  }
  EXPECT_EQ(first.size(), 2U) << "both orders were met";
}

TEST_P(ChainDamage, IsFoundInAMemberThatClosesARing) {
  join();
  damaging->corrupt = 2;
  want(3, 1);
  EXPECT_EQ(damaging->corruptions(), 1U);
  EXPECT_EQ(engine->deadlockCount(), 0U) << "the chain ends at the damage";
  damaging->corrupt = 0;
  damaging->oversize = 2;
  write({.key = 3, .ti = 1});
  EXPECT_THROW(engine->handleEntry(EntryKey(3)), Pallo::InvalidSizeException);
  EXPECT_EQ(engine->deadlockCount(), 0U);
  damaging->oversize = 0;
  want(3, 1);
  EXPECT_EQ(engine->deadlockCount(), 1U);
}

// A claim has lost its retry: the chain is followed for the sake of what it may find there.
TEST_P(ChainDamage, IsFoundInAnyMemberWhileAClaimIsLost) {
  put({.key = 9, .ti = 9});
  put({.key = 10, .ti = 9});
  engine->retryDepsMaxCntIs(1);
  engine->dependants = [](EntryConfig const&, EntryKey const& key) { return key.value() != 10; };
  table->entryQuietlyDel(EntryKey(9));
  EXPECT_THROW(engine->handleEntry(EntryKey(9)), Ostra::InternalException);
  damaging->oversize = 2;
  write({.key = 1, .ti = 2});
  EXPECT_THROW(engine->handleEntry(EntryKey(1)), Pallo::InvalidSizeException);
  damaging->oversize = 0;
}

TEST_F(Chain, JoiningALongChainReadsTwoRecords) {
  auto const counting = make<CountingTable>();
  auto const own = make<FastVantrelImpl>("own", counting, debugConfig, debugStatus, client, 1U);
  constexpr U32 entries = 1000;
  for (U32 k = 1; k <= entries + 1; ++k) {
    counting->entryQuietlyIs(config({.key = k, .ti = k}));
    own->handleEntry(EntryKey(k));
  }
  for (int again = 0; again < 3; ++again)
    for (U32 k = entries; k > 0; --k) {
      counting->entryQuietlyIs(config({.key = k, .ti = k + 1}));
      U64 const before = counting->reads;
      own->handleEntry(EntryKey(k));
      EXPECT_EQ(counting->reads - before, 2U) << k;
    }
  EXPECT_EQ(own->numPending(), entries);
  EXPECT_EQ(own->deadlockCount(), 0U);
}

// The claims of 1, 2 and 3 close a ring while the configuration of 2 names another position.
TEST_F(Chain, FindsARingThatAConfigurationHeldOpen) {
  row(3);
  want(1, 2);
  want(2, 3);
  wantQuietly(2, 9);
  want(3, 1);
  EXPECT_EQ(engine->deadlockCount(), 0U);
  wantQuietly(2, 3);
  want(1, 2);
  EXPECT_EQ(engine->deadlockCount(), 1U);
  EXPECT_EQ(record(1).sti, 2U);
  EXPECT_EQ(record(2).sti, 3U);
  EXPECT_EQ(record(3).sti, 1U);
}

TEST_F(Chain, FindsARingThroughARenewedClaim) {
  row(4);
  want(1, 2);  // followed, open
  want(2, 4);
  want(1, 3);
  want(3, 1);  // closes the ring of 1 and 3
  EXPECT_EQ(engine->deadlockCount(), 1U);
  EXPECT_EQ(record(1).sti, 3U);
  EXPECT_EQ(record(3).sti, 1U);
}

// 1 waits for 2's place; 2's claim closes the ring while both are candidates of one run, in either order.
TEST_F(Chain, FindsARingThroughAMemberThatWasOpen) {
  for (auto const& [a, b] : {std::pair<U64, U64>{1, 2}, {2, 1}}) {
    engineIs();
    put({.key = a, .ti = 1});
    put({.key = b, .ti = 2});
    put({.key = a, .ti = 2});
    engine->handleEntryHelper(EntryKey(a));
    put({.key = b, .ti = 1});
    EXPECT_EQ(engine->deadlockCount(), 1U) << a;
    EXPECT_EQ(record(a).sti, 2U);
    EXPECT_EQ(record(b).sti, 1U);
    engine->keyToHandleDelAll();
  }
}

// 1, of another group, takes the handle of 3, whose removal wakes 2: the ring of 1 and 2 closes in that step.
TEST_F(Chain, BreaksARingThatClosesDuringARetry) {
  for (auto const& [a, b] : {std::pair<U64, U64>{2, 1}, {1, 2}}) {
    engineIs();
    put({.key = a, .ti = 1, .hdl = 20});
    put({.key = b, .ti = 2, .pg = 1, .hdl = 10});
    put({.key = 3, .ti = 3, .hdl = 30});
    put({.key = a, .ti = 2, .hdl = 20});
    put({.key = b, .ti = 1, .pg = 1, .hdl = 30});
    EXPECT_EQ(engine->deadlockCount(), 1U) << a;
    EXPECT_EQ(engine->numPending(), 0U) << a;
    engine->keyToHandleDelAll();
  }
}

// p and q, of two groups, want each other's places. x waits for b, which waits for the order; breaking the
// ring of p and q wakes b, whose record meanwhile names the place of x: a second ring, of keys that the run
// has passed unless it began with p or q. Passed, it stays for a later run.
TEST_F(Chain, RingOfVisitedKeysStays) {
  std::set<U32> broken;
  for (U64 first = 1; first <= 64; ++first) {
    U64 const p = first, q = first + 100, x = first + 200, b = first + 300;
    engineIs();
    put({.key = p, .ti = 10, .prio = 10});
    put({.key = q, .ti = 20, .prio = 10, .pg = 1});
    put({.key = x, .ti = 4, .prio = 10, .pg = 2});
    put({.key = b, .ti = 3, .prio = 5});
    auto const blocks = [&](Put const& wanted) {
      write(wanted);
      engine->handleEntryHelper(EntryKey(wanted.key));
    };
    blocks({.key = b, .ti = 15, .prio = 5});
    blocks({.key = x, .ti = 3, .prio = 10, .pg = 2});
    blocks({.key = p, .ti = 20, .prio = 10});
    blocks({.key = q, .ti = 10, .prio = 10, .pg = 1});
    write({.key = b, .ti = 4, .prio = 5});
    U64 const began = state().blocked.begin()->value();
    engine->checkDeadlock();
    ASSERT_EQ(engine->deadlockCount(), began == p || began == q ? 2U : 1U) << first << " from " << began;
    broken.insert(engine->deadlockCount());
    engine->keyToHandleDelAll();
  }
  EXPECT_THAT(broken, testing::ElementsAre(1, 2)) << "both orders were met";
}

// With the facility trace on, every chain is read step by step.
TEST_F(Chain, SkippingOpenChainsChangesNoCall) {
  auto const played = [this](U32 seed, U32 groups, U32 entries, char const* trace) {
    auto const wanted = make<Shoal::LocalTable<EntryConfig>>();
    auto const own = make<FastVantrelImpl>("own", wanted, debugConfig, debugStatus, client, 1U);
    FacilityLines lines(trace);
    std::mt19937 random(seed);
    auto const below = [&random](U32 n) { return static_cast<U32>(random() % n); };
    U64 version = 0;
    auto const write = [&](U32 k, U32 ti) {
      U32 const handle = groups > 1 && below(4) == 0 ? below(entries) + 1 : k;
      EntryConfig e(EntryKey(k), OpId(++version << 16), handle, static_cast<U16>(k % groups), 0);
      e.tableIndexIs(TableKey(0), ti);
      wanted->entryQuietlyIs(e);
    };
    auto const handle = [&](U32 k) { own->handleEntry(EntryKey(k)); };
    for (U32 k = 1; k <= entries; ++k) write(k, k), handle(k);
    client->take();
    for (int step = 0; step < 60; ++step) {
      U32 const k = below(entries) + 1;
      write(k, below(entries) + 1);
      if (below(8) == 0) {
        own->handleEntryHelper(EntryKey(below(entries) + 1));
        own->processPending();
      }
      if (below(4)) handle(below(3) ? k : below(entries) + 1);
    }
    Calls calls = client->take();
    calls.push_back(std::to_string(own->deadlockCount()) + " rings");
    own->keyToHandleDelAll();
    return calls;
  };
  U64 rings = 0;
  for (U32 seed = 1; seed <= 900; ++seed) {
    U32 const groups = 1 + seed % 3;
    U32 const entries = 3 + seed % 10;
    Calls const quick = played(seed, groups, entries, "VantrelFastImpl/0");
    ASSERT_EQ(quick, played(seed, groups, entries, "VantrelFastImpl/7")) << "seed " << seed;
    rings += std::stoul(quick.back());
  }
  EXPECT_GT(rings, 100U);
}
