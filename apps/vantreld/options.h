// SPDX-License-Identifier: Apache-2.0
// The agent's command line.
#pragma once

#include <string>

#include "hw/xdp/program.h"
#include "pallo/types.h"
#include "producer/geometry.h"
#include "vantrel/core/mapping.h"

namespace Vantreld {

enum class EngineKind { Fast, Atcam };
enum class HardwareKind { Sim, Null, Xdp };

// What simulated hardware is like.
struct SimOptions {
  U32 latencyUs = 0;                          // a call
  U32 atOnce = 1;                             // calls that may be under way
  double busy = 0, refused = 0, unknown = 0;  // shares of the calls, 0 to 1
  U32 capacity = 0;                           // entries; 0: one at each position
  U64 diesAt = 0;                             // the number of a call; 0: it lives
  std::string state;                          // the file of its contents; empty: it forgets them
};

struct Options {
  std::string dir;
  EngineKind engine = EngineKind::Fast;
  U32 maxPartitions = 0;  // of the algorithmic engine
  U32 prioGrpShift = 0;   // 0: the engine's own
  U32 size = 131072;      // positions in hardware
  HardwareKind hardware = HardwareKind::Sim;
  SimOptions sim;
  Hw::XdpOptions xdp;
  std::string metrics;       // the file for a textfile collector; empty: none
  U32 metricsInterval = 15;  // seconds between two of its texts
  U32 warnAfter = 60;        // seconds that an entry may wait before it is named
  bool detach = false;       // take away what an earlier run left attached, and end
  bool keep = false;         // stop without withdrawing
  bool strict = false;  // leave rings through entries that wait for the priority order, and failed retries

  Vantrel::Geometry geometry() const;
  Vantrel::Mapping mapping() const;
};

// Parses the command line. A wrong flag prints what is wrong and ends the process with status 2, --help
// prints the help and ends it with 0.
Options parse(int argc, char** argv);

}  // namespace Vantreld
