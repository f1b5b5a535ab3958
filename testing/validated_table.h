// SPDX-License-Identifier: Apache-2.0
// ValidatedTable: an in-process table behind a validator, as a mounted one is, whose records can be damaged.
//
// Ownership: refers to the validator.
// Threading: one thread.
#pragma once

#include <set>

#include "shoal/local_table.h"
#include "shoal/reader_table.h"
#include "vantrel/core/tables.h"

namespace Testing {

class ValidatedTable : public Shoal::LocalTable<Vantrel::EntryConfig> {
 public:
  using Validator = Shoal::ReaderTable<Vantrel::EntryConfig>::Validator;

  void validatorIs(Validator* validator) { validator_ = validator; }
  // Until the next call, the record of the key cannot be read.
  void damagedIs(Vantrel::EntryKey const& key, bool damaged) {
    if (damaged)
      damaged_.insert(key);
    else
      damaged_.erase(key);
  }
  Vantrel::EntryConfig entry(Vantrel::EntryKey const& key) const override {
    bool const damaged = damaged_.contains(key);
    Vantrel::EntryConfig record = damaged ? Vantrel::EntryConfig() : LocalTable::entry(key);
    if (validator_) validator_->validate(key, record, damaged ? "the record is damaged" : nullptr);
    return record;
  }

 private:
  Validator* validator_ = nullptr;
  std::set<Vantrel::EntryKey> damaged_;
};

}  // namespace Testing
