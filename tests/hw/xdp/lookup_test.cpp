// SPDX-License-Identifier: Apache-2.0
// The kernel's look-up beside a linear one over the same rules.
#include <map>
#include <optional>

#include "tests/apps/acl/random_rules.h"
#include "tests/apps/acl_generator.h"
#include "tests/hw/xdp/table.h"

namespace XdpTest {
namespace {

constexpr std::size_t headers = 8192;

class LookupTest : public TableTest {};

using Table = std::map<U32, Acl::Rule>;  // by position

std::optional<U32> linear(Table const& table, Header const& h) {
  for (auto const& [ti, rule] : table)
    if (matches(rule, h)) return ti;
  return std::nullopt;
}

// Rules with a drawn action at drawn positions of the whole table, their key one more than the position.
Table scattered(std::vector<Acl::Rule> const& rules, U32 positions, std::mt19937_64& random) {
  Table table;
  U32 const stride = positions / static_cast<U32>(rules.size());
  U32 ti = 0;
  for (Acl::Rule rule : rules) {
    rule.action = {random() % 2 ? Acl::ActionKind::Permit : Acl::ActionKind::Deny, 0};
    table[ti + static_cast<U32>(random() % stride)] = rule;
    ti += stride;
  }
  return table;
}

void expectSame(Hw::XdpTcam& tcam, XdpHook hook, bool permits, Table const& table, std::mt19937_64& random) {
  std::vector<Acl::Rule> rules;
  for (auto const& at : table) rules.push_back(at.second);
  std::map<U32, U64> hits;
  for (std::size_t i = 0; i < headers; ++i) {
    Header const h = headerAround(rules[random() % rules.size()], random);
    auto const first = linear(table, h);
    bool const wanted = first ? table.at(*first).action.kind == Acl::ActionKind::Permit : permits;
    ASSERT_EQ(passes(tcam, hook, frame(h)), wanted) << "header " << i;
    if (first) ++hits[*first];
  }
  U64 decided = 0;
  for (auto const& [ti, rule] : table) {
    ASSERT_EQ(tcam.hits(EntryKey(ti + 1)), hits[ti]) << "position " << ti;
    decided += hits[ti];
  }
  EXPECT_GT(decided, headers / 8);
  EXPECT_EQ(tcam.undecided(noEntryMatches), headers - decided);
}

void compare(XdpHook hook, bool permits, std::vector<Acl::Rule> const& rules, U32 positions) {
  std::mt19937_64 random(7);
  Hw::XdpTcam tcam("hardware", {.hook = hook, .positions = positions, .permits = permits});
  Table const table = scattered(rules, positions, random);
  for (auto const& [ti, rule] : table)
    ASSERT_EQ(tcam.write(entryOf(ti + 1, rule, ti), ti, 1).kind, Hw::Outcome::Kind::Done);
  expectSame(tcam, hook, permits, table, random);
}

TEST_P(LookupTest, EqualsLinearOneForFilterRules) {
  compare(GetParam(), true, Acl::generateRules(3, 1000), 16384);
}

TEST_P(LookupTest, EqualsLinearOneWhenRulesOverlap) {
  std::mt19937_64 random(11);
  std::vector<Acl::Rule> rules;
  rules.reserve(300);
  while (rules.size() < 300) rules.push_back(Acl::randomRule(random, 2));
  compare(GetParam(), false, rules, 1000);
}

TEST_P(LookupTest, EqualsLinearOneAtMostPositions) {
  compare(GetParam(), false, Acl::generateRules(5, 500), mostPositions);
}

INSTANTIATE_TEST_SUITE_P(Hooks, LookupTest, testing::Values(XdpHook::Driver, XdpHook::Tc),
                         [](auto const& p) { return p.param == XdpHook::Tc ? "Tc" : "Xdp"; });

class PolicyTest : public TableTest {
 protected:
  // A table whose one entry decides each packet that it describes, against the verdict for others.
  void make(bool permits) {
    tcam_ = std::make_unique<Hw::XdpTcam>(
        "hardware", Hw::XdpOptions{.hook = GetParam(), .positions = 64, .permits = permits});
    Acl::Rule all;
    all.action.kind = permits ? Acl::ActionKind::Deny : Acl::ActionKind::Permit;
    ASSERT_EQ(tcam_->write(entryOf(1, all, 5), 5, 1).kind, Hw::Outcome::Kind::Done);
  }
  // Counted as that and nothing else, and given the verdict for what no entry decides.
  void expectUndescribed(Bytes const& frame, Reason reason) {
    for (bool const permits : {true, false}) {
      make(permits);
      EXPECT_EQ(passes(*tcam_, GetParam(), frame), permits);
      for (U32 r = 0; r < reasons; ++r)
        EXPECT_EQ(tcam_->undecided(static_cast<Reason>(r)), r == reason ? 1 : 0) << r;
      EXPECT_EQ(tcam_->hits(EntryKey(1)), 0);
    }
  }
  void expectDecided(Bytes const& frame) {
    for (bool const permits : {true, false}) {
      make(permits);
      EXPECT_EQ(passes(*tcam_, GetParam(), frame), !permits);
      EXPECT_EQ(tcam_->hits(EntryKey(1)), 1);
    }
  }
  std::unique_ptr<Hw::XdpTcam> tcam_;
};

TEST_P(PolicyTest, LooksThroughTagsAndOptions) {
  expectDecided(frame({}));
  expectDecided(frame({}, {.tags = 1}));
  expectDecided(frame({}, {.tags = 2}));
  expectDecided(frame({}, {.optionWords = 10}));
  expectDecided(frame({.protocol = icmp}));
  expectDecided(frame({.protocol = 47}));
}

TEST_P(PolicyTest, GivesFragmentsTheDefault) {
  expectUndescribed(frame({}, {.fragment = 0x2000}), fragment);
  expectUndescribed(frame({}, {.fragment = 0x0001}), fragment);
  expectDecided(frame({}, {.fragment = 0x4000}));  // must not be fragmented
}

TEST_P(PolicyTest, GivesOtherProtocolsTheDefault) {
  expectUndescribed(frame({}, {.etherType = 0x86DD}), notIpv4);
  expectUndescribed(frame({}, {.tags = 1, .etherType = 0x88CC}), notIpv4);
  expectUndescribed(frame({}, {.tags = 3}), notIpv4);
}

TEST_P(PolicyTest, GivesMalformedPacketsTheDefault) {
  Bytes cut = frame({});
  cut.resize(14 + 20 + 13);  // flags are missing
  expectUndescribed(cut, malformed);
  Bytes shortHeader = frame({});
  shortHeader[14] = 0x44;
  expectUndescribed(shortHeader, malformed);
  Bytes version = frame({});
  version[14] = 0x65;
  expectUndescribed(version, malformed);
  Bytes padded = frame({});
  padded[17] = 33;  // a length that ends before the flags, the rest is padding
  expectUndescribed(padded, malformed);
}

TEST_P(PolicyTest, LetsArpPass) {
  make(false);
  EXPECT_TRUE(passes(*tcam_, GetParam(), frame({}, {.etherType = 0x0806})));
  EXPECT_EQ(tcam_->undecided(arp), 1);
}

TEST_P(PolicyTest, MatchesFlagsOfTcpOnly) {
  make(true);
  Acl::Rule syn;
  syn.flags = {0x002, 0x012};
  syn.action.kind = Acl::ActionKind::Permit;
  ASSERT_EQ(tcam_->write(entryOf(2, syn, 3), 3, 1).kind, Hw::Outcome::Kind::Done);
  EXPECT_TRUE(passes(*tcam_, GetParam(), frame({.flags = 0x002})));
  EXPECT_FALSE(passes(*tcam_, GetParam(), frame({.flags = 0x012})));
  EXPECT_FALSE(passes(*tcam_, GetParam(), frame({.protocol = udp})));
}

TEST_P(PolicyTest, RefusesWhatItCannotExpress) {
  make(true);
  EntryConfig const noRule(EntryKey(2), OpId(65536), 2, 0, 1);
  EXPECT_EQ(tcam_->write(noRule, 3, 1).kind, Hw::Outcome::Kind::Refused);
  EXPECT_EQ(tcam_->write(entryOf(2, {}, 64), 64, 1).kind, Hw::Outcome::Kind::Refused);
  Acl::Rule mark;
  mark.action = {Acl::ActionKind::Mark, 9};
  auto const kind = tcam_->write(entryOf(2, mark, 3), 3, 1).kind;
  EXPECT_EQ(kind, GetParam() == XdpHook::Tc ? Hw::Outcome::Kind::Done : Hw::Outcome::Kind::Refused);
  if (GetParam() == XdpHook::Tc) {
    EXPECT_EQ(markOf(tcam_->program().fd(), frame({})), 9);
  }
}

INSTANTIATE_TEST_SUITE_P(Hooks, PolicyTest, testing::Values(XdpHook::Driver, XdpHook::Tc),
                         [](auto const& p) { return p.param == XdpHook::Tc ? "Tc" : "Xdp"; });

}  // namespace
}  // namespace XdpTest
