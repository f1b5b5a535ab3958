// SPDX-License-Identifier: Apache-2.0
// What tests of the table in the kernel share.
#pragma once

#include <gmock/gmock.h>

#include "tests/hw/xdp/test_run.h"

namespace XdpTest {

class TableTest : public testing::TestWithParam<XdpHook> {
 protected:
  void SetUp() override {
    if (std::string const why = missing(); !why.empty()) GTEST_SKIP() << why;
  }
};

}  // namespace XdpTest
