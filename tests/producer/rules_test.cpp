// SPDX-License-Identifier: Apache-2.0
// Each rule, broken once in every way, and the write beside it that keeps the rule.
#include "tests/producer/fixture.h"

namespace Vantrel {
namespace {

using Rule = ProducerRule;

class RulesTest : public ProducerTest {
 protected:
  RulesTest() { producer->put(entry(1, version(1, 7), 11, 2, 10, 5, {0xA, 0xB})); }
  std::optional<ProducerRule> put(EntryConfig const& e) {
    return refusal([&] { producer->put(e); });
  }
};

TEST_F(RulesTest, ANewVersionOfTheSameEntryIsTaken) {
  EXPECT_EQ(put(entry(1, version(2, 7), 11, 2, 10, 6, {0xA, 0xB})), std::nullopt);
  EXPECT_EQ(put(entry(1, version(3, 8), 11, 2, 10, 6, {0xA, 0xC})), std::nullopt);
}

TEST_F(RulesTest, AnEntryHasOneTableIndex) {
  EXPECT_EQ(put(EntryConfig(EntryKey(2), OpId(version(2, 0)), 12, 0, 10)), Rule::OneTableIndex);
  EntryConfig two = entry(2, version(2, 0), 12, 0, 10, 5);
  two.tableIndexIs(TableKey(1), 6);
  EXPECT_EQ(put(two), Rule::OneTableIndex);
}

TEST_F(RulesTest, PositionAndGroupLieInTheMapping) {
  EXPECT_EQ(put(entry(2, version(2, 0), 12, 0, 10, 1U << 19)), Rule::Mapping);
  EXPECT_EQ(put(entry(2, version(2, 0), 12, 8192, 10, 0)), Rule::Mapping);
  EXPECT_EQ(put(entry(2, version(2, 0), 12, 8191, 10, (1U << 19) - 1)), std::nullopt);
}

TEST_F(RulesTest, PositionAndGroupLieInAlgorithmicMapping) {
  producer = std::make_unique<Producer>(config, status, Mapping::algorithmic(4));
  EXPECT_EQ(put(entry(2, version(2, 0), 12, 2, 10, 4001)), Rule::Mapping);
  EXPECT_EQ(put(entry(2, version(2, 0), 12, 1, 10, 4001)), std::nullopt);
}

TEST_F(RulesTest, AHandleBelongsToOneKey) {
  EXPECT_EQ(put(entry(2, version(2, 0), 11, 0, 10, 9)), Rule::UniqueHandle);
  EXPECT_EQ(put(entry(2, version(2, 0), 12, 0, 10, 9)), std::nullopt);
}

TEST_F(RulesTest, AHandleIsFreeWhenItsKeyIsRemoved) {
  producer->remove(EntryKey(1));
  EXPECT_EQ(put(entry(2, version(2, 0), 11, 0, 10, 9)), std::nullopt);
}

TEST_F(RulesTest, AKeyKeepsHandleGroupAndPriority) {
  EXPECT_EQ(put(entry(1, version(2, 7), 12, 2, 10, 5, {0xA, 0xB})), Rule::ConstantHandle);
  EXPECT_EQ(put(entry(1, version(2, 7), 11, 3, 10, 5, {0xA, 0xB})), Rule::ConstantGroup);
  EXPECT_EQ(put(entry(1, version(2, 7), 11, 2, 11, 5, {0xA, 0xB})), Rule::ConstantPriority);
}

TEST_F(RulesTest, AKeyTheAgentMayStillHaveKeepsGroupAndPriority) {
  producer->remove(EntryKey(1));
  EXPECT_EQ(put(entry(1, version(2, 0), 12, 2, 11, 5)), Rule::ConstantPriority);
  EXPECT_EQ(put(entry(1, version(2, 0), 12, 3, 10, 5)), Rule::ConstantGroup);
  EXPECT_EQ(put(entry(1, version(2, 0), 12, 2, 10, 5)), std::nullopt);
}

TEST_F(RulesTest, AKeyWhoseDeleteWasAcknowledgedStartsAnew) {
  producer->markDeleted(EntryKey(1));
  status->entryIs({EntryKey(1), OpId::deleteAcknowledge()});
  producer->remove(EntryKey(1));
  EXPECT_EQ(put(entry(1, version(5, 0), 12, 3, 99, 5)), std::nullopt);
}

TEST_F(RulesTest, VersionsRiseAcrossTheWholeTable) {
  EXPECT_EQ(put(entry(1, version(1, 7), 11, 2, 10, 5, {0xA, 0xB})), Rule::RisingVersion)
      << "the very same record";
  EXPECT_EQ(put(entry(2, version(1, 7), 12, 0, 10, 9)), Rule::RisingVersion);
  EXPECT_EQ(put(entry(2, version(1, 6), 12, 0, 10, 9)), Rule::RisingVersion);
  EXPECT_EQ(put(entry(2, 0, 12, 0, 10, 9)), Rule::RisingVersion);
  EXPECT_EQ(put(entry(2, version(1, 8), 12, 0, 10, 9)), std::nullopt);
}

TEST_F(RulesTest, VersionsStayBelowTheMarkOfADelete) {
  U64 const mark = OpId::deleteAcknowledge().value();
  EXPECT_EQ(put(entry(2, mark, 12, 0, 10, 9)), Rule::VersionRange);
  EXPECT_EQ(put(entry(2, mark + 1, 12, 0, 10, 9)), Rule::VersionRange);
  EXPECT_EQ(put(entry(2, mark - 1, 12, 0, 10, 9)), std::nullopt);
  EXPECT_EQ(refusal([&] { producer->put({.key = EntryKey(3), .pg = 0, .prio = 1, .ti = 20, .data = {}}); }),
            Rule::VersionRange)
      << "no version is left";
}

TEST_F(RulesTest, TheLowPartChangesWithTheContent) {
  EXPECT_EQ(put(entry(1, version(2, 7), 11, 2, 10, 5, {0xA, 0xC})), Rule::LowPartChanges);
  EXPECT_EQ(put(entry(1, version(2, 7), 11, 2, 10, 5, {0xA})), Rule::LowPartChanges);
  EXPECT_EQ(put(entry(1, version(2, 8), 11, 2, 10, 5, {0xA, 0xC})), std::nullopt);
}

TEST_F(RulesTest, TheLowPartDiffersFromTheOneThatIsProgrammed) {
  acknowledge(1);
  ASSERT_EQ(put(entry(1, version(2, 8), 11, 2, 10, 5, {0xA, 0xC})), std::nullopt);
  EXPECT_EQ(put(entry(1, version(3, 7), 11, 2, 10, 5, {0xA, 0xD})), Rule::LowPartChanges);
  EXPECT_EQ(put(entry(1, version(3, 9), 11, 2, 10, 5, {0xA, 0xD})), std::nullopt);
}

TEST_F(RulesTest, TheLowPartStaysWithTheContent) {
  EXPECT_EQ(put(entry(1, version(2, 8), 11, 2, 10, 6, {0xA, 0xB})), Rule::LowPartStays);
  EXPECT_EQ(put(entry(1, version(2, 7), 11, 2, 10, 6, {0xA, 0xB})), std::nullopt);
}

TEST_F(RulesTest, AWishIsNoDelete) {
  EntryConfig marked = entry(2, version(2, 0), 12, 0, 10, 9);
  marked.isDelIs(true);
  EXPECT_EQ(put(marked), Rule::NoDeleteMarker);
}

TEST_F(RulesTest, OnlyWhatIsThereIsMovedOrDeleted) {
  EXPECT_EQ(refusal([&] { producer->move(EntryKey(2), 3); }), Rule::KnownKey);
  EXPECT_EQ(refusal([&] { producer->markDeleted(EntryKey(2)); }), Rule::KnownKey);
}

TEST_F(RulesTest, TheRefusalNamesRuleKeyAndValues) {
  try {
    producer->put(entry(1, version(2, 7), 11, 2, 12, 5, {0xA, 0xB}));
    FAIL();
  } catch (BrokenRule const& broken) {
    EXPECT_STREQ(broken.what(),
                 "key 1 was refused because a key keeps its priority: it has priority 10, not 12");
  }
}

}  // namespace
}  // namespace Vantrel
