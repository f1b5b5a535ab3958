// SPDX-License-Identifier: Apache-2.0
#include "lumelog/lumelog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Lumelog {
namespace {

struct Tapped {
  std::string text;
  std::vector<U64> values;
  bool operator==(Tapped const&) const = default;
};

struct Wide {
  U64 value() const { return 0x1122334455667788U; }
};

TEST(Tap, SeesTextAndValuesOfALogWithoutAFile) {
  std::vector<Tapped> seen;
  auto log = Log::inMemory([&](std::string_view text, std::span<U64 const> values) {
    seen.push_back({std::string(text), {values.begin(), values.end()}});
  });
  for (U32 i = 0; i < 2; ++i)
    LUMELOG_RECORD(log.get(), 3, 7u, "key:", Wide{}, " hdl:", i, " on:", true, " name:", std::string("abc"));
  LUMELOG_RECORD(log.get(), 3, 7u, "100%");
  std::vector<Tapped> const expected = {{"key:%q hdl:%i on:%i name:%s", {7, 0x1122334455667788U, 0, 1, 3}},
                                        {"key:%q hdl:%i on:%i name:%s", {7, 0x1122334455667788U, 1, 1, 3}},
                                        {"100%%", {7}}};
  EXPECT_EQ(seen, expected);
}

}  // namespace
}  // namespace Lumelog
