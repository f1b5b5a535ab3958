// SPDX-License-Identifier: Apache-2.0
#include "bench/engine/ours.h"

#include <functional>

#include "vantrel/fast/state.h"

namespace Bench {

using namespace Vantrel;

Ours::Ours(U32 shift, Ostra::Ptr<Table> table)
    : table_(std::move(table)),
      engine_(Ostra::make<FastVantrelImpl>("engine", table_, nullptr, nullptr,
                                           Ostra::make<VantrelHelper>("hardware", status_), 1)) {
  engine_->prioGrpShiftIs(shift);
}

// Without its handles the engine has nothing to clean up: a million deletes would take longer than what is
// measured.
Ours::~Ours() {
  FastState* const state = engine_->state();
  engine_->keyToHandleDelAll();
  std::vector<CState_s*> records;
  for (auto const& [key, record] : state->cstate) records.push_back(record);
  std::ranges::sort(records, std::greater<>());
  for (CState_s* record : records) state->cstateFree(record);
  engine_ = nullptr;
  delete state;
}

void Ours::walk() { vantrelSmFactory(table_, status_, nullptr, nullptr, engine_, nullptr, nullptr); }

}  // namespace Bench
