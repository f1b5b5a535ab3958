// SPDX-License-Identifier: Apache-2.0
#include "testing/shapes.h"

#include <algorithm>
#include <utility>

namespace Testing {
namespace {

using Vantrel::DataKey;
using Vantrel::EntryConfig;
using Vantrel::TableKey;

Shape shape(std::string name, void (*fill)(Shape&)) {
  Shape s;
  s.name = std::move(name);
  fill(s);
  return s;
}

std::vector<Shape> makeShapes() {
  std::vector<Shape> all;
  all.push_back(shape("crowded", [](Shape& s) { s.keys = 10, s.positions = 8, s.priorities = 3; }));
  all.push_back(
      shape("rings", [](Shape& s) { s.keys = 6, s.positions = 6, s.priorities = 1, s.removals = 4; }));
  all.push_back(shape("groups", [](Shape& s) { s.keys = 12, s.positions = 10, s.groups = 4; }));
  all.push_back(shape("handles", [](Shape& s) { s.sharedHandles = true, s.groups = 2; }));
  all.push_back(
      shape("opids", [](Shape& s) { s.strayOpIds = true, s.groups = 2, s.keys = 6, s.positions = 6; }));
  all.push_back(shape("failures", [](Shape& s) { s.failures = true, s.keys = 7, s.positions = 6; }));
  all.push_back(shape("changing", [](Shape& s) {
    s.groupOfKey = false, s.groups = 3, s.attributes = true, s.keys = 7, s.positions = 7;
  }));
  all.push_back(
      shape("wide", [](Shape& s) { s.keys = 40, s.positions = 48, s.priorities = 8, s.groups = 2; }));
  all.push_back(shape("atcam", [](Shape& s) {
    s.engine = {true, 3, 0, false}, s.groups = 3, s.keys = 12, s.positions = 4;
  }));
  all.push_back(shape("atcam-all", [](Shape& s) {
    s.engine = {true, 2, 0, false}, s.groups = 2, s.keys = 8, s.positions = 3;
    s.sharedHandles = s.strayOpIds = s.failures = s.attributes = true;
  }));
  all.push_back(shape("everything", [](Shape& s) {
    s.engine = {false, 0, 12, true}, s.groups = 2;
    s.sharedHandles = s.strayOpIds = s.failures = s.attributes = true, s.groupOfKey = false;
  }));
  for (std::size_t i = 0, plain = all.size(); i < plain; ++i) {
    all.push_back(all[i]);
    all.back().name += "-mixed";
    all.back().mixedRings = true;
  }
  return all;
}

}  // namespace

std::vector<Shape> const& shapes() {
  static std::vector<Shape> const all = makeShapes();
  return all;
}

Step Steps::next(Model const& model) {
  if (!std::exchange(begun_, true) && shape_.mixedRings) return set("breakMixedRings", true, "engine");
  U64 const key = 1 + draw_(shape_.keys);
  U32 const dice = draw_(100);
  if (dice < shape_.removals) {
    bool const marked = draw_(3) == 0 && model.table().contains(key);
    if (!marked) return remove(key, shape_.quietSteps && draw_(5) == 0);
    EntryConfig entry = model.table().at(key);
    entry.isDelIs(true);
    return put(entry, shape_.quietSteps && draw_(5) == 0);
  }
  if (shape_.failures && dice < shape_.removals + 12)
    return draw_(2) ? fail(key, static_cast<std::int64_t>(draw_(4)) - 1) : advance(draw_(3) * 5.0);
  if (shape_.attributes && dice < shape_.removals + 18) return setting();
  if (shape_.quietSteps && dice >= 90) return notification(key);
  return putStep(model, key);
}

Step Steps::notification(U64 key) { return draw_(4) == 0 ? walk() : notify(key); }

Step Steps::setting() {
  if (shape_.mixedRings && draw_(4) == 0) return set("breakMixedRings", draw_(3) != 0, "engine");
  switch (draw_(6)) {
    case 0:
      return set("alwaysProcessPending", draw_(2) == 0);
    case 1:
      return set("debugEnabled", draw_(2) == 0);
    case 2:
      return set("retryDepsMaxCnt", U64{draw_(4)});
    case 3:
      return set("retryPeriod", 1.0 + draw_(20));
    case 4:
      return set("failedDepCnt", U64{draw_(4)});
    default:
      return debug(draw_(4) == 0 ? 0 : ++debugVersion_);
  }
}

Step Steps::putStep(Model const& model, U64 key) {
  bool const fixed = shape_.groupOfKey || shape_.engine.atcam;
  U16 const pg = static_cast<U16>(fixed ? key % shape_.groups : draw_(shape_.groups));
  U32 const prio = shape_.groupOfKey ? static_cast<U32>(key / shape_.groups) % shape_.priorities
                                     : draw_(shape_.priorities);
  U32 const hdl = shape_.sharedHandles ? 1 + draw_(shape_.keys / 2 + 1) : static_cast<U32>(key);
  EntryConfig entry = record(key, version(model, key), hdl, pg, prio, position(pg));
  for (U32 i = draw_(3); i > 0; --i) entry.dataIs(DataKey(i - 1), newest_ + i);
  return put(entry, shape_.quietSteps && draw_(6) == 0);
}

U32 Steps::position(U16 pg) {
  U32 const place = draw_(shape_.positions);
  return shape_.engine.atcam ? place * shape_.engine.maxPartitions + pg : place;
}

// Mostly newer than all before, often so that only the high part differs. A stale one is at most the
// programmed one.
U64 Steps::version(Model const& model, U64 key) {
  U32 const kind = shape_.strayOpIds ? draw_(10) : 9;
  auto const at = std::find_if(model.records().begin(), model.records().end(),
                               [&](auto const& r) { return r.key == key; });
  U64 const programmed = at == model.records().end() ? 0 : at->opId;
  if (kind == 0) return programmed;
  if (kind == 1) return programmed - (programmed ? 1 + draw_(2) % programmed : 0);
  if (kind == 2) newest_ += U64{1 + draw_(3)} << 32;
  if (kind == 3) return newest_;  // as new as another key's
  U64 const edge =
      programmed + (U64{65535 + draw_(2)} << 16);  // as far ahead as a version may be, or one more
  if (kind == 4 && edge > newest_) return newest_ = edge;
  newest_ += (U64{1} << 16) + (draw_(2) ? 1 : 0);
  return newest_;
}

}  // namespace Testing
