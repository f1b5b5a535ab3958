// SPDX-License-Identifier: Apache-2.0
#include "shoal/table.h"

namespace Shoal {

void TableBase::corruptionDetected(std::string_view message) const {
  ++corruptions_;
  lastCorruption_ = message;
}

}  // namespace Shoal
