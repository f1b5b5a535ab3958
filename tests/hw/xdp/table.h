// SPDX-License-Identifier: Apache-2.0
// What tests of the table in the kernel share.
#pragma once

#include <gmock/gmock.h>

#include "tests/hw/xdp/test_run.h"

namespace XdpTest {

// A table that does not wait for look-ups.
class Hasty : public Hw::XdpTcam {
 public:
  using XdpTcam::XdpTcam;

 protected:
  void drain() override {}
};

class TableTest : public testing::TestWithParam<XdpHook> {
 protected:
  void SetUp() override {
    if (std::string const why = missing(); !why.empty()) GTEST_SKIP() << why;
  }
};

}  // namespace XdpTest
