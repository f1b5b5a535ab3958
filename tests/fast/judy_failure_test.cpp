// SPDX-License-Identifier: Apache-2.0
// Failures of Judy: the functions below replace the library's and fail on request. A program of its own,
// because they replace them for everything that is linked with them.
#include <dlfcn.h>

#include <optional>
#include <set>

#include "tests/support/fast_world.h"
#include "vantrel/core/trace.h"

using namespace TestSupport;
using testing::AllOf;
using testing::UnorderedElementsAre;

namespace {

// The call that is to fail: of this function, after so many others. Empty: none.
struct {
  std::string_view function;
  int after = 0;
  JU_Errno_t number = JU_ERRNO_NOMEM;
} order;

constexpr int errorIdentifier = 77;
int depth = 0;  // Judy's functions call each other

bool failsNow(std::string_view function) {
  return depth == 0 && order.function == function && order.after-- == 0;
}

template <class Result>
Result failed(PJError_t error, Result result) {
  JU_ERRNO(error) = order.number;
  JU_ERRID(error) = errorIdentifier;
  return result;
}

class Inside {
 public:
  Inside() { ++depth; }
  ~Inside() { --depth; }
};

}  // namespace

#define TAKE_PLACE(result, name, params, args, whenFailed)                                \
  extern "C" VANTREL_API result name params {                                             \
    if (failsNow(#name)) return failed<result>(error, whenFailed);                        \
    static auto* const real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    Inside const inside;                                                                  \
    return real args;                                                                     \
  }
TAKE_PLACE(PPvoid_t, JudyLGet, (Pcvoid_t array, Word_t index, PJError_t error), (array, index, error), PPJERR)
TAKE_PLACE(PPvoid_t, JudyLIns, (PPvoid_t array, Word_t index, PJError_t error), (array, index, error), PPJERR)
TAKE_PLACE(int, JudyLDel, (PPvoid_t array, Word_t index, PJError_t error), (array, index, error), JERR)
TAKE_PLACE(PPvoid_t, JudyLFirst, (Pcvoid_t array, Word_t* at, PJError_t error), (array, at, error), PPJERR)
TAKE_PLACE(PPvoid_t, JudyLNext, (Pcvoid_t array, Word_t* at, PJError_t error), (array, at, error), PPJERR)
TAKE_PLACE(PPvoid_t, JudyLPrev, (Pcvoid_t array, Word_t* at, PJError_t error), (array, at, error), PPJERR)
TAKE_PLACE(Word_t, JudyLCount, (Pcvoid_t array, Word_t from, Word_t to, PJError_t error),
           (array, from, to, error), 0)
TAKE_PLACE(int, Judy1Test, (Pcvoid_t array, Word_t index, PJError_t error), (array, index, error), JERR)
TAKE_PLACE(int, Judy1Set, (PPvoid_t array, Word_t index, PJError_t error), (array, index, error), JERR)
TAKE_PLACE(int, Judy1Unset, (PPvoid_t array, Word_t index, PJError_t error), (array, index, error), JERR)
#undef TAKE_PLACE

namespace {

// What an assertion said that a test wants to outlive.
struct Asserted {
  std::string expression, model, operation;
  int line;
};

// "FastVantrelImpl::add" of "void Vantrel::FastVantrelImpl::add(...)". The two compilers have two names for
// what has none.
std::string operationIn(std::string signature) {
  std::string const clangs = "(anonymous namespace)";
  if (auto const at = signature.find(clangs); at != std::string::npos)
    signature.replace(at, clangs.size(), "{anonymous}");
  std::string const name = signature.substr(0, signature.find('('));
  std::string const full = name.substr(name.rfind(' ') + 1);
  auto const scope = full.rfind("::", full.rfind("::") - 1);
  return scope == std::string::npos ? full : full.substr(scope + 2);
}

class JudyFailure : public FastWorld {
 protected:
  JudyFailure() { forge(); }
  ~JudyFailure() override { order = {}; }

  // Everything that an engine does, on one that is thrown away.
  void everything() {
    engineIs();
    nextOpId = 0;
    for (U64 key : {1, 2, 3}) put({.key = key, .ti = static_cast<U32>(10 * key), .prio = 20});
    put({.key = 4, .ti = 15, .prio = 30});  // waits for the order
    put({.key = 5, .ti = 20, .prio = 20});  // waits for 2
    engine->waitReason(EntryKey(4));
    engine->waitReason(EntryKey(5));
    put({.key = 1, .ti = 20, .prio = 20});  // takes the claim over, and gives it up again
    engine->waitReason(EntryKey(5));
    put({.key = 1, .ti = 11, .prio = 20});  // update and move
    engine->numPending();
    engine->dumpPending();
    engine->dumpState();
    debugConfig->versionInc(1);
    engine->handleDebug();
    put({.key = 2, .ti = 30, .prio = 20});  // waits for 3
    put({.key = 3, .ti = 20, .prio = 20});  // a ring
    remove(3);
    put({.key = 6, .ti = 40, .prio = 20});
    put({.key = 7, .ti = 35, .prio = 30});  // waits for the order
    put({.key = 6, .ti = 34, .prio = 20});  // wakes 7
    remove(1);
  }

  // Which operations end when `function` fails, whichever call of it that is.
  std::set<std::string> operationsThatEndWith(char const* function) {
    std::set<std::string> operations;
    FacilityLines lines("VantrelFastImpl/1");
    for (int after = 0;; ++after) {
      order = {function, after};
      auto const asserted = assertionOf([this] { everything(); });
      order = {};
      engine->keyToHandleDelAll();  // nothing to clean up
      if (!asserted) return operations;
      EXPECT_EQ(asserted->expression, "false");
      EXPECT_EQ(asserted->model, "FastVantrelImpl");
      EXPECT_GT(asserted->line, 0);
      EXPECT_EQ(lines.take().back(), std::string("VantrelFastImpl/1 ") + function + "errno: 2errid: 77");
      operations.insert(asserted->operation);
    }
  }

  // The hook leaves by an exception: the process goes on.
  std::optional<Asserted> assertionOf(std::function<void()> const& work) {
    Pallo::assertionHookIs([](Pallo::AssertionFailure const& failure) {
      throw Asserted{failure.expression, failure.model, operationIn(failure.function), failure.line};
    });
    testing::internal::CaptureStderr();
    std::optional<Asserted> result;
    try {
      work();
    } catch (Asserted const& asserted) {
      result = asserted;
    }
    Pallo::assertionHookIs(nullptr);
    testing::internal::GetCapturedStderr();
    return result;
  }
};
using JudyFailureDeathTest = JudyFailure;

}  // namespace

TEST_F(JudyFailure, NothingFailsByItself) {
  everything();
  EXPECT_EQ(engine->deadlockCount(), 1U);
  EXPECT_THAT(operationsThatEndWith("JudySLGet"), IsEmpty());
}

TEST_F(JudyFailure, EachCallAssertsInTheOperationThatMadeIt) {
  EXPECT_THAT(operationsThatEndWith("JudyLGet"),
              UnorderedElementsAre("FastVantrelImpl::mayTake", "FastVantrelImpl::claimOccupied",
                                   "FastState::addToWorkq", "FastVantrelImpl::occupantWaitedFor",
                                   "OpenChains::occupantClaimed", "OpenChains::claimant", "OpenChains::ends",
                                   "FastVantrelImpl::waitReason", "FastVantrelImpl::newerAt"));
  EXPECT_THAT(operationsThatEndWith("JudyLIns"),
              UnorderedElementsAre("FastVantrelImpl::claimOccupied", "FastVantrelImpl::claimPriority",
                                   "FastVantrelImpl::add", "FastVantrelImpl::move"));
  EXPECT_THAT(
      operationsThatEndWith("JudyLDel"),
      UnorderedElementsAre("FastState::unindexClaim", "FastVantrelImpl::move", "FastVantrelImpl::vacate"));
  EXPECT_THAT(operationsThatEndWith("JudyLFirst"),
              UnorderedElementsAre("FastVantrelImpl::wakeRange", "Vantrel::dumpPending", "Dump::precedence",
                                   "Dump::pending", "Dump::current", "{anonymous}::showClaims"));
  EXPECT_THAT(operationsThatEndWith("JudyLNext"),
              UnorderedElementsAre("FastVantrelImpl::priorityBlocker", "FastVantrelImpl::rangeOpenedByMove",
                                   "FastVantrelImpl::rangeOpenedByDelete", "FastVantrelImpl::wakeRange",
                                   "Vantrel::dumpPending", "Dump::precedence", "Dump::pending",
                                   "Dump::current", "{anonymous}::showClaims"));
  EXPECT_THAT(operationsThatEndWith("JudyLPrev"),
              UnorderedElementsAre("FastVantrelImpl::priorityBlocker", "FastVantrelImpl::rangeOpenedByMove",
                                   "FastVantrelImpl::rangeOpenedByDelete"));
  EXPECT_THAT(operationsThatEndWith("JudyLCount"),
              UnorderedElementsAre("FastVantrelImpl::numPending", "Dump::precedence", "Dump::pending",
                                   "Dump::verdict"));
  EXPECT_THAT(operationsThatEndWith("Judy1Set"), ElementsAre("FastState::queue"));
  EXPECT_THAT(operationsThatEndWith("Judy1Unset"), ElementsAre("FastVantrelImpl::retryNext"));
}

TEST_F(JudyFailure, SetMembershipThatFailsAssertsToo) {
  JudySet set;
  auto const operation = [&]() -> std::string {
    order = {"Judy1Test", 0};
    auto const asserted = assertionOf([&] { static_cast<void>(set.contains(1)); });
    return asserted ? asserted->expression : "";
  };
  EXPECT_EQ(operation(), "false");
}

// A full array: the count does not fit.
TEST_F(JudyFailure, CountOfZeroWithAnErrorBelowTwoIsNone) {
  order = {"JudyLCount", 0, JU_ERRNO_FULL};
  EXPECT_EQ(engine->numPending(), 0U);
  order = {"JudyLCount", 0, JU_ERRNO_NOMEM};
  EXPECT_TRUE(assertionOf([this] { engine->numPending(); }));
}

TEST_F(JudyFailureDeathTest, IsTracedAndThenEndsTheProcess) {
  auto const counts = [this] {
    traceSettingIs("VantrelFastImpl/1");
    order = {"JudyLCount", 0};
    engine->numPending();
  };
  EXPECT_DEATH(counts(),
               AllOf(HasSubstr("JudyLCounterrno: 2errid: 77\n"),
                     HasSubstr("assertion failed: false, model file FastVantrelImpl, line "),
                     HasSubstr("function virtual U32 Vantrel::FastVantrelImpl::numPending() const")));
}
