// SPDX-License-Identifier: Apache-2.0
#include "hw/acl/rule.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/apps/acl/random_rules.h"

namespace Acl {
namespace {

bool matchesPacket(Rule const& r, U32 source, U32 destination, U16 sport, U16 dport, U8 protocol, U16 flags) {
  return r.source.matches(source) && r.destination.matches(destination) && r.sourcePort.matches(sport) &&
         r.destinationPort.matches(dport) && r.protocol.matches(protocol) && r.flags.matches(flags);
}

// Every packet of the small world: two bits a field.
bool somePacketMatchesBoth(Rule const& a, Rule const& b) {
  for (U32 packet = 0; packet < 1U << 12; ++packet) {
    auto const two = [packet](unsigned i) { return packet >> (2 * i) & 3; };
    auto const matches = [&](Rule const& r) {
      return matchesPacket(r, two(0) << 30, two(1) << 30, static_cast<U16>(two(2)), static_cast<U16>(two(3)),
                           static_cast<U8>(two(4)), static_cast<U16>(two(5)));
    };
    if (matches(a) && matches(b)) return true;
  }
  return false;
}

TEST(RuleTest, OverlapIsWhatThePacketsSay) {
  std::mt19937 random(1);
  int overlaps = 0;
  for (int i = 0; i < 4000; ++i) {
    Rule const a = randomRule(random, 1 + i % 2);
    Rule const b = randomRule(random, 1 + i % 2);
    ASSERT_EQ(overlap(a, b), somePacketMatchesBoth(a, b)) << text(a) << "\n" << text(b);
    ASSERT_EQ(overlap(a, b), overlap(b, a));
    overlaps += overlap(a, b);
  }
  EXPECT_GT(overlaps, 300);
  EXPECT_LT(overlaps, 3700);
}

TEST(RuleTest, ARuleOverlapsItself) {
  std::mt19937 random(2);
  for (int i = 0; i < 100; ++i) {
    Rule const a = randomRule(random);
    EXPECT_TRUE(overlap(a, a));
  }
}

TEST(RuleTest, WordsGiveTheRuleBack) {
  std::mt19937 random(3);
  for (int i = 0; i < 2000; ++i) {
    Rule rule = randomRule(random, 2);
    rule.source.mask = i % 33 == 0 ? 0 : ~U32{0} << (32 - i % 33);
    rule.source.value = static_cast<U32>(random()) & rule.source.mask;
    rule.flags.mask = static_cast<U16>(random());
    rule.flags.value = static_cast<U16>(random() & rule.flags.mask);
    rule.action.kind = static_cast<ActionKind>(i % 3);
    if (rule.action.kind == ActionKind::Mark) rule.action.argument = static_cast<U32>(random());
    Words const words = encode(rule);
    ASSERT_EQ(decode(words), rule);
  }
}

TEST(RuleTest, TheWordsOfTheExample) {
  Rule rule;
  rule.source = {0x0A000000, 0xFF000000};
  rule.destination = {0xC0000201, 0xFFFFFFFF};
  rule.sourcePort = {0, 65535};
  rule.destinationPort = {80, 443};
  rule.protocol = {6, 0xFF};
  rule.flags = {0x0200, 0x1200};
  rule.action = {ActionKind::Mark, 7};
  EXPECT_EQ(encode(rule),
            (Words{0x5641434C00010002, 7, 0x0A000000C0000201, 0x12000200FF062008, 0x01BB0050FFFF0000}));
}

TEST(RuleTest, OtherWordsAreNoRule) {
  Words const good = encode(Rule());
  ASSERT_TRUE(decode(good));
  auto const with = [&](std::size_t i, U64 word) {
    Words words = good;
    words[i] = word;
    return decode(words).has_value();
  };
  EXPECT_FALSE(decode(std::span(good).first(4)));
  EXPECT_FALSE(with(0, 0)) << "not marked as a rule";
  EXPECT_FALSE(with(0, good[0] + (U64{1} << 16))) << "another version";
  EXPECT_FALSE(with(0, good[0] + 3)) << "an unknown action";
  EXPECT_FALSE(with(1, 1)) << "permit takes no argument";
  EXPECT_FALSE(with(2, 1)) << "an address bit that the prefix does not look at";
  EXPECT_FALSE(with(3, 33)) << "a prefix of 33 bits";
  EXPECT_FALSE(with(3, U64{1} << 16)) << "a protocol bit that the mask does not look at";
  EXPECT_FALSE(with(4, U64{5})) << "ports from 5 to 0";
}

}  // namespace
}  // namespace Acl
