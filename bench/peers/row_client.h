// SPDX-License-Identifier: Apache-2.0
// A hardware client that writes a Row and acknowledges.
#pragma once

#include "bench/peers/row.h"
#include "vantrel/vantrel.h"

namespace Bench {

class RowClient : public Vantrel::VantrelHelper {
 public:
  using EntryConfig = Vantrel::EntryConfig;

  RowClient(Row& row, Ostra::Ptr<Vantrel::TableStatus> status)
      : VantrelHelper("row", std::move(status)), row_(row) {}
  void addEntry(EntryConfig const& e) override {
    row_.add(e);
    noopAck(e.key(), e.opId());
  }
  void updateEntry(EntryConfig const& e) override {
    row_.update(e);
    if (e.tableIndex(Vantrel::TableKey(0)) == row_.positionOf(e.key().value())) noopAck(e.key(), e.opId());
  }
  void moveEntry(EntryConfig const& e) override {
    row_.move(e);
    noopAck(e.key(), e.opId());
  }
  void deleteEntry(EntryConfig const& e) override {
    row_.remove(e.key().value());
    if (e.opId() == Vantrel::OpId::deleteAcknowledge())
      delAck(e.key());
    else
      delStatus(e.key());
  }
  void deleteEntryDeadlock(EntryConfig const& e) override {
    row_.remove(e.key().value());
    delStatus(e.key());
  }

 private:
  Row& row_;
};

}  // namespace Bench
