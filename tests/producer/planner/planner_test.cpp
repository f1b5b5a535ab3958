// SPDX-License-Identifier: Apache-2.0
// The planner's writes, carried out one by one by hardware that compares all pairs.
#include "producer/planner/planner.h"

#include <gmock/gmock.h>

#include "tests/producer/planner/edits.h"

namespace Planning {
namespace {

void carryOut(std::vector<Write> const& writes, Hardware& hardware) {
  for (Write const& write : writes) {
    if (write.what == Do::Add) hardware.add(write.key, {write.position, write.priority, write.rule});
    if (write.what == Do::Move) {
      EXPECT_EQ(hardware.entries().at(write.key).priority, write.priority);
      hardware.move(write.key, write.position);
    }
    if (write.what == Do::Delete) {
      EXPECT_EQ(hardware.entries().at(write.key).position, write.position);
      hardware.remove(write.key);
    }
  }
}

struct Case {
  World world;
  U32 size;
  U32 greatest;
  U32 stride = 1;
};

class RandomEdits : public testing::TestWithParam<Case> {};

TEST_P(RandomEdits, KeepEveryPairInOrderAtEachWrite) {
  auto const [world, size, greatest, stride] = GetParam();
  for (U64 seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Hardware hardware;
    Edits edits(seed, world, {.begin = 7, .size = size, .stride = stride, .greatest = greatest}, hardware,
                [&](std::vector<Write> const& writes) { carryOut(writes, hardware); });
    for (int i = 0; i < 250; ++i) {
      edits.one();
      if (HasFailure()) return;
    }
    EXPECT_GT(hardware.calls, 100U);
  }
}

INSTANTIATE_TEST_SUITE_P(Worlds, RandomEdits,
                         testing::Values(Case{World::Sparse, 40, 0xFFFFFFFE},
                                         Case{World::Mixed, 40, 0xFFFFFFFE},
                                         Case{World::Dense, 40, 0xFFFFFFFE}, Case{World::All, 20, 0xFFFFFFFE},
                                         Case{World::Long, 30, 0xFFFFFFFE},
                                         Case{World::Mixed, 12, 0xFFFFFFFE},
                                         Case{World::Dense, 6, 0xFFFFFFFE}, Case{World::Mixed, 30, 150, 4},
                                         Case{World::Dense, 20, 60, 2}, Case{World::All, 20, 50}));

class PlannerTest : public testing::Test {
 protected:
  static Match only(U64 bits) { return {{}, {}, {{}, {}, bits, ~U64{0}}}; }  // overlaps nothing else
  static Match all() { return {}; }
};

TEST_F(PlannerTest, InsertWritesOnceWhenThereIsRoom) {
  Planner planner({.size = 10});
  planner.insert(only(1));
  std::vector<Write> const writes = planner.takeWrites();
  ASSERT_EQ(writes.size(), 1U);
  EXPECT_EQ(writes[0].what, Do::Add);
}

TEST_F(PlannerTest, InsertBeforeARuleLiesBeforeIt) {
  std::vector<Write> writes;
  auto const write = [&writes](Write const& w) { writes.push_back(w); };
  Planner planner({.size = 1024});
  U32 const denyAll = planner.insert({});
  Match web;
  web.rest.destination = {80, 80};
  planner.insert(web, denyAll);  // before it in the list
  for (Write const& planned : planner.takeWrites()) write(planned);
  ASSERT_EQ(writes.size(), 2U);
  EXPECT_LT(writes[1].position, writes[0].position);
  EXPECT_LT(writes[1].priority, writes[0].priority);
}

TEST_F(PlannerTest, RulesThatDoNotOverlapNeedNoMoves) {
  Planner planner({.size = 10});
  U32 before = Planner::atEnd;
  for (U64 i = 0; i < 10; ++i) before = planner.insert(only(i), before);
  EXPECT_EQ(planner.takeWrites().size(), 10U);
  EXPECT_EQ(planner.levels(), 1);
}

TEST_F(PlannerTest, FullWindowRefusesAndStaysAsItWas) {
  Planner planner({.size = 2});
  U32 const a = planner.insert(only(1)), b = planner.insert(only(2));
  planner.takeWrites();
  EXPECT_THROW(planner.insert(only(3)), WindowFull);
  EXPECT_THAT(planner.list(), testing::ElementsAre(a, b));
  EXPECT_TRUE(planner.takeWrites().empty());
  EXPECT_EQ(planner.audit(), "");
}

TEST_F(PlannerTest, ContradictionRewritesOneRule) {
  Planner planner({.size = 10});
  Match left, right, both;
  left.source = Prefix{0, 0, 1};
  right.source = Prefix{U64{1} << 63, 0, 1};
  U32 const a = planner.insert(left), b = planner.insert(right);
  EXPECT_EQ(planner.priority(a), planner.priority(b));  // nothing orders them
  planner.takeWrites();
  planner.insert(both, b);
  U64 adds = 0, deletes = 0;
  for (Write const& write : planner.takeWrites()) {
    adds += write.what == Do::Add;
    deletes += write.what == Do::Delete;
  }
  EXPECT_EQ(adds, 2U);
  EXPECT_EQ(deletes, 1U);
  EXPECT_LT(planner.priority(a), planner.priority(b));
}

TEST_F(PlannerTest, ReorderOfWhatDoesNotOverlapWritesNothing) {
  Planner planner({.size = 10});
  U32 const a = planner.insert(only(1)), b = planner.insert(only(2));
  planner.takeWrites();
  planner.reorder(b, a);
  EXPECT_TRUE(planner.takeWrites().empty());
  EXPECT_THAT(planner.list(), testing::ElementsAre(b, a));
}

TEST_F(PlannerTest, AssignKeepsTheLongestOrderedPart) {
  Planner planner({.size = 20});
  std::vector<Match> list;
  for (U64 i = 0; i < 10; ++i) list.push_back({{}, {}, {{}, {}, i, 0}});  // all overlap, all are different
  planner.assign(list);
  EXPECT_EQ(planner.takeWrites().size(), 10U);
  std::rotate(list.begin(), list.begin() + 1, list.end());  // one rule goes to the end
  planner.assign(list);
  U64 adds = 0;
  for (Write const& write : planner.takeWrites()) adds += write.what == Do::Add;
  EXPECT_EQ(adds, 1U);
  EXPECT_EQ(planner.audit(), "");
}

TEST_F(PlannerTest, NestedInsertsFindNumbers) {
  Planner planner({.size = 300, .greatest = 1000});
  U32 const last = planner.insert(all());
  for (int i = 0; i < 250; ++i) {
    planner.insert(all(), last);
    ASSERT_EQ(planner.audit(), "");
  }
  EXPECT_EQ(planner.levels(), 251);
}

TEST_F(PlannerTest, ListThatNeedsTooManyNumbersIsRefused) {
  Planner planner({.size = 300, .greatest = 10});
  U32 last = planner.insert(all());
  int inserted = 1;
  EXPECT_THROW(for (; inserted < 300; ++inserted) last = planner.insert(all(), last), WindowFull);
  EXPECT_EQ(inserted, 10);
  EXPECT_EQ(planner.list().size(), 10U);
  EXPECT_EQ(planner.audit(), "");
}

TEST_F(PlannerTest, WholeListOfTooManyNumbersLeavesNothing) {
  Planner planner({.size = 300, .greatest = 10});
  std::vector<Match> const many(20, all());
  EXPECT_THROW(planner.assign(many), WindowFull);
  EXPECT_EQ(planner.list().size(), 0U);
  EXPECT_EQ(planner.audit(), "");
  EXPECT_EQ(planner.assign(std::span(many).first(5)).size(), 5U);
  EXPECT_EQ(planner.audit(), "");
}

}  // namespace
}  // namespace Planning
