// SPDX-License-Identifier: Apache-2.0
#include "producer/mapping.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace Vantrel {
namespace {

constexpr U32 noPosition = 0xFFFFFFFF;  // the engine's "programmed nowhere"

std::optional<std::string> fastViolation(U32 shift, U16 pg, U32 ti) {
  if (U64{ti} >> shift != 0) return fmt::format("position {} is not below 2^{}", ti, shift);
  U32 const groupBits = Mapping::mostShift - shift;
  if (U64{pg} >> groupBits != 0) return fmt::format("group {} is not below 2^{}", pg, groupBits);
  return std::nullopt;
}

std::optional<std::string> algorithmicViolation(U32 partitions, U16 pg, U32 ti) {
  if (ti % partitions != pg)
    return fmt::format("position {} belongs to group {} of {} partitions, not to group {}", ti,
                       ti % partitions, partitions, pg);
  if (ti / partitions >= Mapping::offsets)
    return fmt::format("position {} has offset {} in its partition, which is above 65535", ti,
                       ti / partitions);
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
  if (maxPartitions == 0 || maxPartitions > offsets)
    throw std::invalid_argument(
        fmt::format("the number of partitions must be from 1 to 65536, instead got {}", maxPartitions));
  return Mapping(16, maxPartitions);
}

std::optional<std::string> Mapping::violation(U16 pg, U32 ti) const {
  if (ti == noPosition) return fmt::format("position {} means nowhere", ti);
  return isAlgorithmic() ? algorithmicViolation(partitions_, pg, ti) : fastViolation(shift_, pg, ti);
}

U32 Mapping::capacity(U16 pg, U32 size) const {
  U64 const usable = std::min<U64>(size, positions());
  if (!isAlgorithmic()) return static_cast<U32>(usable);
  return usable > pg ? static_cast<U32>((usable - pg - 1) / partitions_ + 1) : 0;
}

U64 Mapping::positions() const {
  U64 const all = isAlgorithmic() ? U64{partitions_} * offsets : U64{1} << shift_;
  return std::min<U64>(all, noPosition);
}

}  // namespace Vantrel
