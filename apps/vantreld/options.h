// SPDX-License-Identifier: Apache-2.0
// The agent's command line.
#pragma once

#include <string>

#include "pallo/types.h"
#include "vantrel/core/mapping.h"

namespace Vantreld {

enum class EngineKind { Fast, Atcam };
enum class HardwareKind { Sim, Null };

struct Options {
  std::string dir;
  EngineKind engine = EngineKind::Fast;
  U32 maxPartitions = 0;  // of the algorithmic engine
  U32 prioGrpShift = 0;   // 0: the engine's own
  U32 size = 131072;      // positions in hardware
  HardwareKind hardware = HardwareKind::Sim;
  U32 hardwareLatencyUs = 0;

  Vantrel::Mapping mapping() const;
};

// Parses the command line. A wrong flag prints what is wrong and ends the process with status 2, --help
// prints the help and ends it with 0.
Options parse(int argc, char** argv);

}  // namespace Vantreld
