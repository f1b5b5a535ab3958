// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/judy.h"

#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"

namespace Vantrel {

void judyFailed(char const* function, JError_t const& error) {
  VANTREL_TRACE(vantrelFastImplTrace(), 1, function, "errno: ", JU_ERRNO(&error),
                "errid: ", JU_ERRID(&error));
  FAST_ASSERT(false);
  __builtin_unreachable();
}

namespace Judy {
namespace {

PPvoid_t checked(PPvoid_t slot, char const* function, JError_t const& error) {
  if (slot == PPJERR) [[unlikely]]
    judyFailed(function, error);
  return slot;
}

bool checked(int result, char const* function, JError_t const& error) {
  if (result == JERR) [[unlikely]]
    judyFailed(function, error);
  return result == 1;
}

}  // namespace

PPvoid_t get(Pcvoid_t array, Word_t index) {
  JError_t error;
  return checked(JudyLGet(array, index, &error), "JudyLGet", error);
}
PPvoid_t insert(Pvoid_t& array, Word_t index) {
  JError_t error;
  return checked(JudyLIns(&array, index, &error), "JudyLIns", error);
}
bool remove(Pvoid_t& array, Word_t index) {
  JError_t error;
  return checked(JudyLDel(&array, index, &error), "JudyLDel", error);
}
PPvoid_t atOrAbove(Pcvoid_t array, Word_t& index) {
  JError_t error;
  return checked(JudyLFirst(array, &index, &error), "JudyLFirst", error);
}
PPvoid_t above(Pcvoid_t array, Word_t& index) {
  JError_t error;
  return checked(JudyLNext(array, &index, &error), "JudyLNext", error);
}
PPvoid_t below(Pcvoid_t array, Word_t& index) {
  JError_t error;
  return checked(JudyLPrev(array, &index, &error), "JudyLPrev", error);
}
// A count of 0 is an error when an error number above "full" comes with it.
Word_t count(Pcvoid_t array, Word_t first, Word_t last) {
  JError_t error;
  JU_ERRNO(&error) = JU_ERRNO_NONE;
  Word_t const n = JudyLCount(array, first, last, &error);
  if (n == 0 && JU_ERRNO(&error) > JU_ERRNO_FULL) [[unlikely]]
    judyFailed("JudyLCount", error);
  return n;
}
Word_t clear(Pvoid_t& array) { return JudyLFreeArray(&array, PJE0); }
Word_t memoryUsed(Pcvoid_t array) { return JudyLMemUsed(array); }

bool test(Pcvoid_t array, Word_t index) {
  JError_t error;
  return checked(Judy1Test(array, index, &error), "Judy1Test", error);
}
bool set(Pvoid_t& array, Word_t index) {
  JError_t error;
  return checked(Judy1Set(&array, index, &error), "Judy1Set", error);
}
bool unset(Pvoid_t& array, Word_t index) {
  JError_t error;
  return checked(Judy1Unset(&array, index, &error), "Judy1Unset", error);
}
Word_t clearSet(Pvoid_t& array) { return Judy1FreeArray(&array, PJE0); }

}  // namespace Judy
}  // namespace Vantrel
