// SPDX-License-Identifier: Apache-2.0
// A configuration table of which one record can be damaged, until it is written again.
#pragma once

#include <optional>

#include "pallo/exception.h"
#include "shoal/local_table.h"
#include "vantrel/core/tables.h"

namespace TestSupport {

class DamageableTable : public Shoal::LocalTable<Vantrel::EntryConfig> {
 public:
  Vantrel::EntryConfig entry(Vantrel::EntryKey const& key) const override {
    if (damaged == key) throw Pallo::CorruptionDetectedException("the record is damaged");
    return LocalTable::entry(key);
  }
  void entryIs(Vantrel::EntryConfig const& record) override {
    if (damaged == record.key()) damaged.reset();
    LocalTable::entryIs(record);
  }
  void entryDel(Vantrel::EntryKey const& key) override {
    if (damaged == key) damaged.reset();
    LocalTable::entryDel(key);
  }
  std::optional<Vantrel::EntryKey> damaged;
};

}  // namespace TestSupport
