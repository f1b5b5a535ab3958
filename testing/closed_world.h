// SPDX-License-Identifier: Apache-2.0
// Closed worlds: a small world is explored until nothing new appears. From every state that can be reached
// every operation is run, on engine and model, with every comparison and audit of Differ, and in no state may
// a claim stand on a position that is free and in order.
//
//   empty --put 1 at 0--> [1] --put 2 at 0--> [1, ?2] --remove 1--> [2], which is [1]: seen before
//
// States are told apart by their canonical form (canonical.h). Engine and tables can neither be copied nor
// set to a state, and a replay from the start would cost as many steps as the state is deep. So the world is
// walked: an operation that was not run in this state is run; where all were, the walk goes on over known
// operations to the nearest state that has some left, mostly two or three steps away. Where there is none,
// and after a number of steps that keeps versions comparable, the walk begins anew in the initial state.
//
// A state is reached by many ways. Each operation that is run a second time must lead to the state that it
// led to before, and a sample of them must make the same calls: a canonical form that merged states of
// different behaviour would be found here. When the world is closed, a random walk repeats more of them.
//
// Invariants: a closed world has run each of its operations in each of its states, but those that would end
//   the process.
// Ownership: plain values.
// Threading: one in a process, as World: the record pool and the clock are the process's.
// Cost: about three steps of the harness for an operation in a state; some 50 bytes a state, and 6 for each
//   of its operations: the state that it leads to, of which the ways and at the end the depths are made, and
//   the sampled calls.
// Errors: Difference.
#pragma once

#include <functional>

#include "testing/canonical.h"
#include "testing/small_world.h"

namespace Testing {

struct Closed {
  bool closed = false;  // false: the limit was reached
  U64 states = 0;
  U64 upToNames = 0;    // of these, those that differ in more than names
  U64 transitions = 0;  // operations run in a state for the first time
  U64 ending = 0;       // of these, not run: they would end the process
  U64 repeated = 0;     // run again, compared with the first time
  U64 sampled = 0;      // of these, with the calls that they made
  U64 choices = 0;      // of the transitions, where the deadlock check had more than one key to begin with
  U64 otherWays = 0;    // of the repeated ones, where it chose and another state followed than the first time
  U64 rings = 0;        // broken, in transitions
  U64 walks = 0;
  U32 depth = 0;               // steps to the state that is farthest from the beginning
  std::vector<U64> deep = {};  // how many states are that many steps away
};

struct Closing {
  bool rename = true;  // keys, groups and handles, where the operations allow it
  FormOf form = FormOf::Everything;
  U64 mostTransitions = ~U64{0};
  double repeat = 0.02;  // how many transitions the walk at the end repeats, of all
  // Called now and then with what was found so far, and how many transitions of the known states are left.
  std::function<void(Closed const&, U64 left)> progress = {};
  // Called before each step: tests break the engine here.
  std::function<void(Differ&)> meddle = {};
};

// Throws Difference; `scenario` is what led to it.
Closed close(SmallWorld const& world, Closing const& how, Scenario& scenario);

}  // namespace Testing
