// SPDX-License-Identifier: Apache-2.0
#include "hw/recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace Hw {
namespace {

using testing::ElementsAre;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

EntryConfig entry(U64 key) {
  EntryConfig e(EntryKey(key), OpId(65537), 7, 1, 10);
  e.tableIndexIs(TableKey(0), 1000);
  return e;
}

void callEverything(Vantrel::VantrelHelper& hardware) {
  hardware.addEntry(entry(1));
  hardware.updateEntry(entry(2));
  hardware.moveEntry(entry(3));
  hardware.deleteEntry(entry(4));
  hardware.deleteEntryDeadlock(entry(5));
  hardware.delAck(EntryKey(6));
  hardware.delStatus(EntryKey(7));
  hardware.noopAck(EntryKey(8), OpId(9));
  hardware.flush();
}

TEST(Recorder, listsEveryCallInOrder) {
  auto const recorder = Ostra::make<Recorder>("hw");
  callEverything(*recorder);
  auto const status = [](U64 key, OpId opId) { return EntryConfig(EntryKey(key), opId, 0, 0, 0); };
  EXPECT_THAT(
      recorder->calls(),
      ElementsAre(Call{Operation::Add, entry(1)}, Call{Operation::Update, entry(2)},
                  Call{Operation::Move, entry(3)}, Call{Operation::Delete, entry(4)},
                  Call{Operation::DeleteDeadlock, entry(5)},
                  Call{Operation::DelAck, status(6, OpId::deleteAcknowledge())},
                  Call{Operation::DelStatus, status(7, OpId(0))},
                  Call{Operation::NoopAck, status(8, OpId(9))}, Call{Operation::Flush, EntryConfig()}));
  recorder->callsDelAll();
  EXPECT_TRUE(recorder->calls().empty());
}

TEST(Recorder, writesLinesIntoAStreamInsteadOfAList) {
  std::ostringstream out;
  auto const recorder = Ostra::make<Recorder>("hw", &out);
  callEverything(*recorder);
  EXPECT_EQ(out.str(),
            "add key:1 opId:65537 hdl:7 pg:1 prio:10 ti:1000\n"
            "update key:2 opId:65537 hdl:7 pg:1 prio:10 ti:1000\n"
            "move key:3 opId:65537 hdl:7 pg:1 prio:10 ti:1000\n"
            "delete key:4 opId:65537 hdl:7 pg:1 prio:10 ti:1000\n"
            "deleteDeadlock key:5 opId:65537 hdl:7 pg:1 prio:10 ti:1000\n"
            "delAck key:6 opId:18446744073709486080\n"
            "delStatus key:7 opId:0\n"
            "noopAck key:8 opId:9\n"
            "flush\n");
  EXPECT_TRUE(recorder->calls().empty());
}

TEST(Recorder, showsARecordWithoutAndWithSeveralPositions) {
  EntryConfig several = entry(1);
  several.tableIndexIs(TableKey(1), 1001);
  std::ostringstream out;
  out << Call{Operation::Delete, EntryConfig(EntryKey(1), OpId(2), 3, 0, 5)} << '\n'
      << Call{Operation::Add, several};
  EXPECT_EQ(out.str(),
            "delete key:1 opId:2 hdl:3 pg:0 prio:5\n"
            "add key:1 opId:65537 hdl:7 pg:1 prio:10 ti:1000,1001");
}

TEST(Recorder, acknowledgesNothing) {
  auto const recorder = Ostra::make<Recorder>("hw");
  EXPECT_FALSE(recorder->tableStatus());
}

}  // namespace
}  // namespace Hw
