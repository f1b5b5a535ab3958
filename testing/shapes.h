// SPDX-License-Identifier: Apache-2.0
// Shapes of random scenarios: the parameters of a walk, and the generator of its steps. A walk never does
// what a producer must not do (write a version between the programmed and the waiting one, or a position of
// another partition), for that ends the process.
//
// Ownership: plain values; the generator only reads the model.
// Cost: a scan of the model a step.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "testing/model/model.h"

namespace Testing {

struct Shape {
  std::string name;
  EngineChoice engine;
  U32 keys = 8;
  U32 positions = 8;  // of each partition, with an algorithmic TCAM
  U32 priorities = 4;
  U32 groups = 1;
  bool groupOfKey = true;  // a key keeps its group and priority; otherwise both may change
  bool sharedHandles = false;
  bool strayOpIds = false;  // stale, equal and far-ahead versions; otherwise they rise across the table
  bool failures = false;    // dependants fail, the clock moves
  bool quietSteps = true;   // changes without a notification, notifications without a change, walks
  bool attributes = false;  // settings change on the way, debug snapshots are asked for
  bool mixedRings = false;  // breakMixedRings is set; with `attributes`, and unset on the way
  U32 removals = 15;        // how many of a hundred steps remove, or mark for deletion
};

// The shapes that the walks and the soak run over.
std::vector<Shape> const& shapes();

// A number from 0 to bound - 1.
using Draw = std::function<U32(U32 bound)>;

class Steps {
 public:
  Steps(Shape const& shape, Draw draw) : shape_(shape), draw_(std::move(draw)) {}
  // Returns the next step of a walk, given the model after the steps so far.
  Step next(Model const& model);

 private:
  Step putStep(Model const& model, U64 key);
  U64 version(Model const& model, U64 key);
  U32 position(U16 pg);
  Step setting();
  Step notification(U64 key);

  Shape const shape_;
  Draw const draw_;
  bool begun_ = false;
  U64 newest_ = 0;
  U32 debugVersion_ = 0;
};

}  // namespace Testing
