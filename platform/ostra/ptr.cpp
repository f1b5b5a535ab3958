// SPDX-License-Identifier: Apache-2.0
#include "ostra/ptr.h"

namespace Ostra {
namespace Detail {
bool atomicCounts = false;
}

bool threadSafeReferences() { return Detail::atomicCounts; }
void threadSafeReferencesIs(bool on) { Detail::atomicCounts = on; }

PtrInterface::~PtrInterface() = default;

}  // namespace Ostra
