// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "testing/scenario.h"

namespace Testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string refusal(std::string_view line) {
  try {
    parseLine(line);
  } catch (ScenarioError const& error) {
    return error.what();
  }
  return "";
}

TEST(Scenario, eachStepIsReadBackAsItWasPrinted) {
  Vantrel::EntryConfig full =
      record(18446744073709551615U, 18446744073709486080U, 4294967295U, 65535, 4294967295U, 1);
  full.dataIs(Vantrel::DataKey(1), 18446744073709551615U);
  full.isDelIs(true);
  Step const steps[] = {put(full, true),
                        remove(7, true),
                        notify(7),
                        walk(),
                        fail(7, -1),
                        advance(2.5),
                        set("retryPeriod", 2.5),
                        set("initialized", false, "sm"),
                        debug(4294967295U),
                        show(),
                        cleanup()};
  for (Step const& step : steps) {
    Step const back = std::get<Step>(parseLine(print(step)));
    EXPECT_EQ(print(back), print(step));
    EXPECT_EQ(back.entry, step.entry);
    EXPECT_EQ(back.quiet, step.quiet);
    EXPECT_EQ(back.times, step.times);
  }
}

TEST(Scenario, absentFieldsAreZeroEmptyOrFalse) {
  Step const step = std::get<Step>(parseLine(R"({"do":"put"})"));
  EXPECT_TRUE(step.entry.empty());
  EXPECT_FALSE(step.quiet);
  EXPECT_EQ(std::get<Step>(parseLine(R"({"do":"advance"})")).seconds, 0.0);
}

TEST(Scenario, integersAreExactOverSixtyFourBits) {
  Step const step =
      std::get<Step>(parseLine(R"({"do":"put","key":18446744073709551615,"data":[9007199254740993]})"));
  EXPECT_EQ(step.key(), 18446744073709551615U);
  EXPECT_EQ(step.entry.data(Vantrel::DataKey(0)), 9007199254740993U);
  EXPECT_THAT(print(step), HasSubstr("\"key\":18446744073709551615"));
}

TEST(Scenario, theEngineLineChoosesEngineAndShift) {
  EngineChoice const fast = std::get<EngineChoice>(parseLine(R"({"engine":"fast"})"));
  EXPECT_FALSE(fast.atcam);
  EXPECT_EQ(fast.shift(), 19U);
  EngineChoice const atcam = std::get<EngineChoice>(parseLine(R"({"engine":"atcam","maxPartitions":4})"));
  EXPECT_EQ(atcam.maxPartitions, 4U);
  EXPECT_EQ(atcam.shift(), 16U);
  EXPECT_EQ(std::get<EngineChoice>(parseLine(R"({"engine":"fast","prioGrpShift":12})")).shift(), 12U);
}

struct Malformed {
  char const* line;
  char const* expected;
};

class ScenarioRefuses : public ::testing::TestWithParam<Malformed> {};

TEST_P(ScenarioRefuses, aMalformedLine) {
  std::string const text = refusal(GetParam().line);
  EXPECT_THAT(text, StartsWith("expected "));
  EXPECT_THAT(text, HasSubstr(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Each, ScenarioRefuses,
    ::testing::Values(
        Malformed{"", "one JSON object"}, Malformed{"put 7", "one JSON object"},
        Malformed{"[1]", "one JSON object"}, Malformed{"{}", "\"do\""},
        Malformed{R"({"do":"jump"})", "one of put, remove"}, Malformed{R"({"do":7})", "\"do\" a string"},
        Malformed{R"({"do":"put","kee":7})", "only the fields of \"do\":\"put\""},
        Malformed{R"({"do":"walk","key":7})", "only the fields of \"do\":\"walk\""},
        Malformed{R"({"do":"put","key":-1})", "\"key\" an integer from 0 to 18446744073709551615"},
        Malformed{R"({"do":"put","key":1.0})", "\"key\" an integer"},
        Malformed{R"({"do":"put","key":18446744073709551616})", "\"key\" an integer"},
        Malformed{R"({"do":"put","pg":65536})", "\"pg\" an integer from 0 to 65535"},
        Malformed{R"({"do":"put","hdl":4294967296})", "\"hdl\" an integer from 0 to 4294967295"},
        Malformed{R"({"do":"put","ti":7})", "\"ti\" an array of at most 17"},
        Malformed{R"({"do":"put","ti":[0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17]})", "at most 17"},
        Malformed{R"({"do":"put","ti":["a"]})", "an element of \"ti\""},
        Malformed{R"({"do":"put","quiet":1})", "\"quiet\" true or false"},
        Malformed{R"({"do":"fail","times":-2})", "\"times\" an integer from -1"},
        Malformed{R"({"do":"fail","times":1.5})", "\"times\" an integer from -1"},
        Malformed{R"({"do":"advance","seconds":-1})", "not negative"},
        Malformed{R"({"do":"advance","seconds":"1"})", "not negative"},
        Malformed{R"({"do":"set","attr":"dirty"})", "\"value\""},
        Malformed{R"({"do":"set","attr":"dirty","value":[1]})", "\"value\" true, false"},
        Malformed{R"({"do":"set","value":1})", "\"attr\""},
        Malformed{R"({"do":"set","attr":"dirty","value":true,"on":"table"})", "\"engine\" or \"sm\""},
        Malformed{R"({"do":"debug","version":4294967296})", "\"version\" an integer"},
        Malformed{R"({"engine":"slow"})", "\"fast\" or \"atcam\""},
        Malformed{R"({"engine":"atcam"})", "\"maxPartitions\" an integer from 1"},
        Malformed{R"({"engine":"fast","maxPartitions":2})", "only the fields of an engine line"},
        Malformed{R"({"engine":"fast","prioGrpShift":33})", "\"prioGrpShift\" an integer from 0 to 32"}));

TEST(Scenario, aFileNamesFileAndLineOfWhatIsMalformed) {
  std::string const text = "{\"engine\":\"fast\"}\n{\"do\":\"walk\"}\n{\"do\":\"jump\"}\n";
  EXPECT_THAT([&] { parseScenario("a.jsonl", text); },
              ::testing::ThrowsMessage<ScenarioError>(StartsWith("a.jsonl:3: expected ")));
}

TEST(Scenario, nothingMayFollowACleanup) {
  EXPECT_THAT([] { parseScenario("a", "{\"do\":\"cleanup\"}\n{\"do\":\"show\"}\n"); },
              ::testing::ThrowsMessage<ScenarioError>(HasSubstr("a:2: expected nothing after \"cleanup\"")));
}

TEST(Scenario, anEngineLineStandsFirstOrNowhere) {
  EXPECT_THAT(
      [] { parseScenario("a", "{\"do\":\"show\"}\n{\"engine\":\"fast\"}\n"); },
      ::testing::ThrowsMessage<ScenarioError>(HasSubstr("a:2: expected \"engine\" on the first line only")));
}

TEST(Scenario, eventsPrintTheirFieldsInTheOrderOfTheFormat) {
  Vantrel::EntryConfig entry = record(7, 65537, 7, 0, 10, 4);
  entry.dataIs(Vantrel::DataKey(0), 1);
  entry.dataIs(Vantrel::DataKey(1), 2);
  EXPECT_EQ(print(Event{EventKind::Add, entry}),
            R"({"event":"add","key":7,"opId":65537,"hdl":7,"pg":0,"prio":10,"ti":[4],"data":[1,2]})");
  EXPECT_EQ(print(Event{EventKind::Status, entry}), R"({"event":"status","key":7,"opId":65537})");
  EXPECT_EQ(print(Event{EventKind::StatusDel, entry}), R"({"event":"statusDel","key":7})");
  EXPECT_EQ(print(Event{EventKind::Flush, {}}), R"({"event":"flush"})");
  EXPECT_EQ(printInput(3), R"({"event":"input","line":3})");
  Snapshot const snapshot{5, {{4, 7}}, {{7, 65537}}, {{3, 7}}, {{7, 1}}};
  EXPECT_EQ(print(snapshot), R"({"event":"snapshot","version":5,"pending":{"4":7},"pendingOpId":{"7":65537},)"
                             R"("status":{"3":7},"statusOpId":{"7":1}})");
  EXPECT_EQ(
      print(Counters{1, 1, true, false, {}, 0, 1, 0}),
      R"({"event":"show","tableCounter":1,"flushCounter":1,"initialFlushed":true,"retryTimerSet":false,)"
      R"("failedKey":[],"failedDepCnt":0,"numPending":1,"numDeadlock":0})");
  EXPECT_EQ(print(TraceRecord{"deadlock check key:", {1, 7}}),
            R"({"event":"trace","msg":"deadlock check key:","args":[1,7]})");
}

}  // namespace
}  // namespace Testing
