// SPDX-License-Identifier: Apache-2.0
// Random edits of a list that a planner has, and what is to be done about each: given to a sink, which writes
// them in one way or another.
#pragma once

#include <functional>

#include "tests/producer/planner/hardware.h"
#include "tests/producer/planner/worlds.h"

namespace Planning {

class Edits {
 public:
  using Sink = std::function<void(std::vector<Write> const&)>;

  Edits(U64 seed, World world, Planner::Settings const& settings, Hardware& hardware, Sink sink)
      : planner(settings), generator_(seed, world), hardware_(hardware), sink_(std::move(sink)) {}

  Planner planner;

  void one() {
    std::vector<U32> const list = planner.list();
    switch (generator_.below(10)) {
      case 0:
      case 1:
      case 2:
        if (!list.empty()) return erase(list[generator_.below(list.size())]);
        break;
      case 3:
        if (!list.empty()) return reorder(list[generator_.below(list.size())], place(list));
        break;
      case 4:
        if (generator_.below(20) == 0) return assign(list);
        break;
      default:
        break;
    }
    if (planner.freePlaces() == 0)
      EXPECT_THROW(planner.insert(generator_.match(), place(list)), WindowFull);
    else
      insert(place(list));
  }

  void fill(U32 rules) {
    while (planner.list().size() < rules) insert(place(planner.list()));
  }
  // Inserts before this rule one that overlaps whatever is there.
  U32 insertOverlappingAll(U32 before) {
    U32 const rule = planner.insert({}, before);
    written();
    return rule;
  }

 private:
  U32 place(std::vector<U32> const& list) {
    U32 const i = generator_.below(list.size() + 1);
    return i < list.size() ? list[i] : Planner::atEnd;
  }
  void insert(U32 before) {
    planner.insert(generator_.match(), before);
    written();
  }
  void erase(U32 rule) {
    hardware_.unguard(rule);
    planner.erase(rule);
    written();
  }
  void reorder(U32 rule, U32 before) {
    std::vector<U32> const list = planner.list();
    hardware_.exceptOldOf(rule);
    try {
      planner.reorder(rule, before);
    } catch (WindowFull const&) {
      EXPECT_EQ(planner.freePlaces(), 0U);
      EXPECT_EQ(planner.list(), list);
    }
    written();
  }
  // Drops some, turns the others' neighbours round, and adds some.
  void assign(std::vector<U32> const& list) {
    std::vector<Match> wanted;
    for (U32 const rule : list)
      if (generator_.below(4) != 0) wanted.push_back(planner.match(rule));
    for (std::size_t i = 1; i < wanted.size(); i += 5) std::swap(wanted[i - 1], wanted[i]);
    if (planner.freePlaces() > 1) wanted.push_back(generator_.match());
    for (U32 const rule : list) hardware_.exceptOldOf(rule), hardware_.unguard(rule);
    planner.assign(wanted);
    std::vector<Match> held;
    for (U32 const rule : planner.list()) held.push_back(planner.match(rule));
    EXPECT_EQ(held, wanted);
    written();
  }
  void written() {
    hardware_.listIs(planner.list(), planner);
    sink_(planner.takeWrites());
    EXPECT_EQ(planner.audit(), "");
    expectArrived();
    hardware_.guard();
  }
  void expectArrived() {
    std::vector<U32> const list = planner.list();
    EXPECT_EQ(hardware_.entries().size(), list.size());
    for (U32 const rule : list) {
      ASSERT_TRUE(hardware_.entries().contains(planner.key(rule)));
      Hardware::Entry const& entry = hardware_.entries().at(planner.key(rule));
      EXPECT_EQ(entry.position, planner.position(rule));
      EXPECT_EQ(entry.priority, planner.priority(rule));
    }
  }

  MatchGenerator generator_;
  Hardware& hardware_;
  Sink sink_;
};

}  // namespace Planning
