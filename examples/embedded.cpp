// SPDX-License-Identifier: Apache-2.0
// An agent in one process: the tables lie in its memory, its hardware client prints what it is asked for.
#include <iostream>

#include "vantrel/vantrel.h"

using namespace Vantrel;

class PrintingHardware : public VantrelHelper {
 public:
  using VantrelHelper::VantrelHelper;
  void addEntry(EntryConfig const& e) override { done("add", e); }
  void updateEntry(EntryConfig const& e) override { done("update", e); }
  void moveEntry(EntryConfig const& e) override { done("move", e); }
  void deleteEntry(EntryConfig const& e) override { gone("delete", e); }
  void deleteEntryDeadlock(EntryConfig const& e) override { gone("delete (ring)", e); }

 private:
  static void print(char const* what, EntryConfig const& e) {
    std::cout << "  " << what << " key " << e.key() << " at " << e.tableIndex(TableKey(0)) << '\n';
  }
  void done(char const* what, EntryConfig const& e) {
    print(what, e);
    noopAck(e.key(), e.opId());
  }
  void gone(char const* what, EntryConfig const& e) {
    print(what, e);
    if (e.opId() == OpId::deleteAcknowledge())
      delAck(e.key());
    else
      delStatus(e.key());
  }
};

int main() {
  auto const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  auto const status = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  auto const hardware = Ostra::make<PrintingHardware>("hardware", status);
  auto const engine = Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, hardware, 1);
  auto const frontEnd =
      vantrelSmFactory({.tableConfig = config, .tableStatus = status, .vantrelImpl = engine});

  U64 version = 0;  // rises; the low 16 bits stay the same as long as match and action do
  auto const want = [&](U64 key, U32 prio, U32 position) {
    EntryConfig e(EntryKey(key), OpId(++version << 16), static_cast<U32>(key), 0, prio);
    e.tableIndexIs(TableKey(0), position);
    std::cout << "want key " << key << " prio " << prio << " at " << position << '\n';
    config->entryIs(e);
  };

  want(1, 10, 100);
  want(2, 10, 200);
  want(3, 5, 150);   // must not lie behind key 1, whose prio is greater: it waits
  want(1, 10, 200);  // key 2 is there: it waits
  want(2, 10, 100);  // key 1 is there, waiting for key 2: a ring, broken; key 3 comes in
  want(3, 5, 50);    // out of the way
  std::cout << status->size() << " entries acknowledged\n";

  EntryConfig unwanted = config->entry(EntryKey(3));
  unwanted.isDelIs(true);  // to be deleted, and that acknowledged by a mark
  std::cout << "delete key 3\n";
  config->entryIs(unwanted);
  std::cout << "its status is " << status->entry(EntryKey(3)).opId() << "; the engine goes and cleans up\n";
}
