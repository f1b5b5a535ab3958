// SPDX-License-Identifier: Apache-2.0
// Small worlds, tried exhaustively: every sequence of a given length over a short list of operations, each
// run from an empty world (or a given beginning) on engine and model.
//
// Of sequences that differ only in the names of keys, groups or handles one is tried: a name is used only
// after the smaller ones. An operation that would end the process is left out, and so is what would follow.
#pragma once

#include <string>
#include <vector>

#include "testing/differ.h"

namespace Testing {

// One letter of the alphabet. Its version, unless given, is one that rises with the place in the sequence.
struct Operation {
  Step step;
  U32 key = 0;  // index of the key's, group's and handle's name; the step carries the values
  U32 group = 0;
  U32 handle = 0;
  bool givenOpId = false;
};

struct SmallWorld {
  std::string name = {};
  EngineChoice engine = {};
  std::vector<Step> beginning = {};
  std::vector<Operation> alphabet = {};
  U32 length = 4;
  U32 keysNamed = 0;      // names that the beginning has used already
  bool symmetric = true;  // keys may be renamed
  bool symmetricGroups = true;
  bool mayEndProcess = false;  // some operations end the process after some others
  bool large = false;          // too many states to be closed in a minute

  // The operation as the n-th step after the beginning, from 1.
  Step step(Operation const& operation, U64 n) const;
};

struct Explored {
  U64 sequences = 0;  // of full length
  U64 prefixes = 0;   // distinct sequences of any length, each compared
  U64 steps = 0;      // run and compared, without the beginnings and the way back to the empty world
  U64 rings = 0;
};

// Throws Difference; `scenario` is the sequence that was being run then.
Explored explore(SmallWorld const& world, Scenario& scenario);

// The worlds of the check; with `extra`, each sequence is that much longer, or shorter.
std::vector<SmallWorld> smallWorlds(int extra);
// The worlds that closed_world.h closes: the same, and a small one with every key notified again.
std::vector<SmallWorld> closedWorlds();

}  // namespace Testing
