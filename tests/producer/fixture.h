// SPDX-License-Identifier: Apache-2.0
// A producer on two tables inside this process, and short ways to say what is written.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <vector>

#include "producer/producer.h"
#include "tests/support/damageable_table.h"

namespace Vantrel {

class ProducerTest : public testing::Test {
 protected:
  using Config = TestSupport::DamageableTable;
  using Status = Shoal::LocalTable<EntryStatus>;

  Ostra::Ptr<Config> config = Ostra::make<Config>();
  Ostra::Ptr<Status> status = Ostra::make<Status>();
  std::unique_ptr<Producer> producer = std::make_unique<Producer>(config, status, Mapping::fast());

  void restart() { producer = std::make_unique<Producer>(config, status, Mapping::fast()); }

  static constexpr U64 version(U64 high, U16 low) { return high << 16 | low; }
  static EntryConfig entry(U64 key, U64 opId, U32 hdl, U16 pg, U32 prio, U32 ti,
                           std::initializer_list<U64> data = {}) {
    EntryConfig e(EntryKey(key), OpId(opId), hdl, pg, prio);
    e.tableIndexIs(TableKey(0), ti);
    for (U64 const word : data) e.dataIs(DataKey(e.datas()), word);
    return e;
  }
  OpId put(U64 key, U32 prio, U32 ti, std::vector<U64> const& data = {}) {
    return producer->put({.key = EntryKey(key), .pg = 0, .prio = prio, .ti = ti, .data = data});
  }
  EntryConfig record(U64 key) const { return config->entry(EntryKey(key)); }
  void acknowledge(U64 key) { status->entryIs({EntryKey(key), *producer->awaited(EntryKey(key))}); }

  // The rule that refuses the call, if any; a refused call leaves the table as it was.
  template <class Call>
  std::optional<ProducerRule> refusal(Call call) {
    std::vector<EntryConfig> const before = all();
    try {
      call();
    } catch (BrokenRule const& broken) {
      EXPECT_TRUE(before == all());
      EXPECT_NE(std::string(broken.what()).find(ruleText(broken.rule())), std::string::npos);
      EXPECT_NE(std::string(broken.what()).find("key " + std::to_string(broken.key().value())),
                std::string::npos);
      return broken.rule();
    }
    return std::nullopt;
  }

 private:
  std::vector<EntryConfig> all() const {
    std::vector<EntryConfig> records;
    for (auto place = config->first(); place; place = config->next(*place))
      records.push_back(config->entry(place->key));
    return records;
  }
};

}  // namespace Vantrel
