// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/entry.h"

#include <ostream>

#include "ostra/exception.h"

namespace Vantrel {

std::ostream& operator<<(std::ostream& out, EntryKey const& key) { return out << key.value(); }
std::ostream& operator<<(std::ostream& out, OpId const& opId) { return out << opId.value(); }

namespace Detail {
void throwTableKeyRange() {
  throw Ostra::RangeException("TableKey::value < TableKey::min or > TableKey::max not allowed");
}
void throwDataKeyRange() {
  throw Ostra::RangeException("DataKey::value < DataKey::min or > DataKey::max not allowed");
}
}  // namespace Detail

}  // namespace Vantrel
