// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that look at the engine's state: one fast engine with shift 19, audited after each key
// and at the test's end.
#pragma once

#include "testing/audit.h"
#include "tests/support/engine_world.h"
#include "vantrel/fast/state.h"

namespace TestSupport {

// A table whose records can be damaged, each in one of two ways.
class Damaging : public Shoal::LocalTable<EntryConfig> {
 public:
  EntryConfig entry(EntryKey const& key) const override {
    if (key.value() == corrupt) throw Pallo::CorruptionDetectedException("checksum");
    if (key.value() == oversize) throw Pallo::InvalidSizeException("too large");
    return LocalTable::entry(key);
  }
  U64 corrupt = 0;
  U64 oversize = 0;
};

class FastWorld : public EngineWorld<FastVantrelImpl> {
 protected:
  FastWorld() { engineIs(); }
  void handle(U64 key) override {
    EngineWorld::handle(key);
    audit();
  }
  void TearDown() override { audit(); }
  // Stops the audits: the test damages the state on purpose.
  void forge() { forged_ = true; }
  void audit() {
    if (forged_ || !engine) return;
    EXPECT_NO_THROW(Testing::audit(state(), {.prioGrpShift = engine->prioGrpShift(), .hasShift = true}));
  }
  FastState& state() { return *engine->state(); }
  CState_s& record(U64 key) { return *state().record(EntryKey(key)); }
  bool known(U64 key) { return state().record(EntryKey(key)) != nullptr; }
  bool blocked(U64 key) { return state().blocked.contains(EntryKey(key)); }
  U64 claimant(U32 ti) {
    CState_s const* const c = state().pending.at(ti);
    return c ? c->key.value() : 0;
  }
  std::vector<U64> queued() {
    std::vector<U64> keys;
    for (EntryKey const& key : state().workq) keys.push_back(key.value());
    return keys;
  }
  // The conflict check alone.
  bool conflicts(Put const& p) {
    write(p);
    return engine->isConflicting(table->entry(EntryKey(p.key)));
  }

 private:
  bool forged_ = false;
};

}  // namespace TestSupport
