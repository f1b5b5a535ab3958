// SPDX-License-Identifier: Apache-2.0
// WaitReason: why an entry waits, as the engine knows it at the moment of asking.
//
//   position:    1        2        3
//              [ 10 ]   [    ]   [ 20 ]     key 7, priority 30, wants 2: kind Priority, other is at 3 with 20
//                                           key 8, priority 20, wants 3: kind Occupied, other is at 3
//
// Threading: the agent's thread; a value.
#pragma once

#include <optional>

#include "vantrel/core/entry.h"

namespace Vantrel {

struct WaitReason {
  enum class Kind : U8 {
    None,      // does not wait; or the engine does not know the key
    Occupied,  // `other` holds the position
    Priority,  // at the position the entry would be out of order with `other`
    NoClaim,   // claims nothing: the newer configuration of `other` took the position, or claims it
  };
  struct Other {
    EntryKey key;
    U32 prio = 0;
    U32 ti = 0xFFFFFFFF;  // where it is programmed; 0xFFFFFFFF: nowhere
  };

  Kind kind = Kind::None;
  OpId opId;                      // of the configuration that waits
  U32 ti = 0xFFFFFFFF;            // the position it wants
  U32 programmedAt = 0xFFFFFFFF;  // where the entry is meanwhile; 0xFFFFFFFF: nowhere
  U32 prio = 0;                   // that the order is judged by: the first one seen
  U16 pg = 0;
  U64 since = 0;  // when it began to wait, seconds since 1970; 0: not known, as with NoClaim
  // Absent when the obstacle is gone: the entry is queued, its retry failed, or, with NoClaim, it has to be
  // notified before it is tried.
  std::optional<Other> other;
};

}  // namespace Vantrel
