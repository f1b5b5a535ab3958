// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/mapping.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace Vantrel {
namespace {

constexpr U32 noPosition = 0xFFFFFFFF;  // the engine's "programmed nowhere"

// Groups share one precedence order when a position takes all bits: only the first is left.
std::optional<std::string> violationOf(TcamMapping const& mapping, U16 pg, U32 ti) {
  if (!mapping.hasPosition(ti)) return fmt::format("position {} is not below 2^{}", ti, mapping.shift);
  U32 const groupBits = Mapping::mostShift - mapping.shift;
  if (!mapping.hasGroup(pg) || (groupBits == 0 && pg != 0))
    return fmt::format("group {} is not below 2^{}", pg, groupBits);
  return std::nullopt;
}

std::optional<std::string> violationOf(AlgorithmicMapping const& mapping, U16 pg, U32 ti) {
  if (mapping.partition(ti) != pg)
    return fmt::format("position {} belongs to group {} of {} partitions, not to group {}", ti,
                       mapping.partition(ti), mapping.partitions, pg);
  if (!mapping.hasOffset(ti))
    return fmt::format("position {} has offset {} in its partition, which is above 65535", ti,
                       mapping.offset(ti));
  return std::nullopt;
}

}  // namespace

Mapping Mapping::fast(U32 prioGrpShift) {
  if (prioGrpShift > mostShift)
    throw std::invalid_argument(
        fmt::format("prioGrpShift must be at most {}, instead got {}", mostShift, prioGrpShift));
  return Mapping(prioGrpShift, 0);
}

Mapping Mapping::algorithmic(U32 maxPartitions) {
  if (maxPartitions == 0 || maxPartitions > AlgorithmicMapping::offsets)
    throw std::invalid_argument(
        fmt::format("the number of partitions must be from 1 to 65536, instead got {}", maxPartitions));
  return Mapping(AlgorithmicMapping::defaultShift, maxPartitions);
}

std::optional<std::string> Mapping::violation(U16 pg, U32 ti) const {
  if (ti == noPosition) return fmt::format("position {} means nowhere", ti);
  return isAlgorithmic() ? violationOf(algorithmic_, pg, ti) : violationOf(tcam_, pg, ti);
}

U32 Mapping::capacity(U16 pg, U32 size) const {
  U64 const usable = std::min<U64>(size, positions());
  if (!isAlgorithmic()) return static_cast<U32>(usable);
  return usable > pg ? static_cast<U32>((usable - pg - 1) / algorithmic_.partitions + 1) : 0;
}

U64 Mapping::positions() const {
  U64 const all =
      isAlgorithmic() ? U64{algorithmic_.partitions} * AlgorithmicMapping::offsets : U64{1} << tcam_.shift;
  return std::min<U64>(all, noPosition);
}

}  // namespace Vantrel
