// SPDX-License-Identifier: Apache-2.0
// A producer that breaks every rule, in front of the agent's validator, an engine and hardware that checks
// every call. A broken rule of the hardware, an assertion, or an entry that outlives the engine is a finding.
//
// Five bytes are a step: key and kind of write; version; position; handle and group; priority and the rest.
#include <cstddef>
#include <cstdlib>
#include <memory>

#include "apps/vantreld/validator.h"
#include "hw/simulated_tcam.h"
#include "testing/validated_table.h"
#include "vantrel/fast/state.h"

using namespace Vantrel;

namespace {

constexpr U32 positions = 12;

class World {
 public:
  World() {
    config_->validatorIs(&validator_);
    frontEnd_ = vantrelSmFactory(config_, status_, nullptr, nullptr, engine_, nullptr, nullptr);
  }
  ~World() {
    frontEnd_ = nullptr;
    std::unique_ptr<FastState> const state(engine_->state());  // an engine does not release its own
    engine_ = nullptr;
    if (hardware_->entries() != 0) std::abort();
  }
  void step(U8 const* b) {
    EntryKey const key(b[0] % 8);
    switch (b[0] >> 3) {
      case 0:
      case 1:
        return config_->entryDel(key);
      case 2:  // and the engine does not hear of it
        config_->entryQuietlyDel(key);
        return;
      case 3:
        return frontEnd_->handleEntryCollNotify();
      case 4:
      case 5:
        config_->damagedIs(key, b[0] >> 3 == 4);
        return config_->notifyEntry(key);
      case 6:
        return config_->entryQuietlyIs(record(key, b));
      default:
        return config_->entryIs(record(key, b));
    }
  }
  bool consistent() const { return hardware_->audit().empty(); }

 private:
  static EntryConfig record(EntryKey const& key, U8 const* b) {
    EntryConfig e(key, version(b[1]), b[3] % 8, static_cast<U16>(b[3] >> 3 & 3), b[4] & 7U);
    if (b[4] < 0xF8) e.tableIndexIs(TableKey(0), position(b[2]));
    if (b[4] >= 0xF0 && b[4] < 0xF8) e.tableIndexIs(TableKey(1), b[2]);
    e.isDelIs((b[4] & 0x78) == 0x78);
    return e;
  }
  // Few, so that they meet.
  static OpId version(U8 b) {
    if (b >= 0xF8) return OpId(OpId::deleteAcknowledge().value() + (b & 7U) - 2);
    return OpId(U64{b & 0x3FU} << 16 | b >> 6);
  }
  static U32 position(U8 b) {
    if (b >= 0xF0) return 0xFFFFFFFF << (b & 0xF);
    return b % (positions + 2);
  }

  Ostra::Ptr<Testing::ValidatedTable> config_ = Ostra::make<Testing::ValidatedTable>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<Hw::SimulatedTcam> hardware_ = Ostra::make<Hw::SimulatedTcam>("tcam", status_, positions);
  Ostra::Ptr<FastVantrelImpl> engine_ =
      Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr, hardware_, 1);
  Vantreld::Validator validator_{Mapping::fast(), positions, *engine_, [](std::string const&) {}};
  Ostra::Ptr<VantrelSm> frontEnd_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  constexpr std::size_t stepBytes = 5;
  setenv("LUMELOG_DISABLE", "1", 1);
  World world;
  for (std::size_t i = 0; i + stepBytes <= n; i += stepBytes) {
    world.step(bytes + i);
    if (!world.consistent()) std::abort();
  }
  return 0;
}
