// SPDX-License-Identifier: Apache-2.0
#include "ostra/pod_array.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "pallo/exception.h"

namespace Ostra {
namespace {

template <class Call>
std::string sizeError(Call call) {
  try {
    call();
  } catch (Pallo::InvalidSizeException const& error) {
    return error.what();
  }
  return "nothing was thrown";
}

using Three = PodArray<U32, 3>;

TEST(PodArrayTest, ElementBeyondTheCapacityIsRefused) {
  Three array;
  array.elementIs(1, 7);
  EXPECT_EQ(sizeError([&] { array.elementIs(3, 9); }),
            "PodArray::elementIs expected index < 3, instead got 3");
  EXPECT_EQ(sizeError([&] { array.elementIs(~std::size_t{0}, 9); }),
            "PodArray::elementIs expected index < 3, instead got 18446744073709551615");
  EXPECT_THAT(array.elements(), testing::ElementsAre(0, 7));
  array.elementIs(2, 9);
  EXPECT_THAT(array.elements(), testing::ElementsAre(0, 7, 9));
}

// Byte by byte as they lie, two digits each, every element.
TEST(PodArrayTest, SizeErrorShowsEveryOfferedElement) {
  std::array<U32, 4> const source{0x01020304, 0xA0B0C0D0, 0, 0xFFFFFFFF};
  Three array;
  array.elementIs(0, 5);
  EXPECT_EQ(sizeError([&] { array.set(source); }),
            fmt::format("PodArray::set expected size <= 3, instead got 4. Buffer is at address: {}"
                        " with contents: 04030201d0c0b0a000000000ffffffff",
                        static_cast<void const*>(source.data())));
  EXPECT_THAT(array.elements(), testing::ElementsAre(5)) << "nothing is copied";
}

TEST(PodArrayTest, SizeErrorReadsNoByteOutsideTheSource) {
  std::array<std::byte, 6> const source{};
  Three array;
  for (std::size_t const offered : {std::size_t{4}, ~std::size_t{0} / 4 + 2})
    EXPECT_THAT(sizeError([&] { array.set(source.data(), offered, source.size()); }),
                testing::EndsWith(" with contents: 000000000000"))
        << offered;
}

TEST(PodArrayTest, TakesAsManyAsItHolds) {
  std::array<U32, 3> const source{1, 2, 3};
  Three array;
  array.set(source);
  EXPECT_THAT(array.elements(), testing::ElementsAre(1, 2, 3));
}

}  // namespace
}  // namespace Ostra
