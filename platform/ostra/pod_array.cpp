// SPDX-License-Identifier: Apache-2.0
#include "ostra/pod_array.h"

#include <fmt/format.h>

#include <iterator>

#include "pallo/exception.h"

namespace Ostra {

void throwPodArraySize(std::size_t capacity, std::size_t offered, void const* source,
                       std::size_t elementBytes, std::size_t readable) {
  std::string message = fmt::format(
      "PodArray::set expected size <= {}, instead got {}. Buffer is at address: {}"
      " with contents: ",
      capacity, offered, source);
  std::size_t const wanted = offered > readable / elementBytes ? readable : offered * elementBytes;
  auto const* bytes = static_cast<unsigned char const*>(source);
  for (std::size_t i = 0; i < wanted; ++i) fmt::format_to(std::back_inserter(message), "{:02x}", bytes[i]);
  throw Pallo::InvalidSizeException(message);
}

void throwPodArrayIndex(std::size_t capacity, std::size_t index) {
  throw Pallo::InvalidSizeException(
      fmt::format("PodArray::elementIs expected index < {}, instead got {}", capacity, index));
}

}  // namespace Ostra
