// SPDX-License-Identifier: Apache-2.0
// A producer that obeys its rules and otherwise does what the bytes say,
// before an engine whose hardware checks every call. A broken order, an assertion or a lost entry of the row
// is a finding.
//
// Two bytes are a step: key and kind of write, and position.
#include <cstddef>
#include <cstdlib>

#include "hw/simulated_tcam.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

using namespace Vantrel;

namespace {

constexpr U32 positions = 16;

class World {
 public:
  void step(U8 what, U8 where) {
    U64 const key = 1 + what % 16;
    switch (what >> 4 & 7) {
      case 0:
        return config_->entryDel(EntryKey(key));
      case 1:
        return mark(key);
      case 2:
        ++content_;
        break;  // another match or action
      default:
        break;  // another position, or just a newer version
    }
    config_->entryIs(entry(key, where % positions));
  }
  bool consistent() const { return hardware_->audit().empty(); }

 private:
  // Group and priority follow from the key: a producer never changes them.
  EntryConfig entry(U64 key, U32 position) {
    EntryConfig e(EntryKey(key), OpId(++version_ << 16 | (content_ & 0xFFFF)), static_cast<U32>(key),
                  static_cast<U16>(key % 2), static_cast<U32>(key / 4));
    e.tableIndexIs(TableKey(0), position);
    return e;
  }
  void mark(U64 key) {
    EntryConfig e = config_->entry(EntryKey(key));
    if (e == EntryConfig()) return;
    e.isDelIs(true);
    config_->entryIs(e);
  }

  U64 version_ = 0;
  U64 content_ = 1;
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config_ = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<Hw::SimulatedTcam> hardware_ = Ostra::make<Hw::SimulatedTcam>("tcam", status_, positions);
  Ostra::Ptr<FastVantrelImpl> engine_ =
      Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr, hardware_, 1);
  Ostra::Ptr<VantrelSm> frontEnd_ =
      vantrelSmFactory(config_, status_, nullptr, nullptr, engine_, nullptr, nullptr);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  setenv("LUMELOG_DISABLE", "1", 1);
  World world;
  for (std::size_t i = 0; i + 1 < n; i += 2) {
    world.step(bytes[i], bytes[i + 1]);
    if (!world.consistent()) std::abort();
  }
  return 0;
}
