// SPDX-License-Identifier: Apache-2.0
// The table in the kernel, as a back end of the agent. A build without it (xdp_absent.cpp) says so.
//
// Errors: std::runtime_error with one sentence when the build, the kernel, a capability or the interface
//   does not allow it.
#pragma once

#include "hw/driver.h"
#include "hw/xdp/program.h"
#include "ostra/entity.h"

namespace Vantreld {

// One object, as what is published and as what the executor drives.
struct XdpHardware {
  Ostra::Ptr<Ostra::Entity> entity;
  Hw::Driver* driver = nullptr;
};

XdpHardware makeXdp(Hw::XdpOptions const& options);
// Takes away what an earlier run left.
void detachXdp(Hw::XdpOptions const& options);

}  // namespace Vantreld
