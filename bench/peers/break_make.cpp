// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "bench/peers/programmer.h"

namespace Bench {
namespace {

using Vantrel::EntryConfig;
using Vantrel::TableKey;

// Only what was written since the last edit is compared with the row.
class BreakMake : public Programmer {
 public:
  explicit BreakMake(Row& row) : row_(row) {}

  void put(EntryConfig const& wanted) override {
    if (wanted.isDel()) return remove(wanted.key().value());
    changed_.insert_or_assign(wanted.key().value(), wanted);
  }
  void remove(U64 key) override { changed_.insert_or_assign(key, EntryConfig()); }
  void finish() override {
    std::vector<EntryConfig const*> make;
    for (auto const& [key, wanted] : changed_) {
      if (asWanted(key, wanted)) continue;
      if (row_.has(key)) row_.remove(key);
      if (!(wanted == EntryConfig())) make.push_back(&wanted);
    }
    for (EntryConfig const* wanted : make) row_.add(*wanted);
    changed_.clear();
  }

 private:
  bool asWanted(U64 key, EntryConfig const& wanted) const {
    return row_.has(key) && !(wanted == EntryConfig()) &&
           row_.positionOf(key) == wanted.tableIndex(TableKey(0)) &&
           row_.entryOf(key).low == wanted.opId().low();
  }

  Row& row_;
  boost::unordered_flat_map<U64, EntryConfig> changed_;
};

}  // namespace

std::unique_ptr<Programmer> breakMakeProgrammer(Row& row) { return std::make_unique<BreakMake>(row); }

}  // namespace Bench
