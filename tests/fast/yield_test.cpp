// SPDX-License-Identifier: Apache-2.0
// betweenKeys(): when it is called, in which state, and what stays done when it throws.
#include <functional>
#include <memory>
#include <random>
#include <utility>

#include "keel/virtual_wheel.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

struct Enough {};

// Calls a function, which may take another's place while it runs.
class Calls final : public VantrelImpl::Yield {
 public:
  void are(std::function<void()> what) { what_ = std::move(what); }
  void betweenKeys() override {
    auto const running = what_;
    running();
  }

 private:
  std::function<void()> what_;
};

class Yielding : public FastWorld {
 protected:
  Yielding() : wheel(make<Keel::VirtualWheel>()), flushStatus(make<VantrelFlushStatus>("flushStatus")) {
    engine->retryDepsMaxCntIs(1);
  }
  ~Yielding() override {
    if (engine) engine->yieldIs(nullptr);
  }
  void yieldsTo(std::function<void()> what) {
    whatYields.are(std::move(what));
    engine->yieldIs(&whatYields);
  }
  // "yield" among the client's calls.
  void yieldsAreTold() {
    yieldsTo([this] {
      audit();
      client->calls.push_back("yield");
    });
  }
  // From the n-th on it throws.
  void yieldEndsAt(int n) {
    yieldsTo([left = std::make_shared<int>(n)] {
      if (--*left <= 0) throw Enough();
    });
  }
  // Without a table yet.
  void frontEnd() {
    sm = vantrelSmFactory(nullptr, status, debugConfig, debugStatus, engine, flushStatus, wheel);
  }
  std::vector<U64> failed() {
    std::vector<U64> keys;
    for (auto const& [key, value] : sm->failedKey()) keys.push_back(key.value());
    return keys;
  }
  Calls whatYields;
  Ptr<Keel::VirtualWheel> wheel;
  Ptr<VantrelFlushStatus> flushStatus;
  Ptr<VantrelSm> sm;
};
using YieldingDeathTest = Yielding;

}  // namespace

TEST_F(Yielding, ComesBetweenTwoKeysOfAWalk) {
  frontEnd();
  yieldsAreTold();
  sm->tableConfigIs(table);
  EXPECT_THAT(client->take(), ElementsAre("flush")) << "no key";
  write({.key = 1, .ti = 1});
  sm->handleEntry();
  EXPECT_THAT(client->take(), ElementsAre("add 1@1", "flush")) << "one key";
  for (U64 key : {2, 3}) write({.key = key, .ti = static_cast<U32>(key)});
  sm->handleEntry();
  EXPECT_THAT(client->take(), ElementsAre("yield", "add 2@2", "yield", "add 3@3", "flush"));
}

TEST_F(Yielding, ThatThrowsLeavesAWalkUnfinished) {
  for (U64 key : {1, 2, 3}) write({.key = key, .ti = static_cast<U32>(key)});
  frontEnd();
  yieldEndsAt(2);
  EXPECT_THROW(sm->tableConfigIs(table), Enough);
  EXPECT_THAT(client->take(), ElementsAre("add 1@1", "add 2@2"));
  EXPECT_FALSE(sm->initialFlushed());
  EXPECT_EQ(flushStatus->flushCounter(), 0);
  EXPECT_THAT(failed(), IsEmpty());
  engine->yieldIs(nullptr);
  sm->handleEntry();
  EXPECT_THAT(client->take(), ElementsAre("add 3@3", "flush"));
  EXPECT_EQ(flushStatus->flushCounter(), 1);
}

TEST_F(Yielding, ComesBetweenTwoKeysOfAPass) {
  frontEnd();
  yieldsAreTold();
  sm->handleRetry();
  for (U64 key : {1, 2, 3}) {
    write({.key = key, .ti = static_cast<U32>(key)});
    sm->doScheduleRetry(EntryKey(key));
  }
  wheel->advance(10);
  EXPECT_THAT(client->take(), ElementsAre("add 1@1", "yield", "add 2@2", "yield", "add 3@3"));
}

TEST_F(Yielding, MayChangeTheFailedKeys) {
  frontEnd();
  for (U64 key : {1, 2, 3}) sm->doScheduleRetry(EntryKey(key));
  int yields = 0;
  yieldsTo([&] {
    ++yields;
    sm->failedKeyDelAll();
  });
  wheel->advance(10);
  EXPECT_EQ(yields, 1);
  EXPECT_THAT(client->take(), ElementsAre("delStatus 1"));
}

TEST_F(Yielding, ThatThrowsLeavesTheOtherFailedKeys) {
  frontEnd();
  for (U64 key : {1, 2, 3}) {
    write({.key = key, .ti = static_cast<U32>(key)});
    sm->doScheduleRetry(EntryKey(key));
  }
  yieldEndsAt(1);
  EXPECT_THROW(wheel->advance(10), Enough);
  EXPECT_THAT(client->take(), ElementsAre("add 1@1"));
  EXPECT_THAT(failed(), ElementsAre(2, 3));
  EXPECT_FALSE(sm->retryTimerSet());
}

TEST_F(Yielding, ComesBetweenTwoKeysOfADrain) {
  yieldsAreTold();
  EXPECT_THAT(put({.key = 1, .ti = 1, .prio = 1}), ElementsAre("add 1@1")) << "nothing to drain";
  put({.key = 5, .ti = 1, .prio = 1});
  EXPECT_THAT(remove(1), ElementsAre("del 1@1", "add 5@1")) << "one key in the queue";
  put({.key = 11, .ti = 20, .prio = 20});
  put({.key = 12, .ti = 21, .prio = 10});
  put({.key = 13, .ti = 22, .prio = 10});
  EXPECT_THAT(remove(11), ElementsAre("del 11@20", "add 12@21", "yield", "add 13@22"));
}

TEST_F(Yielding, ThatThrowsLeavesTheQueueToTheNextDrain) {
  put({.key = 11, .ti = 20, .prio = 20});
  for (U64 key : {12, 13, 14}) put({.key = key, .ti = static_cast<U32>(key + 9), .prio = 10});
  yieldEndsAt(2);
  EXPECT_THROW(remove(11), Enough);
  audit();
  EXPECT_THAT(client->take(), ElementsAre("del 11@20", "add 12@21", "add 13@22"));
  EXPECT_THAT(queued(), ElementsAre(14));
  engine->yieldIs(nullptr);
  EXPECT_THAT(put({.key = 1, .ti = 1, .prio = 1}), ElementsAre("add 1@1", "add 14@23"));
}

// A ring of three: its victim's place frees the second, whose place frees the third.
TEST_F(Yielding, ThatThrowsInARingLeavesItUncounted) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key), .prio = 10});
  put({.key = 4, .ti = 7, .prio = 5});  // waits for the order, until a member of the ring is out
  for (U64 key : {1, 2}) put({.key = key, .ti = static_cast<U32>(key + 1)});
  yieldEndsAt(1);
  EXPECT_THROW(put({.key = 3, .ti = 1}), Enough);
  EXPECT_EQ(engine->deadlockCount(), 0U);
  EXPECT_FALSE(queued().empty());
  audit();
  engine->yieldIs(nullptr);
  put({.key = 9, .ti = 9, .prio = 20});
  for (U64 key : {1, 2, 3}) EXPECT_EQ(record(key).sti, key % 3 + 1) << key;
}

TEST_F(Yielding, ComesBetweenTwoKeysOfTheCleanUp) {
  for (U64 key : {1, 2}) put({.key = key, .ti = static_cast<U32>(key)});
  yieldsAreTold();
  engine->doCleanup();
  auto const calls = client->take();
  ASSERT_THAT(calls, SizeIs(6));
  EXPECT_EQ(calls[2], "yield");
  EXPECT_EQ(calls[5], "flush");
}

TEST_F(Yielding, ThatThrowsLeavesTheRestOfTheCleanUp) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  yieldEndsAt(2);
  EXPECT_THROW(engine->doCleanup(), Enough);
  EXPECT_THAT(client->take(), SizeIs(4)) << "two deletes, two statuses, no flush";
  EXPECT_EQ(state().cstate.size(), 1U);
  audit();
  engine->yieldIs(nullptr);
  engine->doCleanup();
  EXPECT_THAT(state().cstate, IsEmpty());
}

TEST_F(YieldingDeathTest, ThatThrowsAtTheEnginesEndEndsTheProcess) {
  for (U64 key : {1, 2}) put({.key = key, .ti = static_cast<U32>(key)});
  yieldEndsAt(1);
  EXPECT_DEATH(engine = nullptr, "Enough");
}

TEST_F(Yielding, MayReplaceItself) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  int yields = 0;
  yieldsTo([this, &yields] {
    ++yields;
    engine->yieldIs(nullptr);
  });
  engine->doCleanup();
  EXPECT_EQ(yields, 1);
}

// Random work, with and without, audited at each yield.
TEST_F(Yielding, ChangesNoCallAndNoOrder) {
  U64 yields = 0;
  auto const played = [&](U32 seed, bool yielding) {
    auto const wanted = make<Shoal::LocalTable<EntryConfig>>();
    auto const own = make<FastVantrelImpl>("own", wanted, debugConfig, debugStatus, client, 1U);
    auto const front = vantrelSmFactory(wanted, status, nullptr, nullptr, own, nullptr, wheel);
    whatYields.are([&] {
      ++yields;
      EXPECT_NO_THROW(Testing::audit(*own->state(), {.prioGrpShift = 19, .hasShift = true}));
    });
    if (yielding) own->yieldIs(&whatYields);
    std::mt19937 random(seed);
    auto const below = [&random](U32 n) { return static_cast<U32>(random() % n); };
    U64 version = 0;
    client->take();
    for (int step = 0; step < 60; ++step) {
      U64 const key = 1 + below(8);
      EntryConfig e(EntryKey(key), OpId(++version << 16), static_cast<U32>(key), 0, below(3));
      e.tableIndexIs(TableKey(0), below(8));
      bool const quiet = below(3) == 0;
      if (quiet)
        wanted->entryQuietlyIs(e);
      else if (below(5) == 0)
        wanted->entryDel(EntryKey(key));
      else
        wanted->entryIs(e);
      if (below(6) == 0) wanted->notifyEntryColl();
      if (below(6) == 0) front->doScheduleRetry(EntryKey(1 + below(8)));
      if (below(10) == 0) front->handleRetry();
    }
    own->doCleanup();
    own->keyToHandleDelAll();
    own->yieldIs(nullptr);
    return client->take();
  };
  for (U32 seed = 1; seed <= 200; ++seed) ASSERT_EQ(played(seed, true), played(seed, false)) << seed;
  EXPECT_GT(yields, 1000U);
}
