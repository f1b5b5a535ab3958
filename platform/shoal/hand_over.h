// SPDX-License-Identifier: Apache-2.0
// The one message between a writer and a watcher: a byte, and with it a descriptor.
//
// Ownership: the receiver owns what it got.
// Threading: none of its own. Never waits.
#pragma once

namespace Shoal {

// False when the message could not be sent now.
bool handOver(int socket, int descriptor);
// The descriptor that came, -1 when none did. `ended` says that nothing more will come: the other side is
// gone, or the descriptor was lost for want of room for it.
int takeOver(int socket, bool& ended);

}  // namespace Shoal
