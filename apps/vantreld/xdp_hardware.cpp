// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/xdp_hardware.h"

#include "hw/xdp/tcam.h"

namespace Vantreld {

XdpHardware makeXdp(Hw::XdpOptions const& options) {
  auto const tcam = Ostra::make<Hw::XdpTcam>("hardware", options);
  return {tcam, &*tcam};
}

void detachXdp(Hw::XdpOptions const& options) { Hw::XdpProgram::detach(options); }

}  // namespace Vantreld
