// SPDX-License-Identifier: Apache-2.0
#include "ostra/trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "tests/support/facility_text.h"

namespace Ostra {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constinit TraceHandle global("Global");

// What the handles write, without the time.
class Traces : public testing::Test {
 protected:
  std::string said(std::string const& settings) {
    testing::internal::CaptureStderr();
    manager_.settingsAre(settings);
    return testing::internal::GetCapturedStderr();
  }

  TestSupport::FacilityText out_;
  TraceManager& manager_ = TraceManager::instance();
};

TEST_F(Traces, AHandleIsKnownFromItsFirstUseToItsEnd) {
  auto handle = std::make_unique<TraceHandle>("Late");
  EXPECT_THAT(manager_.handles(), Not(Contains(handle.get())));
  manager_.settingsAre("Late/4");
  EXPECT_TRUE(handle->enabled(4));
  EXPECT_FALSE(handle->enabled(5));
  TraceHandle* const address = handle.get();
  EXPECT_THAT(manager_.handles(), Contains(address));
  handle.reset();
  EXPECT_THAT(manager_.handles(), Not(Contains(address)));
}

TEST_F(Traces, EveryLevelUpToTheHandlesIsWritten) {
  manager_.settingsAre("Global/5");
  for (int level = 0; level <= 9; ++level) OSTRA_TRACE(global, level, "at ", level);
  EXPECT_EQ(out_.str(),
            "Global/0 at 0\nGlobal/1 at 1\nGlobal/2 at 2\nGlobal/3 at 3\nGlobal/4 at 4\nGlobal/5 at 5\n");
}

TEST_F(Traces, WhatIsOffIsNotEvaluated) {
  TraceHandle fresh("Fresh");  // its first use is a message that is off
  int evaluated = 0;
  OSTRA_TRACE(fresh, 1, ++evaluated);
  OSTRA_TRACE(fresh, 1, ++evaluated);
  EXPECT_EQ(evaluated, 0);
  OSTRA_TRACE(fresh, 0, ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST_F(Traces, PrintsValuesOneBehindTheOther) {
  manager_.settingsAre("Global/1");
  U8 const byte = 7;
  OSTRA_TRACE(global, 1, "byte:", byte, " flag:", true, " big:", ~U64{0}, " text:", std::string("x"));
  EXPECT_EQ(out_.str(), "Global/1 byte:7 flag:true big:18446744073709551615 text:x\n");
}

TEST_F(Traces, NamesPrefixesAndOrderDecide) {
  TraceHandle fast("VantrelFastImpl"), impl("VantrelImpl"), other("Other");
  EXPECT_EQ(said("Vantrel*/5,VantrelFastImpl/9"), "");
  EXPECT_EQ(fast.level(), 9);
  EXPECT_EQ(impl.level(), 5);
  EXPECT_EQ(other.level(), 0);
  EXPECT_EQ(said(" ,; VantrelFastImpl/9;\t*/2\n"), "");
  EXPECT_EQ(fast.level(), 2);
  EXPECT_EQ(other.level(), 2);
  EXPECT_EQ(said(""), "");
  EXPECT_EQ(fast.level(), 0);
}

TEST_F(Traces, WrongPartsAreNamedAndTheRestApplies) {
  TraceHandle a("A"), b("B");
  std::string const text = said("A,/3,A/,A/x,A/10,B/7,A/-1");
  for (std::string const wrong : {"A", "/3", "A/", "A/x", "A/10", "A/-1"})
    EXPECT_THAT(text, HasSubstr("TRACE: cannot read \"" + wrong +
                                "\": expected NAME/LEVEL with a level from 0 to 9"));
  EXPECT_THAT(text, Not(HasSubstr("B/7")));
  EXPECT_EQ(a.level(), 0);
  EXPECT_EQ(b.level(), 7);
}

TEST_F(Traces, LinesGoToAFileOnRequest) {
  std::string const path = testing::TempDir() + "trace-" + std::to_string(getpid());
  EXPECT_EQ(said("Global/1 >" + path), "");
  OSTRA_TRACE(global, 1, "to the file");
  EXPECT_EQ(said("Global/2 >" + path), "") << "the same file again, at another level";
  OSTRA_TRACE(global, 2, "behind it");
  manager_.settingsAre("Global/1");
  OSTRA_TRACE(global, 1, "elsewhere");
  std::ifstream in(path);
  std::string first, second, third;
  std::getline(in, first);
  std::getline(in, second);
  EXPECT_THAT(first, testing::EndsWith(" Global/1 to the file"));
  EXPECT_THAT(second, testing::EndsWith(" Global/2 behind it"));
  EXPECT_FALSE(std::getline(in, third));
  EXPECT_EQ(out_.str(), "Global/1 elsewhere\n") << "settings that name no file end the former's";
  std::filesystem::remove(path);
}

TEST_F(Traces, AFileThatCannotBeOpenedIsNamed) {
  EXPECT_THAT(said("Global/1 >/dev"), HasSubstr("TRACE: cannot write to \"/dev\": "));
  OSTRA_TRACE(global, 1, "here instead");
  EXPECT_EQ(out_.str(), "Global/1 here instead\n");
}

TEST_F(Traces, StderrIsTheDefault) {
  manager_.loggerIs(nullptr);
  manager_.settingsAre("Global/1");
  testing::internal::CaptureStderr();
  OSTRA_TRACE(global, 1, "hello");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::EndsWith(" Global/1 hello\n"));
}

}  // namespace
}  // namespace Ostra
