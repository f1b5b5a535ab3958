// SPDX-License-Identifier: Apache-2.0
// The reasons beside a snapshot: one of each entry that it shows waiting, and none of an earlier snapshot.
#include "vantrel/diag/wait_status.h"

#include <ctime>

#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"
#include "tests/support/fast_world.h"

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using Kind = WaitReason::Kind;

namespace {

class WaitStatusTest : public FastWorld {
 protected:
  void snapshot(U32 version) {
    debugConfig->versionIs(version);
    engine->handleDebug();
    reasons->explain(*engine, *debugStatus);
  }
  Ptr<WaitStatus> reasons = make<WaitStatus>("waitStatus");
};

}  // namespace

TEST_F(WaitStatusTest, NamesKindBlockerAndTime) {
  U64 const before = static_cast<U64>(std::time(nullptr));
  put({.key = 1, .ti = 7, .prio = 20});
  put({.key = 2, .ti = 7, .prio = 30});
  put({.key = 3, .ti = 8, .prio = 10});
  snapshot(4);
  EXPECT_THAT(reasons->kind(),
              UnorderedElementsAre(Pair(EntryKey(2), Kind::Occupied), Pair(EntryKey(3), Kind::Priority)));
  EXPECT_THAT(reasons->blocker(), UnorderedElementsAre(Pair(EntryKey(2), 7U), Pair(EntryKey(3), 7U)));
  EXPECT_GE(reasons->since().at(EntryKey(2)) + 1, before);
  EXPECT_EQ(reasons->since().size(), 2U);
  EXPECT_EQ(reasons->version(), 4U);
}

TEST_F(WaitStatusTest, ForgetsWhoWaitsNoLonger) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  snapshot(1);
  remove(1);
  snapshot(2);
  EXPECT_THAT(reasons->kind(), IsEmpty());
  EXPECT_THAT(reasons->blocker(), IsEmpty());
  EXPECT_THAT(reasons->since(), IsEmpty());
  EXPECT_EQ(reasons->version(), 2U);
}

// The retry of 2 fails for good: its claim outlives the occupant.
TEST_F(WaitStatusTest, NamesNoBlockerThatIsGone) {
  put({.key = 1, .ti = 7});
  put({.key = 2, .ti = 7});
  engine->retryDepsMaxCntIs(1);
  engine->dependants = [](EntryConfig const&, EntryKey const& key) { return key.value() != 2; };
  table->entryQuietlyDel(EntryKey(1));
  EXPECT_THROW(engine->handleEntry(EntryKey(1)), Ostra::InternalException);
  snapshot(1);
  EXPECT_THAT(reasons->kind(), ElementsAre(Pair(EntryKey(2), Kind::Occupied)));
  EXPECT_THAT(reasons->blocker(), IsEmpty());
}

// A mirror in another process sets members through these; an operator may not.
TEST_F(WaitStatusTest, IsWrittenByNameFromInsideAlone) {
  Ostra::TypeInfo const& type = reasons->typeInfo();
  type.memberIs(*reasons, "kind", U64{5}, U64{2});
  type.memberIs(*reasons, "blocker", U64{5}, U64{7});
  type.memberIs(*reasons, "since", U64{5}, U64{1000});
  EXPECT_EQ(reasons->kind().at(EntryKey(5)), Kind::Priority);
  EXPECT_EQ(reasons->blocker().at(EntryKey(5)), 7U);
  EXPECT_EQ(reasons->since().at(EntryKey(5)), 1000U);
  for (char const* const name : {"kind", "blocker", "since"}) {
    type.memberDel(*reasons, name, U64{5});
    EXPECT_THAT(type.members(*reasons, name), IsEmpty()) << name;
    EXPECT_THROW(type.checkOutsider(*reasons, name), Ostra::AttributeException) << name;
  }
  EXPECT_THROW(type.writeFromOutside(*reasons, "version", U64{3}), Ostra::AttributeException);
}
