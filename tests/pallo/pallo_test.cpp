// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <type_traits>

#include "ostra/exception.h"
#include "pallo/assert.h"
#include "pallo/exception.h"

namespace Pallo {
namespace {

int evaluations = 0;
bool holds(bool result) {
  ++evaluations;
  return result;
}

TEST(Assert, passesAndEvaluatesOnce) {
  evaluations = 0;
  PALLO_ASSERT("Model", holds(true));
  EXPECT_EQ(evaluations, 1);
}

TEST(Assert, isOneStatement) {
  bool otherwise = false;
  if (evaluations < 0)
    PALLO_ASSERT("Model", false);
  else
    otherwise = true;
  EXPECT_TRUE(otherwise);
}

TEST(Assert, takesConditionsWithCommas) { PALLO_ASSERT("Model", std::is_same_v<int, int>); }

TEST(AssertDeathTest, printsExpressionModelLineAndFunction) {
  int const line = __LINE__;
  auto const fail = [&] { PALLO_ASSERT("VantrelImpl", line < 0); };  // one line below
  EXPECT_DEATH(fail(), testing::HasSubstr("assertion failed: line < 0, model file VantrelImpl, line " +
                                          std::to_string(line + 1) + ", function "));
  EXPECT_DEATH(PALLO_ASSERT("VantrelImpl", false), "function .*TestBody");
}

TEST(AssertDeathTest, textCanDifferFromTheCondition) {
  EXPECT_DEATH(PALLO_ASSERT_AS("FastVantrelImpl", evaluations < 0, "ti < limit"),
               "assertion failed: ti < limit,");
}

TEST(AssertDeathTest, endsByAbort) {
  EXPECT_EXIT(PALLO_ASSERT("M", false), testing::KilledBySignal(SIGABRT), "");
}

TEST(AssertDeathTest, hookHearsTheFailureOnce) {
  auto const die = [] {
    assertionHookIs([](AssertionFailure const& failure) {
      std::fprintf(stderr, "hook: %s of %s\n", failure.expression, failure.model);
      PALLO_ASSERT("Hook", false);  // must not call the hook again
    });
    PALLO_ASSERT("Model", false);
  };
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT),
              "hook: false of Model\nassertion failed: false, model file Hook");
}

TEST(Assert, hookIsExchanged) {
  AssertionHook const mine = [](AssertionFailure const&) {};
  AssertionHook const before = assertionHookIs(mine);
  EXPECT_EQ(assertionHookIs(before), mine);
}

// A front end retries what throws InternalException and nothing else.
TEST(Exceptions, noneMeansTryAgain) {
  EXPECT_FALSE((std::is_base_of_v<Ostra::InternalException, CorruptionDetectedException>));
  EXPECT_FALSE((std::is_base_of_v<Ostra::InternalException, InvalidSizeException>));
  EXPECT_FALSE((std::is_base_of_v<Ostra::InternalException, NoPermissionException>));
  EXPECT_FALSE((std::is_base_of_v<Ostra::InternalException, UnimplementedException>));
}

TEST(Exceptions, carryTheirText) {
  try {
    throw CorruptionDetectedException("slot 7 is damaged");
  } catch (Exception const& e) {
    EXPECT_STREQ(e.what(), "slot 7 is damaged");
  }
}

}  // namespace
}  // namespace Pallo
