// SPDX-License-Identifier: Apache-2.0
// The record pool is the process's: these tests are a program of their own, and each runs in a fork that
// starts with a fresh pool.
#include "tests/support/fast_world.h"

using namespace TestSupport;

namespace {
class PoolDeathTest : public FastWorld {};
}  // namespace

TEST_F(PoolDeathTest, FirstAllocationReturnsTheSecondOfTwoRecords) {
  EXPECT_EXIT(
      {
        bool const fresh = cstatePool().cread == 0 && cstatePool().clen == 1;
        CState_s* const first = state().cstateAlloc();
        bool const grown = cstatePool().clen == 3 && cstatePool().cread == 1;
        FastState other;
        CState_s* const second = other.cstateAlloc();  // shared: the first record of the same block
        bool const order = second + 1 == first && cstatePool().cread == 0;
        state().cstateAlloc();
        std::_Exit(fresh && grown && order && cstatePool().clen == 9 && cstatePool().cread == 5 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(PoolDeathTest, PoolGrowthTriplesUntilItsLargestStep) {
  auto const grow = [this] {
    std::vector<U32> lengths;
    for (int i = 0; i < 500000; ++i) {
      state().cstateAlloc();
      if (lengths.empty() || lengths.back() != cstatePool().clen) lengths.push_back(cstatePool().clen);
    }
    std::vector<U32> const expected{3,    9,     27,    81,     243,    729,    2187,
                                    6561, 19683, 59049, 177147, 308219, 439291, 570363};
    std::_Exit(lengths == expected ? 0 : 1);
  };
  EXPECT_EXIT(grow(), testing::ExitedWithCode(0), "");
}

TEST_F(PoolDeathTest, FreeingNullFailsItsAssertion) {
  EXPECT_DEATH(state().cstateFree(nullptr), HasSubstr("assertion failed: c, model file FastVantrelImpl,"));
}

TEST_F(PoolDeathTest, FreeingMoreThanWasMadeFailsItsAssertion) {
  EXPECT_DEATH(
      {
        CState_s extra[4];
        for (CState_s& c : extra) state().cstateFree(&c);
        for (int i = 0; i < 100; ++i) state().cstateFree(extra);
      },
      HasSubstr("assertion failed: cread <= clen, model file FastVantrelImpl,"));
}
