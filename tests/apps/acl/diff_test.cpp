// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/diff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "tests/apps/acl/random_rules.h"

namespace Acl {
namespace {

// A rule of its own destination: it overlaps only rules of the same one.
Rule rule(U32 destination, U16 port = 0) {
  Rule r;
  r.destination = {destination << 8, 0xFFFFFF00};
  r.sourcePort = {port, port};
  return r;
}
// Overlaps every other rule.
Rule any() { return {}; }

std::vector<Held> heldAfter(Diff const& diff, std::vector<Rule> const& wanted) {
  std::vector<Held> held;
  for (std::size_t i = 0; i < wanted.size(); ++i) held.push_back({wanted[i], diff.placed[i].prio});
  return held;
}

void expectSound(std::vector<Held> const& held, std::vector<Rule> const& wanted, Diff const& diff) {
  ASSERT_EQ(diff.placed.size(), wanted.size());
  std::set<std::size_t> used;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    Placed const& placed = diff.placed[i];
    if (i) {
      ASSERT_LE(diff.placed[i - 1].prio, placed.prio) << "priorities fall at rule " << i;
    }
    for (std::size_t j = 0; j < i; ++j) {
      ASSERT_FALSE(diff.placed[j].prio == placed.prio && overlap(wanted[j], wanted[i]))
          << "rules " << j << " and " << i << " overlap and share " << placed.prio;
    }
    if (!placed.held) continue;
    ASSERT_TRUE(used.insert(*placed.held).second) << "an entry stays twice";
    Rule match = held[*placed.held].rule;
    match.action = wanted[i].action;
    ASSERT_EQ(match, wanted[i]);
    ASSERT_EQ(held[*placed.held].prio, placed.prio) << "an entry that stays keeps its priority";
  }
  ASSERT_EQ(used.size() + diff.leftover.size(), held.size());
  for (std::size_t const left : diff.leftover) ASSERT_FALSE(used.contains(left));
}

std::size_t staying(Diff const& diff) {
  return static_cast<std::size_t>(
      std::ranges::count_if(diff.placed, [](Placed const& p) { return p.held.has_value(); }));
}

TEST(DiffTest, RulesThatOverlapGetRisingPriorities) {
  std::vector<Rule> const wanted{any(), any(), any()};
  Diff const d = diff({}, wanted);
  EXPECT_EQ(d.placed[0].prio, priorityStep);
  EXPECT_EQ(d.placed[1].prio, 2 * priorityStep);
  EXPECT_EQ(d.placed[2].prio, 3 * priorityStep);
}

TEST(DiffTest, NeighboursThatDoNotOverlapShareAPriority) {
  std::vector<Rule> const wanted{rule(1), rule(2), rule(3), any(), rule(4)};
  Diff const d = diff({}, wanted);
  EXPECT_EQ(d.placed[0].prio, d.placed[2].prio);
  EXPECT_LT(d.placed[2].prio, d.placed[3].prio);
  EXPECT_LT(d.placed[3].prio, d.placed[4].prio);
}

TEST(DiffTest, TheSameRulesStay) {
  std::vector<Rule> const wanted{rule(1), any(), any(), rule(2), rule(2), any()};
  std::vector<Held> const held = heldAfter(diff({}, wanted), wanted);
  Diff const d = diff(held, wanted);
  expectSound(held, wanted, d);
  EXPECT_EQ(staying(d), wanted.size());
  EXPECT_TRUE(d.leftover.empty());
}

TEST(DiffTest, RulesOfOneBandTradePlacesWithoutAnyChange) {
  std::vector<Rule> const before{any(), rule(1), rule(2), rule(3), any()};
  std::vector<Rule> const after{any(), rule(3), rule(1), rule(2), any()};
  std::vector<Held> const held = heldAfter(diff({}, before), before);
  Diff const d = diff(held, after);
  expectSound(held, after, d);
  EXPECT_EQ(staying(d), after.size());
}

TEST(DiffTest, AnotherActionIsTheSameEntry) {
  std::vector<Rule> wanted{rule(1), any()};
  std::vector<Held> const held = heldAfter(diff({}, wanted), wanted);
  wanted[1].action.kind = ActionKind::Deny;
  EXPECT_EQ(staying(diff(held, wanted)), 2U);
}

TEST(DiffTest, ANewRuleGoesBetweenItsNeighbours) {
  std::vector<Rule> const before{any(), any()};
  std::vector<Held> const held = heldAfter(diff({}, before), before);
  std::vector<Rule> const after{any(), rule(1), any()};
  Diff const d = diff(held, after);
  expectSound(held, after, d);
  EXPECT_EQ(staying(d), 2U);
}

TEST(DiffTest, ARuleThatOverlapsABandSplitsIt) {
  std::vector<Rule> const before{rule(1), rule(2), rule(3), rule(4), rule(5)};
  std::vector<Held> const held = heldAfter(diff({}, before), before);
  std::vector<Rule> after = before;
  after.insert(after.begin() + 1, any());
  Diff const d = diff(held, after);
  expectSound(held, after, d);
  EXPECT_EQ(staying(d), 4U) << "only the smaller side of the band starts anew";
}

TEST(DiffTest, WithoutRoomAStretchStartsAnew) {
  std::vector<Rule> wanted;
  for (U32 i = 0; i < 100; ++i) wanted.push_back(rule(7, static_cast<U16>(i % 3)));
  std::vector<Held> held;
  Diff d = diff(held, wanted, 16);
  std::size_t stayed = 0;
  U16 port = 3;
  for (int i = 0; i < 40; ++i) {
    held = heldAfter(d, wanted);
    wanted.insert(wanted.begin() + 50, Rule());
    wanted[50].sourcePort = {0, ++port};
    d = diff(held, wanted, 16);
    expectSound(held, wanted, d);
    EXPECT_GT(staying(d), 0U);
    stayed += staying(d);
  }
  EXPECT_LT(stayed, 40 * 119U) << "room never ran out";
  EXPECT_GT(stayed, 40 * 100U) << "most stretches are short";
}

TEST(DiffTest, PrioritiesEndBelowTheGreatest) {
  std::vector<Held> const held{{any(), 0xFFFFFFFE}};
  std::vector<Rule> const wanted{any(), rule(1), any(), rule(2)};
  Diff const d = diff(held, wanted);
  expectSound(held, wanted, d);
}

TEST(DiffTest, APriorityOfZeroIsTakenOver) {
  std::vector<Held> const held{{rule(1), 0}, {any(), 1}};
  std::vector<Rule> const wanted{any(), rule(1), any()};
  Diff const d = diff(held, wanted);
  expectSound(held, wanted, d);
}

TEST(DiffTest, ATableThatBreaksTheOrderIsPutRight) {
  std::vector<Held> const held{{any(), 5}, {rule(1), 5}, {rule(2), 5}};
  std::vector<Rule> const wanted{any(), rule(1), rule(2)};
  Diff const d = diff(held, wanted);
  expectSound(held, wanted, d);
}

TEST(DiffTest, ManyEqualRules) {
  std::vector<Rule> const wanted(500, any());
  std::vector<Held> const held = heldAfter(diff({}, wanted), wanted);
  EXPECT_EQ(staying(diff(held, wanted)), 500U);
  std::vector<Rule> const fewer(480, any());
  Diff const d = diff(held, fewer);
  expectSound(held, fewer, d);
  EXPECT_EQ(staying(d), 480U);
}

// The largest set of entries that can stay, by trying all, when every rule occurs once.
std::size_t mostThatFit(std::vector<Held> const& held, std::vector<Rule> const& wanted) {
  std::vector<U32> prios;
  for (Rule const& rule : wanted) {
    auto const at = std::ranges::find(held, rule, &Held::rule);
    if (at != held.end()) prios.push_back(at->prio);
  }
  std::size_t best = 0;
  for (U32 set = 0; set < 1U << prios.size(); ++set) {
    std::vector<U32> chosen;
    for (std::size_t i = 0; i < prios.size(); ++i)
      if (set >> i & 1) chosen.push_back(prios[i]);
    if (std::ranges::is_sorted(chosen)) best = std::max(best, chosen.size());
  }
  return best;
}

TEST(DiffTest, AsManyStayAsCan) {
  std::mt19937 random(6);
  for (int i = 0; i < 2000; ++i) {
    // Rules that all overlap: no band is ever split, so that the longest fit is what stays.
    std::vector<Rule> all;
    for (U16 p = 1; p <= 12; ++p) {
      all.push_back(any());
      all.back().sourcePort = {0, p};
    }
    std::ranges::shuffle(all, random);
    std::vector<Rule> const before(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(random() % 9));
    std::ranges::shuffle(all, random);
    std::vector<Rule> const after(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(random() % 9));
    std::vector<Held> const held = heldAfter(diff({}, before), before);
    Diff const d = diff(held, after);
    expectSound(held, after, d);
    ASSERT_EQ(staying(d), mostThatFit(held, after)) << "case " << i;
  }
}

TEST(DiffTest, RandomEditsOfRulesThatRepeatAndOverlap) {
  std::mt19937 random(7);
  for (int run = 0; run < 200; ++run) {
    U32 const step = run % 4 == 0 ? 2 : priorityStep;
    std::vector<Rule> wanted;
    std::vector<Held> held;
    for (int edit = 0; edit < 12; ++edit) {
      for (int n = 0; n < 6; ++n) {
        auto const at = wanted.begin() + static_cast<std::ptrdiff_t>(random() % (wanted.size() + 1));
        if (at != wanted.end() && random() % 3 == 0)
          wanted.erase(at);
        else
          wanted.insert(at, randomRule(random, 1));
      }
      if (wanted.size() > 3 && random() % 2)
        std::reverse(wanted.begin() + 1,
                     wanted.begin() + static_cast<std::ptrdiff_t>(2 + random() % (wanted.size() - 2)));
      Diff const d = diff(held, wanted, step);
      expectSound(held, wanted, d);
      if (HasFatalFailure()) return;
      held = heldAfter(d, wanted);
      std::ranges::shuffle(held, random);
    }
  }
}

}  // namespace
}  // namespace Acl
