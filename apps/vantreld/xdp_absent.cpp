// SPDX-License-Identifier: Apache-2.0
// A build without the table in the kernel.
#include <stdexcept>

#include "apps/vantreld/xdp_hardware.h"

namespace Vantreld {
namespace {

[[noreturn]] void absent() {
  throw std::runtime_error("--hw xdp: this vantreld was built without libbpf, or without clang for BPF");
}

}  // namespace

XdpHardware makeXdp(Hw::XdpOptions const&) { absent(); }
void detachXdp(Hw::XdpOptions const&) { absent(); }

}  // namespace Vantreld
