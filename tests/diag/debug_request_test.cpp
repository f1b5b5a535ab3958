// SPDX-License-Identifier: Apache-2.0
// Debug requests: what a snapshot holds, and when it is taken.
#include "ostra/piecewise_map.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

class DebugRequest : public FastWorld {
 protected:
  void request(U32 version) {
    debugConfig->versionIs(version);
    engine->handleDebug();
  }
};
using DebugRequestDeathTest = DebugRequest;

class Order : public DebugStatus::Notifiee {
 public:
  void onPending(U32 const&) override { told.push_back("pending"); }
  void onPendingOpId(EntryKey const&) override { told.push_back("pendingOpId"); }
  void onStatus(U32 const&) override { told.push_back("status"); }
  void onStatusOpId(EntryKey const&) override { told.push_back("statusOpId"); }
  void onVersion() override { told.push_back("version"); }
  Calls told;
};

}  // namespace

TEST_F(DebugRequest, EmptyEngineAnswersWithEmptyCollections) {
  request(3);
  EXPECT_THAT(debugStatus->pending(), IsEmpty());
  EXPECT_THAT(debugStatus->pendingOpId(), IsEmpty());
  EXPECT_THAT(debugStatus->status(), IsEmpty());
  EXPECT_THAT(debugStatus->statusOpId(), IsEmpty());
  EXPECT_EQ(debugStatus->version(), 3U);
}

// The agent serves others meanwhile, and may end it: then the request stays unanswered.
TEST_F(DebugRequest, YieldsWhileItShowsManyEntries) {
  struct Counting final : VantrelImpl::Yield {
    void betweenKeys() override {
      if (++count == stopAt) throw std::runtime_error("stop");
    }
    int count = 0, stopAt = 0;
  } agent;
  for (U32 key = 1; key <= 1000; ++key) put({.key = key, .ti = key});
  for (U32 key = 1001; key <= 1600; ++key) put({.key = key, .ti = key - 1000});
  engine->yieldIs(&agent);
  request(1);
  EXPECT_EQ(agent.count, 600 / 256 + 1600 / 256);
  EXPECT_EQ(debugStatus->status().size(), 1000U);
  agent.stopAt = agent.count + 3;
  EXPECT_THROW(request(2), std::runtime_error);
  EXPECT_EQ(debugStatus->version(), 1U);
  engine->yieldIs(nullptr);
}

TEST_F(DebugRequest, ShowsAProgrammedWaitingEntryInBothViews) {
  put({.key = 1, .ti = 1, .opId = 11});
  put({.key = 2, .ti = 2, .opId = 12});
  put({.key = 1, .ti = 2, .opId = 21});
  put({.key = 3, .ti = 1, .opId = 13});
  request(1);
  EXPECT_THAT(debugStatus->pending(), UnorderedElementsAre(Pair(2, EntryKey(1)), Pair(1, EntryKey(3))));
  EXPECT_THAT(debugStatus->pendingOpId(),
              UnorderedElementsAre(Pair(EntryKey(1), OpId(21)), Pair(EntryKey(3), OpId(13))));
  EXPECT_THAT(debugStatus->status(), UnorderedElementsAre(Pair(1, EntryKey(1)), Pair(2, EntryKey(2))));
  EXPECT_THAT(debugStatus->statusOpId(),
              UnorderedElementsAre(Pair(EntryKey(1), OpId(11)), Pair(EntryKey(2), OpId(12))));
}

TEST_F(DebugRequest, TheSameVersionIsAnsweredOnce) {
  request(1);
  put({.key = 1, .ti = 1});
  Order order;
  order.notifierIs(debugStatus);
  request(1);
  engine->handleDebug();
  EXPECT_THAT(order.told, IsEmpty());
  EXPECT_THAT(debugStatus->status(), IsEmpty());
}

TEST_F(DebugRequest, VersionZeroEmptiesTheSnapshot) {
  put({.key = 1, .ti = 1});
  request(4);
  EXPECT_EQ(debugStatus->status().size(), 1U);
  request(0);
  EXPECT_THAT(debugStatus->status(), IsEmpty());
  EXPECT_THAT(debugStatus->statusOpId(), IsEmpty());
  EXPECT_EQ(debugStatus->version(), 0U);
}

TEST_F(DebugRequest, EmptiesThenFillsAndWritesTheVersionLast) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  request(1);
  Order order;
  order.notifierIs(debugStatus);
  request(2);
  EXPECT_THAT(order.told, ElementsAre("pending", "pendingOpId", "status", "statusOpId", "pending",
                                      "pendingOpId", "status", "statusOpId", "version"));
}

TEST_F(DebugRequest, IsTracedWithBothVersions) {
  request(4);
  FacilityLines lines("VantrelFastImpl/9");
  request(7);
  EXPECT_THAT(lines.take(), ElementsAre("VantrelFastImpl/9 dumping debug state 7 4"));
  engine->handleDebug();
  EXPECT_THAT(lines.take(), IsEmpty()) << "it is answered already";
}

TEST_F(DebugRequest, ClaimsAreShownAscending) {
  class Positions : public DebugStatus::Notifiee {
   public:
    void onPending(U32 const& ti) override { told.push_back(ti); }
    std::vector<U32> told;
  };
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  for (U64 key : {13, 11, 12}) put({.key = key, .ti = static_cast<U32>(key - 10)});
  Positions watcher;
  watcher.notifierIs(debugStatus);
  request(1);
  EXPECT_THAT(watcher.told, ElementsAre(1, 2, 3));
}

TEST_F(DebugRequest, ThrowingWatcherLeavesTheRequestUnanswered) {
  class Throwing : public DebugStatus::Notifiee {
   public:
    void onStatus(U32 const&) override { throw std::runtime_error("watcher"); }
  };
  put({.key = 1, .ti = 1});
  {
    Throwing w;
    w.notifierIs(debugStatus);
    debugConfig->versionIs(1);
    EXPECT_THROW(engine->handleDebug(), std::runtime_error);
    EXPECT_EQ(debugStatus->version(), 0U);
  }
  request(2);
  EXPECT_EQ(debugStatus->version(), 2U);
  EXPECT_EQ(debugStatus->status().size(), 1U);
}

// The inner request is answered whole, and then the outer goes on with what it had begun: its version is the
// last that is written, so the inner request counts as unanswered until the trigger changes again.
TEST_F(DebugRequest, NestedRequestIsAnsweredAndThenTakenBack) {
  class Asking : public Order {
   public:
    void onPending(U32 const& ti) override {
      Order::onPending(ti);
      askOnce(Moment::emptying);
    }
    void onStatus(U32 const& ti) override {
      Order::onStatus(ti);
      askOnce(Moment::filling);
    }
    void onVersion() override { versions.push_back(notifier()->version()); }
    enum class Moment { never, emptying, filling } moment = Moment::never;
    std::function<void()> ask;
    std::vector<U32> versions;

   private:
    void askOnce(Moment now) {
      if (moment == now && std::exchange(moment, Moment::never) == now) ask();
    }
  };
  auto const sm = vantrelSmFactory(table, status, debugConfig, debugStatus, engine, nullptr, nullptr);
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 2});
  put({.key = 3, .ti = 1});
  debugConfig->versionIs(1);
  Asking watcher;
  watcher.notifierIs(debugStatus);
  watcher.ask = [this] { debugConfig->versionInc(1); };
  auto const whole = [this](U32 version) {
    EXPECT_EQ(debugStatus->version(), version);
    EXPECT_THAT(debugStatus->pending(), UnorderedElementsAre(Pair(1, EntryKey(3))));
    EXPECT_THAT(debugStatus->pendingOpId(), testing::SizeIs(1));
    EXPECT_THAT(debugStatus->status(), UnorderedElementsAre(Pair(1, EntryKey(1)), Pair(2, EntryKey(2))));
    EXPECT_THAT(debugStatus->statusOpId(), testing::SizeIs(2));
  };
  for (auto const moment : {Asking::Moment::filling, Asking::Moment::emptying}) {
    U32 const asked = debugConfig->version() + 1;
    watcher.moment = moment;
    watcher.versions.clear();
    debugConfig->versionIs(asked);
    EXPECT_THAT(watcher.versions, ElementsAre(asked + 1, asked));
    EXPECT_EQ(debugConfig->version(), asked + 1) << "not answered, and nothing is under way that would";
    whole(asked);
    debugConfig->versionInc(1);
    whole(asked + 2);
  }
}

// Without a front end nobody hears of it: what is answered is what was read at the beginning.
TEST_F(DebugRequest, UnheardNestedRequestWaitsForTheNextCall) {
  class Asking : public DebugStatus::Notifiee {
   public:
    void onStatus(U32 const&) override { ask(); }
    std::function<void()> ask;
  };
  put({.key = 1, .ti = 1});
  Asking watcher;
  watcher.notifierIs(debugStatus);
  watcher.ask = [this] { debugConfig->versionIs(9); };
  request(1);
  EXPECT_EQ(debugStatus->version(), 1U);
  engine->handleDebug();
  EXPECT_EQ(debugStatus->version(), 9U);
}

TEST_F(DebugRequestDeathTest, WithoutTheDebugEntitiesItsAssertionsFail) {
  auto const noConfig = make<FastVantrelImpl>("e", table, nullptr, debugStatus, client, 1U);
  EXPECT_DEATH(noConfig->handleDebug(),
               HasSubstr("assertion failed: debugConfig(), model file FastVantrelImpl,"));
  auto const noStatus = make<FastVantrelImpl>("e", table, debugConfig, nullptr, client, 1U);
  EXPECT_DEATH(noStatus->handleDebug(),
               HasSubstr("assertion failed: debugStatus(), model file FastVantrelImpl,"));
}
