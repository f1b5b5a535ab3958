// SPDX-License-Identifier: Apache-2.0
// Checks from outside, by full scans, the invariants of the engine's state and of the hardware.
//
// Errors: Broken, one sentence that names the broken invariant.
#pragma once

#include <stdexcept>
#include <vector>

#include "testing/scenario.h"
#include "vantrel/fast/state.h"

namespace Testing {

class Broken : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The precedence index of a position, computed without the engine's code.
U32 precedenceIndex(EngineChoice const& engine, U16 pg, U32 ti);

// The change during which the hardware client is called: the indexes have it already, the record has not.
struct InFlight {
  EventKind kind = EventKind::Flush;  // Add, Move and the deletes matter
  U64 key = 0;
  U32 ti = Vantrel::noIndex;
};

// All indexes of the state agree with its records, and the work queue with its set.
void audit(Vantrel::FastState const& state, EngineChoice const& engine, InFlight const& change = {});

// The hardware as its client sees it, call by call: which entry is where, and whether the order holds in
// every group, also in the middle of a move, when the entry is at both positions.
class HardwareView {
 public:
  explicit HardwareView(EngineChoice const& engine) : engine_(engine) {}
  // `prio` and `pg` must be those of the key's first configuration.
  void call(EventKind kind, Vantrel::EntryConfig const& entry, U32 prio, U16 pg);
  std::size_t size() const { return places_.size(); }

 private:
  struct Place {
    U32 ti;
    U64 key;
    U32 prio;
    U16 pg;
  };
  std::vector<Place>::iterator placeOf(U64 key);
  void take(Place const& place);
  void checkOrder() const;

  EngineChoice engine_;
  std::vector<Place> places_;
};

}  // namespace Testing
