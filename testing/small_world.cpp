// SPDX-License-Identifier: Apache-2.0
#include "testing/small_world.h"

#include <algorithm>
#include <string_view>

namespace Testing {
namespace {

using Vantrel::EntryConfig;
using Vantrel::OpId;

// The names that a sequence has used so far.
struct Names {
  U32 keys = 0;
  U32 groups = 0;
  U32 handles = 0;
};

class Explorer {
 public:
  Explorer(SmallWorld const& world, Scenario& scenario)
      : world_(world), scenario_(scenario), differ_(world.engine) {}

  Explored run() {
    extend(0, {world_.keysNamed, 0, 0});
    return explored_;
  }

 private:
  static constexpr U32 all = 0xFFFFFFFF;

  bool named(Operation const& o, Names const& names) const {
    if (world_.symmetric && o.key > names.keys) return false;
    return !world_.symmetricGroups || (o.group <= names.groups && o.handle <= names.handles);
  }

  // Tries every sequence that begins with the path so far. Returns how much of the path may stand: less
  // than `depth` when an operation in it ends the process.
  U32 extend(U32 depth, Names const& names) {
    if (depth == world_.length) return runPath();
    for (Operation const& o : world_.alphabet) {
      if (!named(o, names)) continue;
      path_.push_back(&o);
      fresh_ = std::min(fresh_, depth);
      Names const next{std::max(names.keys, o.key + 1), std::max(names.groups, o.group + 1),
                       std::max(names.handles, o.handle + 1)};
      U32 const standing = extend(depth + 1, next);
      path_.pop_back();
      if (standing < depth) return standing;
    }
    return all;
  }

  U32 runPath() {
    differ_.empty();
    scenario_ = {world_.engine, {}};
    for (Step const& step : world_.beginning) runStep(step);
    for (U32 i = 0; i < world_.length; ++i) {
      Step const step = world_.step(*path_[i], i + 1);
      if (world_.mayEndProcess && !differ_.endsProcess(step).empty()) return fresh_ = i;
      if (i >= fresh_) ++explored_.prefixes;
      ++explored_.steps;
      runStep(step);
    }
    ++explored_.sequences;
    fresh_ = world_.length;
    return all;
  }

  void runStep(Step const& step) {
    scenario_.steps.push_back(step);
    differ_.run(step);
    for (Event const& event : differ_.events())
      if (event.kind == EventKind::DeleteDeadlock) ++explored_.rings;
    if (auto const idle = differ_.idleClaim(); idle && differ_.model().lostInDrain() == 0)
      throw Difference("key " + std::to_string(*idle) + " waits for a position that is free and in order");
  }

  SmallWorld const& world_;
  Scenario& scenario_;
  Differ differ_;
  std::vector<Operation const*> path_;
  U32 fresh_ = 0;  // the first place of the path that differs from the path run before
  Explored explored_;
};

// Alphabets. Key i is called i + 1 and has the handle i + 1 unless handles are part of the world.
struct Range {
  U32 keys = 3;
  std::vector<U32> positions = {0, 1, 2};
  U32 priorities = 1;
  U32 groups = 1;
};

void addPuts(SmallWorld& world, Range const& range, bool quiet = false) {
  for (U32 key = 0; key < range.keys; ++key)
    for (U32 group = 0; group < range.groups; ++group)
      for (U32 prio = 0; prio < range.priorities; ++prio)
        for (U32 ti : range.positions) {
          Operation o{put(record(key + 1, 0, key + 1, static_cast<U16>(group), prio, ti), quiet), key, group,
                      0, false};
          world.alphabet.push_back(o);
        }
}

void addMarks(SmallWorld& world, U32 keys, bool quiet = false) {
  for (U32 key = 0; key < keys; ++key) {
    EntryConfig mark = record(key + 1, 0, key + 1, 0, 0, 0);
    mark.isDelIs(true);
    world.alphabet.push_back({put(mark, quiet), key, 0, 0, false});
  }
}

void addRemoves(SmallWorld& world, U32 keys, bool quiet = false) {
  for (U32 key = 0; key < keys; ++key) world.alphabet.push_back({remove(key + 1, quiet), key, 0, 0, false});
}

void addNotifies(SmallWorld& world, U32 keys) {
  for (U32 key = 0; key < keys; ++key) world.alphabet.push_back({notify(key + 1), key, 0, 0, false});
}

SmallWorld oneGroup() {
  SmallWorld w{.name = "OneGroup", .length = 5};
  addPuts(w, {.keys = 3, .positions = {0, 1, 2}, .priorities = 2});
  addRemoves(w, 3);
  addMarks(w, 3);
  return w;
}

SmallWorld notified() {
  SmallWorld w{.name = "Notified", .length = 5};
  addPuts(w, {.keys = 3, .positions = {0, 1, 2}, .priorities = 2});
  addRemoves(w, 3);
  addNotifies(w, 3);
  return w;
}

SmallWorld priorities() {
  SmallWorld w{.name = "Priorities", .length = 4};
  addPuts(w, {.keys = 3, .positions = {0, 1, 2, 3}, .priorities = 3});
  addRemoves(w, 3);
  addMarks(w, 3);
  return w;
}

SmallWorld twoGroups() {
  SmallWorld w{.name = "TwoGroups", .length = 5};
  addPuts(w, {.keys = 3, .positions = {0, 1}, .priorities = 2, .groups = 2});
  addRemoves(w, 3);
  return w;
}

SmallWorld threeGroups() {
  SmallWorld w{.name = "ThreeGroups", .length = 4};
  addPuts(w, {.keys = 4, .positions = {0, 1, 2}, .priorities = 2, .groups = 3});
  return w;
}

SmallWorld quiet() {
  SmallWorld w{.name = "QuietChanges", .length = 5};
  Range const range{.keys = 2, .positions = {0, 1}, .priorities = 1};
  addPuts(w, range);
  addPuts(w, range, true);
  addRemoves(w, 2);
  addRemoves(w, 2, true);
  addMarks(w, 2);
  addMarks(w, 2, true);
  addNotifies(w, 2);
  w.alphabet.push_back({walk(), 0, 0, 0, false});
  return w;
}

SmallWorld rings() {
  SmallWorld w{.name = "Rings", .length = 6};
  addPuts(w, {.keys = 4, .positions = {0, 1, 2, 3}});
  addRemoves(w, 4);
  return w;
}

// No position is free: four keys lie in order, and each is sent anywhere.
SmallWorld fullTable() {
  SmallWorld w{.name = "FullTable", .length = 5, .keysNamed = 4};
  for (U32 i = 0; i < 4; ++i) w.beginning.push_back(put(record(i + 1, (i + 1) << 16, i + 1, 0, i / 2, i)));
  addPuts(w, {.keys = 4, .positions = {0, 1, 2, 3}});
  return w;
}

SmallWorld handles() {
  SmallWorld w{.name = "Handles", .length = 5};
  for (U32 key = 0; key < 3; ++key)
    for (U32 handle = 0; handle < 2; ++handle)
      for (U32 ti = 0; ti < 2; ++ti)
        w.alphabet.push_back({put(record(key + 1, 0, handle + 1, 0, 0, ti)), key, 0, handle, false});
  addRemoves(w, 3);
  addMarks(w, 3);
  return w;
}

SmallWorld versions() {
  SmallWorld w{.name = "Versions", .length = 5, .mayEndProcess = true};
  for (U32 key = 0; key < 2; ++key)
    for (U64 opId : {U64{1} << 16, (U64{1} << 16) + 1, U64{2} << 16, U64{1} << 40})
      for (U32 ti = 0; ti < 2; ++ti)
        w.alphabet.push_back({put(record(key + 1, opId, key + 1, 0, 0, ti)), key, 0, 0, true});
  addRemoves(w, 2);
  return w;
}

SmallWorld failures() {
  SmallWorld w{.name = "Failures", .length = 6, .mayEndProcess = true};
  w.beginning.push_back(set("retryDepsMaxCnt", U64{1}));
  addPuts(w, {.keys = 2, .positions = {0, 1}});
  addRemoves(w, 2);
  for (U32 key = 0; key < 2; ++key) w.alphabet.push_back({fail(key + 1, 1), key, 0, 0, false});
  w.alphabet.push_back({advance(10.0), 0, 0, 0, false});
  return w;
}

// A key stays in its partition: a position of another one ends the process.
SmallWorld algorithmic() {
  SmallWorld w{.name = "Algorithmic", .engine = {true, 2, 0, false}, .length = 4, .symmetric = false};
  for (U32 key = 0; key < 3; ++key)
    for (U32 offset = 0; offset < 3; ++offset)
      for (U32 prio = 0; prio < 2; ++prio) {
        U16 const pg = static_cast<U16>(key % 2);
        Operation o{put(record(key + 1, 0, key + 1, pg, prio, offset * 2 + pg)), key, 0, 0, false};
        w.alphabet.push_back(o);
      }
  addRemoves(w, 3);
  addMarks(w, 3);
  return w;
}

// The same with breakMixedRings. No failure of a dependant may end the process then.
SmallWorld mixed(SmallWorld w) {
  w.name += "Mixed";
  w.mayEndProcess = false;
  w.beginning.insert(w.beginning.begin(), set("breakMixedRings", true, "engine"));
  return w;
}

// Two keys of one group and one of another, in order on four positions. Each may be sent anywhere.
SmallWorld mixedRings() {
  SmallWorld w{.name = "Rings", .length = 5, .keysNamed = 3};
  for (U32 i = 0; i < 3; ++i)
    w.beginning.push_back(
        put(record(i + 1, (i + 1) << 16, i + 1, static_cast<U16>(i / 2), i % 2, i == 2 ? 3 : i)));
  for (U32 i = 0; i < 3; ++i)
    for (U32 ti = 0; ti < 4; ++ti)
      w.alphabet.push_back(
          {put(record(i + 1, 0, i + 1, static_cast<U16>(i / 2), i % 2, ti)), i, 0, 0, false});
  return mixed(w);
}

}  // namespace

Step SmallWorld::step(Operation const& o, U64 n) const {
  Step step = o.step;
  if (step.what != Do::Put || o.givenOpId) return step;
  EntryConfig const& e = o.step.entry;
  U64 const opId = ((beginning.size() + n) << 16) | e.prio();  // another priority is another match
  step.entry = record(e.key().value(), opId, e.hdl(), e.pg(), e.prio(), e.tableIndex(Vantrel::TableKey(0)));
  step.entry.isDelIs(e.isDel());
  return step;
}

Explored explore(SmallWorld const& world, Scenario& scenario) { return Explorer(world, scenario).run(); }

std::vector<SmallWorld> smallWorlds(int extra) {
  std::vector<SmallWorld> worlds = {oneGroup(),     priorities(),      twoGroups(),   threeGroups(),
                                    quiet(),        rings(),           fullTable(),   handles(),
                                    versions(),     failures(),        algorithmic(), mixed(threeGroups()),
                                    mixed(quiet()), mixed(failures()), mixedRings()};
  for (SmallWorld& world : worlds) world.length = static_cast<U32>(static_cast<int>(world.length) + extra);
  return worlds;
}

std::vector<SmallWorld> closedWorlds() {
  std::vector<SmallWorld> worlds = smallWorlds(0);
  worlds.insert(worlds.begin(), {notified(), mixed(notified())});
  for (SmallWorld& world : worlds)
    for (std::string_view const name :
         {"NotifiedMixed", "OneGroup", "Priorities", "TwoGroups", "ThreeGroups", "ThreeGroupsMixed"})
      if (world.name == name) world.large = true;
  return worlds;
}

}  // namespace Testing
