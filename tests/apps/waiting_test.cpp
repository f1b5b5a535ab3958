// SPDX-License-Identifier: Apache-2.0
// What waits too long, found by walking a table that may be damaged.
#include "apps/vantreld/waiting.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "hw/recorder.h"
#include "pallo/exception.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

using namespace Vantrel;

namespace {

// A table whose index is damaged: a walk says so at its end, when everything intact was visited.
class DamagedTable : public Shoal::LocalTable<EntryConfig> {
 public:
  std::optional<Place> next(Place const& place) const override {
    auto const after = LocalTable::next(place);
    if (!after) throw Pallo::CorruptionDetectedException("the index is damaged");
    return after;
  }
};

class WaitingTest : public testing::Test {
 protected:
  WaitingTest() { ::setenv("LUMELOG_DISABLE", "1", 1); }
  void want(U64 key, U32 ti) {
    EntryConfig e(EntryKey(key), OpId(++version_ << 16), static_cast<U32>(key), 0, 10);
    e.tableIndexIs(TableKey(0), ti);
    table_->entryIs(e);
    engine_->handleEntry(EntryKey(key));
  }
  U64 version_ = 0;
  Ostra::Ptr<DamagedTable> const table_ = Ostra::make<DamagedTable>();
  Ostra::Ptr<FastVantrelImpl> const engine_ = Ostra::make<FastVantrelImpl>(
      "engine", table_, nullptr, nullptr, Ostra::make<Hw::Recorder>("hardware", nullptr), 1);
  Vantreld::Log log_{STDERR_FILENO};
};

TEST_F(WaitingTest, FindsWaitersOfADamagedTable) {
  want(1, 7);
  want(2, 7);  // waits for key 1
  Ostra::Ptr<Vantreld::Waiting> const waiting = Ostra::make<Vantreld::Waiting>(log_);
  waiting->warnAfterIs(1);
  ::sleep(2);
  EXPECT_NO_THROW(waiting->look(*engine_, *table_));
  EXPECT_EQ(waiting->overdueCount(), 1);
  EXPECT_EQ(table_->corruptions(), 1);
  waiting->look(*engine_, *table_);
  EXPECT_EQ(table_->corruptions(), 1) << "said once";
}

}  // namespace
