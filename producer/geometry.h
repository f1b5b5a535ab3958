// SPDX-License-Identifier: Apache-2.0
// Geometry: how many positions the agent of a directory has, and how its engine numbers them. The agent
// writes it beside its tables when it starts, into DIR/geometry; producers take it from there, so that nobody
// has to repeat the agent's flags. docs/formats/geometry-file.md has the lines.
//
// Invariants: the file is replaced as a whole: a reader finds the old one or the new one. It outlives the
//   agent and says what the last one had.
// Threading: a value.
// Errors: std::runtime_error, one sentence, for a file that cannot be read or written or has other lines.
#pragma once

#include <optional>
#include <string>

#include "vantrel/core/mapping.h"

namespace Vantrel {

struct VANTREL_API Geometry {
  U32 size = 131072;                         // positions 0 to size-1
  U32 prioGrpShift = Mapping::defaultShift;  // bits of a precedence index that hold the position
  U32 maxPartitions = 0;                     // of the algorithmic engine; 0: the engine is the fast one

  char const* engine() const { return maxPartitions == 0 ? "fast" : "atcam"; }
  Mapping mapping() const;

  static std::string path(std::string const& dir) { return dir + "/geometry"; }
  // Nothing when no agent has written one.
  static std::optional<Geometry> read(std::string const& dir);
  void write(std::string const& dir) const;

  friend bool operator==(Geometry const&, Geometry const&) = default;
};

}  // namespace Vantrel
