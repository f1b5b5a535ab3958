// SPDX-License-Identifier: Apache-2.0
// What the fast engine knows of one key: a record, with the claim that it makes while it waits.
//
// Invariants: a claim's type is None exactly when its ti is noIndex.
// Ownership: records come from the pool in state.cpp.
// Threading: the agent's thread.
// Cost: 48 bytes a record.
#pragma once

#include <ctime>

#include "vantrel/core/entry.h"

namespace Vantrel {

constexpr U32 noIndex = 0xFFFFFFFF;  // "programmed nowhere", "waits for nothing"

enum class PendingType : U8 {
  None = 0,
  Occupied = 1,  // another entry holds the position
  Priority = 2,  // at the position the entry would break the priority order with a neighbour
};

// A claim: what a record waits for.
struct EntryPState_s {
  EntryPState_s() = default;
  EntryPState_s(OpId waiting, U32 index, PendingType why, U32 when = 0)
      : opId(waiting), ti(index), type(why), since(when & 0xFFFFFFF) {}

  OpId opId;             // of the configuration that waits; zero when nothing waits
  U32 ti;                // the table index it waits for, or noIndex
  PendingType type : 2;  // why it waits
  // OpenChains keeps these two, from the making of a claim to its end.
  bool open : 1 = false;  // the claims were followed from here and did not come back; false: they may
  bool lost : 1 = false;  // its retry began and did not end: the position may have nobody who will wake it
  U32 since : 28;         // when this configuration's claim was made, seconds of waitClock()
};
using EntryPState_t = EntryPState_s;
static_assert(sizeof(EntryPState_s) == 16);

// Seconds since `since`, on a clock that a change of the time of day does not move; 28 bits, eight years.
inline U32 waitClock(U32 since = 0) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return (static_cast<U32>(now.tv_sec) - since) & 0xFFFFFFF;
}

// Whether two versions of an entry match and act alike. The low part tells whether match or action changed,
// the high part counts versions. After more versions than the low part can tell apart, equal low parts prove
// nothing: the entry is rewritten.
inline bool unchanged(OpId wanted, OpId programmed) {
  constexpr U64 maxVersionsAhead = 65535;
  return wanted.low() == programmed.low() && wanted.high() - programmed.high() <= maxVersionsAhead;
}

// What the engine knows of one key. hdl, prio and pg are those of the first configuration seen.
struct CState_s {
  EntryKey key;
  OpId opId;  // of the configuration that is programmed at sti; zero for a record just made
  EntryPState_s p;
  U32 hdl;
  U32 sti;  // the table index where the entry is programmed (the status ti), or noIndex
  U32 prio;
  U16 pg;  // priority group

  bool programmed() const { return sti != noIndex; }
  bool samePriority(CState_s const& other) const { return prio == other.prio && pg == other.pg; }
};
using CState_t = CState_s;

}  // namespace Vantrel
