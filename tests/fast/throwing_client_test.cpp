// SPDX-License-Identifier: Apache-2.0
// A hardware client that throws: the engine's state afterwards, what repairs it, and what the deadlock check
// costs until then.
#include <optional>

#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {

class ThrowingClient : public FastWorld {
 protected:
  ThrowingClient() {
    forge();
    counting = make<CountingTable>();
    table = counting;
    engineIs();
  }
  // Audited again from here on, in the tests that restore order.
  void expectOrder() {
    EXPECT_NO_THROW(Testing::audit(state(), {.prioGrpShift = engine->prioGrpShift(), .hasShift = true}));
  }
  void failing(std::string const& operation, std::function<void()> const& work) {
    client->onCall = [&](std::string const& call) {
      if (call.starts_with(operation)) throw std::runtime_error("bus error");
    };
    EXPECT_THROW(work(), std::runtime_error) << operation;
    client->onCall = nullptr;
    client->take();
  }
  void chain() {
    for (U32 k = 1; k <= 21; ++k) put({.key = k, .ti = 100 + k});
    for (U32 k = 1; k < 20; ++k) put({.key = k, .ti = 101 + k});
  }
  // How many records are read when one more entry joins a waiting chain of twenty.
  U64 readsOfJoining() {
    put({.key = 20, .ti = 120});
    U64 const before = counting->reads;
    put({.key = 20, .ti = 121});
    U64 const joining = counting->reads - before;
    U64 const again = counting->reads;
    put({.key = 1, .ti = 102});
    return joining + counting->reads - again;
  }
  static constexpr U64 skippingReads = 4;  // the records of the two keys, and again as starts of a chain

  Ptr<CountingTable> counting;
};
using ThrowingClientDeathTest = ThrowingClient;

}  // namespace

TEST_F(ThrowingClient, KeepsSkippingOpenChainsAfterAnUpdate) {
  chain();
  put({.key = 50, .ti = 50});
  ASSERT_EQ(readsOfJoining(), skippingReads);
  failing("update", [&] { put({.key = 50, .ti = 50}); });
  EXPECT_EQ(readsOfJoining(), skippingReads) << "nothing was half-done";
  EXPECT_THAT(put({.key = 50, .ti = 50}), ElementsAre("update 50@50"));
  expectOrder();
}

TEST_F(ThrowingClient, InAnAddLeavesThePlaceTaken) {
  chain();
  failing("add", [&] { put({.key = 50, .ti = 50}); });
  EXPECT_EQ(record(50).sti, noIndex);
  EXPECT_THAT(put({.key = 50, .ti = 50}), IsEmpty()) << "it waits for itself";
  EXPECT_EQ(claimant(50), 50U);
  EXPECT_GT(readsOfJoining(), skippingReads);
  EXPECT_THAT(put({.key = 51, .ti = 50}), IsEmpty());
  EXPECT_THAT(remove(50), ElementsAre("add 51@50")) << "it was never programmed, and its place is free";
  EXPECT_EQ(readsOfJoining(), skippingReads);
  expectOrder();
}

TEST_F(ThrowingClient, InAnAddKeepsTheOrderOfItsGroupUntilItGoes) {
  failing("add", [&] { put({.key = 50, .ti = 50, .prio = 20}); });
  EXPECT_THAT(put({.key = 51, .ti = 60, .prio = 10}), IsEmpty());
  EXPECT_THAT(remove(50), ElementsAre("add 51@60"));
  expectOrder();
}

TEST_F(ThrowingClient, InAMoveLeavesBothPlacesToTheDelete) {
  chain();
  put({.key = 50, .ti = 50});
  put({.key = 51, .ti = 50});
  failing("move", [&] { put({.key = 50, .ti = 60}); });
  EXPECT_EQ(record(50).sti, 50U);
  EXPECT_THAT(put({.key = 52, .ti = 60}), IsEmpty());
  EXPECT_GT(readsOfJoining(), skippingReads);
  EXPECT_THAT(remove(50), ElementsAre("del 50@50", "add 51@50", "add 52@60"));
  EXPECT_EQ(readsOfJoining(), skippingReads);
  expectOrder();
}

// Its retry waits for itself, as a ring of one.
TEST_F(ThrowingClient, InAMoveIsTakenOutAndPutBackByTheRetry) {
  chain();
  put({.key = 50, .ti = 50});
  put({.key = 51, .ti = 50});
  failing("move", [&] { put({.key = 50, .ti = 60}); });
  handle(50);
  EXPECT_THAT(client->take(), ElementsAre("deadlock 50@50", "add 50@60", "add 51@50"));
  EXPECT_EQ(readsOfJoining(), skippingReads);
  expectOrder();
}

TEST_F(ThrowingClient, InADeleteIsAskedAgain) {
  chain();
  for (bool const deadlock : {false, true}) {
    put({.key = 50, .ti = 50});
    failing(deadlock ? "deadlock" : "del",
            [&] { engine->processDeleteHelper(EntryKey(50), deadlock, false); });
    EXPECT_EQ(record(50).sti, 50U);
    EXPECT_EQ(state().positions.current.at(50), nullptr);
    EXPECT_GT(readsOfJoining(), skippingReads);
    EXPECT_THAT(remove(50), ElementsAre("del 50@50"));
    EXPECT_EQ(readsOfJoining(), skippingReads) << deadlock;
    expectOrder();
  }
}

TEST_F(ThrowingClient, InADeleteLosesItsPlaceToTheNext) {
  put({.key = 50, .ti = 50});
  failing("del", [&] { remove(50); });
  EXPECT_THAT(put({.key = 51, .ti = 50}), ElementsAre("add 51@50"));
  EXPECT_THAT(remove(50), ElementsAre("del 50@50"));
  EXPECT_EQ(state().positions.current.at(50), &record(51));
  expectOrder();
}

TEST_F(ThrowingClient, TwiceForOneKeyLeavesNothingBehind) {
  chain();
  failing("add", [&] { put({.key = 50, .ti = 50}); });
  EXPECT_THAT(put({.key = 50, .ti = 51}), ElementsAre("add 50@51"));
  failing("move", [&] { put({.key = 50, .ti = 52}); });
  failing("add", [&] { put({.key = 60, .ti = 60}); });
  EXPECT_THAT(remove(50), ElementsAre("del 50@51"));
  EXPECT_GT(readsOfJoining(), skippingReads) << "the other one is still there";
  EXPECT_THAT(remove(60), IsEmpty());
  EXPECT_EQ(readsOfJoining(), skippingReads);
  expectOrder();
}

TEST_F(ThrowingClient, AtCleanUpByNameLeavesTheRest) {
  put({.key = 50, .ti = 50});
  failing("del", [&] { engine->doCleanup(); });
  EXPECT_TRUE(known(50));
  engine->doCleanup();
  EXPECT_THAT(client->take(), ElementsAre("del 50@50", "delStatus 50", "flush"));
  expectOrder();
}

TEST_F(ThrowingClientDeathTest, AtTheEnginesEndEndsTheProcess) {
  put({.key = 50, .ti = 50});
  client->onCall = [](std::string const&) { throw std::runtime_error("bus error"); };
  EXPECT_DEATH(engine = nullptr, "bus error");
  client->onCall = nullptr;
}

TEST_F(ThrowingClientDeathTest, MovesNoEntryWhoseMoveThrew) {
  put({.key = 50, .ti = 50});
  failing("move", [&] { put({.key = 50, .ti = 60}); });
  EXPECT_DEATH(put({.key = 50, .ti = 70}), HasSubstr("assertion failed: rc, model file FastVantrelImpl,"));
}

TEST_F(ThrowingClientDeathTest, MovesNoEntryWhoseDeleteThrew) {
  put({.key = 50, .ti = 50});
  failing("del", [&] { remove(50); });
  EXPECT_DEATH(put({.key = 50, .ti = 70}), HasSubstr("assertion failed: rc, model file FastVantrelImpl,"));
}

// Whoever waits for the place that a move was to leave is not woken; a chain that comes by finds nobody.
TEST_F(ThrowingClientDeathTest, InAMoveLeavesAClaimWithoutOccupant) {
  for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(key)});
  put({.key = 2, .ti = 3});
  failing("move", [&] { put({.key = 3, .ti = 60}); });
  EXPECT_DEATH(put({.key = 1, .ti = 2}), HasSubstr("assertion failed: PValue, model file FastVantrelImpl,"));
}
