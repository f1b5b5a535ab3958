// SPDX-License-Identifier: Apache-2.0
// Floor: the index operations and record reads that a key cannot do without, in the order in which the engine
// needs them, on the same kinds of containers, and nothing else: no decisions, no virtual calls, no traces,
// no notifications, no assertions. Each function assumes its case, and is wrong for any other input.
//
// What each key costs, in the order of the work:
//
//   find        find the key's record, and have it fetched
//   head        find; read the record of the table; look its handle up
//   add         read; enter the handle in both maps; enter the key's record; look the position up; neighbours
//               below and above; look the claim up; enter the position in both orders
//   update      head; look the claim up
//   acknowledge update, and one status written
//   move        head; look the position up; neighbours; look the claim up; leave both orders at the old
//               position, enter them at the new one; look the old position's claim up; its neighbours
//   block       read; handles; record; look the position up; enter the claim; into the blocked keys and out
//               again; find; read the record afresh (does its claim still hold?)
//   remove      find; read (nothing there); leave both orders; look the claim up; neighbours; look for the
//               first claim between them; forget the key's record; find its handle; leave both handle maps
//   removeWaking  remove, where the claim is found and queued, met again between the neighbours, and the one
//               behind it looked for; then, of who claimed: off the queue; head; look the position up;
//               neighbours; look its own claim up and end it; enter both orders
//   blockMove   head; look the position up; enter the claim; into the blocked keys and out; find; read
//               afresh; look the occupant up
//   closeRing   blockMove; then for each member of the ring: has it been seen? find; read; look its occupant
//               up. The first one is deleted (claim, both orders, who claims its position, neighbours,
//               record), handled again (read; its handle; record; look the position up; claim; blocked), and
//               the others move one by one (off the queue; head; look the position up; neighbours; own claim
//               found and ended; both orders left and entered; who claims the old position, queued;
//               neighbours).
#pragma once

#include <Judy.h>

#include <boost/functional/hash.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered_map.hpp>
#include <boost/unordered_set.hpp>
#include <deque>
#include <tuple>
#include <vector>

#include "bench/engine/layout.h"
#include "ostra/piecewise_map.h"
#include "shoal/local_table.h"
#include "vantrel/core/tables.h"
#include "vantrel/engine/vantrel_impl.h"
#include "vantrel/fast/state.h"

namespace Bench {

// Position, key, and the version that is programmed, in the order of positions.
using Places = std::vector<std::tuple<U32, EntryKey, OpId>>;

class Floor {
 public:
  using Table = Shoal::LocalTable<EntryConfig>;
  explicit Floor(U32 shift, Ostra::Ptr<Table> table = Ostra::make<Table>())
      : shift_(shift), table_(std::move(table)) {}
  ~Floor();
  Floor(Floor const&) = delete;
  Floor& operator=(Floor const&) = delete;

  Table& table() { return *table_; }

  void add(EntryKey key);
  void update(EntryKey key);
  void acknowledge(EntryKey key);
  void move(EntryKey key);
  void block(EntryKey key);
  void unblock(EntryKey key);  // not measured
  void remove(EntryKey key);
  void removeWaking(EntryKey key);
  void blockMove(EntryKey key);
  void closeRing(EntryKey key);
  void walk();

  // Not measured: for comparison with the engine.
  Places programmed() const { return placesIn(current_); }
  Places waiting() const { return placesIn(pending_); }

 private:
  using CState = Vantrel::CState_s;

  static Places placesIn(Pcvoid_t array);
  EntryConfig read(EntryKey key) const;
  EntryConfig head(EntryKey key) const;
  CState& find(EntryKey key);
  CState& enter(EntryConfig const& entry);
  void neighbours(U32 pti);
  void lookUp(CState const& c, U32 ti);
  void enterAt(CState& c, U32 ti);
  void leave(CState const& c);
  void claim(CState& c, EntryConfig const& entry);
  void blockedAndFollowed(CState& c);
  void withdraw(CState& c);
  void wakeBetween(CState const& c, Word_t lo, Word_t hi);
  void forgetHandles(EntryKey key);
  void programWoken();
  void moveWoken();
  void queue(U32 ti);
  EntryKey takeQueued();
  U32 pti(CState const& c, U32 ti) const { return static_cast<U32>(c.pg) << shift_ | ti; }

  U32 const shift_;
  Ostra::Ptr<Table> table_;
  Ostra::Ptr<Shoal::LocalTable<Vantrel::EntryStatus>> status_ =
      Ostra::make<Shoal::LocalTable<Vantrel::EntryStatus>>();
  Vantrel::VantrelImpl::KeyOfHandle handleToKey_;
  Vantrel::VantrelImpl::HandleOfKey keyToHandle_;
  Vantrel::FastState::Records cstate_{16};
  Vantrel::FastState::Keys blocked_{16};
  std::deque<EntryKey> workq_;
  Vantrel::FastState pool_;  // for its records alone, which come from where the engine's do
  Pvoid_t pending_ = nullptr;
  Pvoid_t current_ = nullptr;
  Pvoid_t precedence_ = nullptr;
  Pvoid_t workqSet_ = nullptr;
};

}  // namespace Bench
