// SPDX-License-Identifier: Apache-2.0
#include "vantrel/core/mapping.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Vantrel {
namespace {

bool fits(Mapping const& mapping, U16 pg, U32 ti) { return !mapping.violation(pg, ti); }

TEST(MappingTest, FastSplitsItsBitsBetweenGroupAndPosition) {
  Mapping const mapping = Mapping::fast(19);
  EXPECT_TRUE(fits(mapping, 0, (1U << 19) - 1));
  EXPECT_FALSE(fits(mapping, 0, 1U << 19));
  EXPECT_TRUE(fits(mapping, 8191, 0));
  EXPECT_FALSE(fits(mapping, 8192, 0));
}

TEST(MappingTest, FastShiftsAtTheEnds) {
  EXPECT_TRUE(fits(Mapping::fast(0), 65535, 0));
  EXPECT_FALSE(fits(Mapping::fast(0), 0, 1));
  EXPECT_TRUE(fits(Mapping::fast(32), 0, 0xFFFFFFFE));
  EXPECT_FALSE(fits(Mapping::fast(32), 1, 0));
  EXPECT_FALSE(fits(Mapping::fast(32), 0, 0xFFFFFFFF)) << "the engine's position for nowhere";
  for (U32 const shift : {33U, 63U, 64U, 70U}) EXPECT_THROW(Mapping::fast(shift), std::invalid_argument);
}

TEST(MappingTest, AlgorithmicInterleavesGroups) {
  Mapping const mapping = Mapping::algorithmic(4);
  EXPECT_TRUE(fits(mapping, 1, 4001));
  EXPECT_FALSE(fits(mapping, 2, 4001));
  EXPECT_TRUE(fits(mapping, 3, 262143));
  EXPECT_FALSE(fits(mapping, 0, 262144));
}

TEST(MappingTest, AlgorithmicRefusesZeroAndTooManyPartitions) {
  EXPECT_THROW(Mapping::algorithmic(0), std::invalid_argument);
  EXPECT_THROW(Mapping::algorithmic(65537), std::invalid_argument);
  EXPECT_TRUE(fits(Mapping::algorithmic(65536), 65535, 65535));
}

TEST(MappingTest, PositionsOfAGroupAreThoseThatFit) {
  for (Mapping const mapping : {Mapping::fast(4), Mapping::algorithmic(1), Mapping::algorithmic(3)}) {
    for (U32 const size : {0U, 1U, 2U, 3U, 7U, 16U}) {
      for (U16 pg = 0; pg < mapping.interleave(); ++pg) {
        U32 usable = 0;
        for (U32 ti = 0; ti < size; ++ti) usable += fits(mapping, pg, ti);
        EXPECT_EQ(mapping.capacity(pg, size), usable);
        for (U32 offset = 0; offset < usable; ++offset) {
          U32 const ti = mapping.position(pg, offset);
          EXPECT_TRUE(fits(mapping, pg, ti));
          EXPECT_LT(ti, size);
          EXPECT_EQ(mapping.offset(ti), offset);
        }
      }
    }
  }
}

// What a producer may write has one precedence index, ascending along the positions of its group.
TEST(MappingTest, PassedPositionsRoundTrip) {
  for (U32 const shift : {1U, 8U, 19U, 31U, 32U}) {
    TcamMapping const engine{shift};
    Mapping const producer = Mapping::fast(shift);
    for (U32 const ti : {0U, 1U, 255U, 1U << 18, (1U << 31) - 1, 0xFFFFFFFE})
      for (U16 const pg : std::initializer_list<U16>{0, 1, 8191, 65535}) {
        if (producer.violation(pg, ti)) continue;
        EXPECT_EQ(engine.lti(engine.pti(pg, ti)), ti) << shift;
        EXPECT_EQ(U64{engine.pti(pg, ti)}, (U64{pg} << shift) + ti) << shift;
      }
  }
  for (U32 const partitions : {1U, 4U, 65536U}) {
    AlgorithmicMapping const engine{partitions};
    Mapping const producer = Mapping::algorithmic(partitions);
    for (U32 const ti : {0U, 1U, 4001U, 262143U, 0xFFFFFFFE})
      if (auto const pg = static_cast<U16>(ti % partitions); !producer.violation(pg, ti)) {
        EXPECT_EQ(engine.lti(engine.pti(ti)), ti) << partitions;
        EXPECT_EQ(engine.pti(ti), (U32{pg} << 16) + ti / partitions) << partitions;
      }
  }
}

TEST(MappingTest, CapacityEndsWithTheMapping) {
  EXPECT_EQ(Mapping::fast(4).capacity(0, 1000), 16U);
  EXPECT_EQ(Mapping::algorithmic(2).capacity(1, 0xFFFFFFFF), 65536U);
}

}  // namespace
}  // namespace Vantrel
