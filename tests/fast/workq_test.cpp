// SPDX-License-Identifier: Apache-2.0
// The work queue: once each, first in, first out, until it is empty.
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {
class Workq : public FastWorld {};
using WorkqDeathTest = Workq;
}  // namespace

TEST_F(Workq, QueuingForAnUnclaimedPositionChangesNothing) {
  state().addToWorkq(4);
  EXPECT_THAT(queued(), IsEmpty());
  EXPECT_TRUE(state().workqSet.empty());
}

TEST_F(Workq, AnEntryQueuedTwiceIsRetriedOnce) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  state().addToWorkq(1);
  state().addToWorkq(1);
  EXPECT_THAT(queued(), ElementsAre(2));
  EXPECT_TRUE(state().workqSet.contains(2));
  engine->dependantCalls = 0;
  engine->processPending();
  EXPECT_EQ(engine->dependantCalls, 1);
  EXPECT_TRUE(state().workqSet.empty());
}

TEST_F(Workq, AQueuedEntryKeepsItsClaim) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  state().addToWorkq(1);
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_EQ(engine->numPending(), 1U);
}

TEST_F(Workq, KeysQueuedByARetryRunLastInTheSameDrain) {
  put({.key = 1, .ti = 1});  // the chain 3 -> 2 -> 1, each waiting for the one before it
  put({.key = 2, .ti = 2});
  put({.key = 3, .ti = 3});
  put({.key = 4, .ti = 4});
  put({.key = 2, .ti = 1});
  put({.key = 3, .ti = 2});
  put({.key = 5, .ti = 4});
  RingRecords records;
  EXPECT_TRUE(engine->processDelete(EntryKey(1), false));
  state().addToWorkq(4);
  EXPECT_THAT(queued(), ElementsAre(2, 5));
  engine->processPending();
  auto const taken = records.take();
  std::vector<std::string> order;
  for (auto const& line : taken)
    if (line.starts_with("pending key:")) order.push_back(line);
  EXPECT_THAT(order, ElementsAre("pending key:%q [1,2]", "pending key:%q [1,5]", "pending key:%q [1,3]"));
}

TEST_F(Workq, ADrainOfNothingOnlyTraces) {
  FacilityLines lines("VantrelFastImpl/9");
  engine->processPending();
  EXPECT_THAT(lines.take(), ElementsAre("VantrelFastImpl/8 processPending"));
  EXPECT_THAT(client->take(), IsEmpty());
}

TEST_F(Workq, IsTracedOnBothChannels) {
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  FacilityLines lines("VantrelFastImpl/9");
  RingRecords records;
  state().addToWorkq(1);
  EXPECT_THAT(lines.take(), ElementsAre("VantrelFastImpl/9 adding 2 to workq"));
  EXPECT_THAT(records.take(), ElementsAre("adding key:%q to workq [1,2]"));
  engine->processPending();
  EXPECT_THAT(lines.take(), Contains("VantrelFastImpl/8 trying pending 2"));
  EXPECT_THAT(records.take(), Contains("pending key:%q [1,2]"));
}

TEST_F(Workq, ClearingAnIdleRecordOnlyResetsItsFields) {
  EntryPState_s p{OpId(5), noIndex, PendingType::Occupied};
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  state().clearPending(p, true);
  EXPECT_EQ(p.opId, OpId(0));
  EXPECT_EQ(p.ti, noIndex);
  EXPECT_EQ(p.type, PendingType::None);
  EXPECT_EQ(state().pending.count(), 1U);
}

TEST_F(Workq, ClearingWithoutUnindexLeavesTheSlot) {
  forge();
  put({.key = 1, .ti = 1});
  put({.key = 2, .ti = 1});
  state().clearPending(record(2).p, false);
  EXPECT_EQ(claimant(1), 2U);
  EXPECT_EQ(record(2).p.ti, noIndex);
}

TEST_F(WorkqDeathTest, ClearingAnUnlistedClaimFails) {
  EntryPState_s p{OpId(5), 77, PendingType::Occupied};
  EXPECT_DEATH(state().clearPending(p, true),
               HasSubstr("assertion failed: rc == 1, model file FastVantrelImpl,"));
}

TEST_F(WorkqDeathTest, AQueuedKeyThatIsNotInTheSetFailsItsAssertion) {
  forge();
  state().workq.push_back(EntryKey(5));
  EXPECT_DEATH(engine->processPending(), HasSubstr("assertion failed: rc, model file FastVantrelImpl,"));
}

TEST_F(WorkqDeathTest, DrainingBeforeInitializationFailsItsAssertion) {
  engine->initializedIs(false);
  EXPECT_DEATH(engine->processPending(),
               HasSubstr("assertion failed: initialized(), model file FastVantrelImpl,"));
}
