// SPDX-License-Identifier: Apache-2.0
// What a failing dependant leaves behind when it fails inside a drain or while a ring is broken: the
// exception leaves through processPending, so the front end retries the key that was notified, not the one
// that failed.
#include "keel/virtual_wheel.h"
#include "ostra/exception.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {

class Drain : public FastWorld {
 protected:
  Drain() : wheel(make<Keel::VirtualWheel>()) {
    engine->retryDepsMaxCntIs(1);
    engine->dependants = [this](EntryConfig const&, EntryKey const& key) { return key.value() != failing; };
    sm = vantrelSmFactory(table, status, debugConfig, debugStatus, engine, nullptr, wheel);
    client->take();
  }
  Calls tell(Put const& p) {
    table->entryIs(config(p));
    return client->take();
  }
  std::vector<U64> failed() {
    std::vector<U64> keys;
    for (auto const& [key, value] : sm->failedKey()) keys.push_back(key.value());
    return keys;
  }
  Ptr<Keel::VirtualWheel> wheel;
  Ptr<VantrelSm> sm;
  U64 failing = 0;
};

}  // namespace

TEST_F(Drain, FailureInADrainRetriesOnlyTheNotifiedKey) {
  tell({.key = 1, .ti = 1});
  EXPECT_THAT(tell({.key = 2, .ti = 1}), IsEmpty());
  failing = 2;
  EXPECT_THAT(tell({.key = 1, .ti = 5}), ElementsAre("update 1@5", "move 1@5"));
  EXPECT_THAT(failed(), ElementsAre(1));
  EXPECT_EQ(claimant(1), 2U) << "the drained key waits for a position that is free";
  EXPECT_THAT(queued(), IsEmpty());
  failing = 0;
  wheel->advance(10);
  EXPECT_THAT(client->take(), IsEmpty()) << "the notified key is not newer than what is programmed";
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_THAT(tell({.key = 2, .ti = 1}), ElementsAre("add 2@1")) << "its next notification programs it";
}

TEST_F(Drain, KeysBehindAFailedOneStayQueuedForTheNextDrain) {
  tell({.key = 1, .ti = 5, .prio = 20});
  tell({.key = 2, .ti = 2, .prio = 30});
  tell({.key = 3, .ti = 3, .prio = 30});
  failing = 2;
  tell({.key = 1, .ti = 1, .prio = 20});
  EXPECT_THAT(failed(), ElementsAre(1));
  EXPECT_THAT(queued(), ElementsAre(3));
  EXPECT_THAT(tell({.key = 9, .ti = 9, .prio = 40}), ElementsAre("add 9@9", "add 3@3"));
}

// 1 waits for 2's position; the drained 2 turns out to want 1's: the ring is found while 3 is handled.
TEST_F(Drain, FailureOfAVictimRetriesOnlyTheNotifiedKey) {
  for (U64 key : {1, 2, 3}) tell({.key = key, .ti = static_cast<U32>(key)});
  tell({.key = 1, .ti = 2});
  tell({.key = 2, .ti = 3});
  write({.key = 2, .ti = 1});
  int attempts = 0;
  engine->dependants = [&attempts](EntryConfig const&, EntryKey const& key) {
    return key.value() != 2 || ++attempts < 2;
  };
  EXPECT_THAT(tell({.key = 3, .ti = 5}), ElementsAre("update 3@5", "move 3@5", "deadlock 2@2"));
  EXPECT_EQ(attempts, 2);
  EXPECT_THAT(failed(), ElementsAre(3)) << "the notified key";
  EXPECT_FALSE(known(2)) << "the victim is gone from engine and hardware";
  EXPECT_EQ(engine->deadlockCount(), 0U);
  EXPECT_THAT(queued(), ElementsAre(1)) << "woken by the delete, but nothing drained";

  engine->dependants = nullptr;
  wheel->advance(10);
  EXPECT_THAT(client->take(), IsEmpty());
  EXPECT_FALSE(known(2)) << "the retry brings back the notified key only";
  EXPECT_THAT(tell({.key = 2, .ti = 1}), IsEmpty()) << "waits for 1, which is queued";
  EXPECT_THAT(tell({.key = 9, .ti = 9}), ElementsAre("add 9@9", "update 1@2", "move 1@2", "add 2@1"));
}

TEST_F(Drain, FailedRetryWithoutAFrontEndLeavesNoClaim) {
  engine->breakMixedRingsIs(true);
  sm = nullptr;
  EXPECT_EQ(engine->retries(), nullptr);
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  failing = 2;
  EXPECT_THROW(put({.key = 1, .ti = 5}), Ostra::InternalException);
  EXPECT_EQ(engine->numPending(), 0U);
  failing = 0;
  EXPECT_THAT(client->take(), ElementsAre("update 1@5", "move 1@5"));
  engine->handleEntry(EntryKey(2));
  EXPECT_THAT(client->take(), ElementsAre("add 2@1"));
}
