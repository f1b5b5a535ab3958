// SPDX-License-Identifier: Apache-2.0
// Canonical form of a small world's state: the bytes that decide everything that engine, front end and tables
// will do, written so that two states that differ only in names have the same bytes.
//
//   key 1: at 0, version 0x50000    key 3 of the other: at 0, version 0x90000
//   key 2: claims 0, 0x70001        key 1 of the other: claims 0, 0xA0001       the same form: [0, v1] [?0, v2.1]
//
// What is in it: of every key the record in the table, the engine's record with its claim and the claim's
// marks, its places in the work queue, the blocked set and the lists of the search for mixed rings, its
// handle, who owns each handle, whether the front end keeps it for a retry and how many of its dependants'
// next attempts fail; the time to the armed wake-up; which slots of the table are free. So nothing is left
// out but these:
//   - The indexes by position, the set of queued keys and the claims on the order. The audit, which runs
//     after each step, compares them with the records.
//   - What is only ever written: status table, counters, trace, `dirty` while debugEnabled is off, the time
//     since which a claim waits.
//   - Addresses. Records come from a pool and are told apart by address, never ordered by it.
//   - The record that was prefetched last: read() checks that it is the one that a look-up finds.
//   - Handle, group, priority and version of a record that is marked for delete: dispatch reads the mark,
//     and the checks for rings the position.
//
// Why names may be changed:
//   - Versions are compared for order, and for equality of the low 16 bits; whether one is more than 65535
//     ahead matters too, but no walk makes so many. So their ranks and low bits are enough.
//   - Keys are looked up and compared for equality. Two things go by their order or their hash: the pass over
//     failed keys (worlds where keys fail are not renamed), and which blocked key the deadlock check takes
//     first. The model says when there was such a choice (Model::choices), and what follows from it is not
//     taken for a difference.
//   - Handles are looked up only. Groups are compared for equality only, but in the precedence index, where
//     they decide who is neighbour to whom; the engine ignores a neighbour of another group.
//
// Threading: none. Cost: some hundred nanoseconds.
// Errors: Broken, when the prefetched record is stale.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "testing/differ.h"
#include "testing/small_world.h"

namespace Testing {

// Which name stands for each place of the canonical form.
struct Naming {
  static constexpr std::size_t most = 8;
  using Names = std::array<U8, most>;
  Names keys{};
  Names groups{};
  Names handles{};
};

// What may be left out to see that it is missed.
enum class FormOf : U8 { Everything, WithoutChainMarks, WithoutOrderOfVersions };

class CanonicalForm {
 public:
  CanonicalForm(SmallWorld const& world, bool renames, FormOf what = FormOf::Everything);

  void read(Differ const& differ);
  std::string const& bytes() const { return best_; }
  Naming const& naming() const { return naming_; }
  bool renames() const { return renames_; }
  bool walks() const { return walks_; }

 private:
  // What is known of a key, but for the names of others.
  struct Key {
    std::string plain;
    bool blank = true;
    std::vector<U16> groups;   // of the record in the table, of the engine's record
    std::vector<U64> handles;  // the same, and the one that the engine knows for the key
  };
  class Writer;

  void rankVersions(Differ const& differ);
  void readKey(Differ const& differ, U64 key, Key& out);
  bool settled(Vantrel::EntryConfig const& entry, Vantrel::CState_s const* c) const;
  U64 version(Vantrel::OpId opId) const;
  void tryOrder(Naming::Names const& order, Differ const& differ);
  std::string rest(Differ const& differ) const;

  U32 const keys_;
  bool const renames_;
  bool const givenVersions_;
  bool const walks_;
  bool const handlesShared_;
  FormOf const what_;
  std::vector<U64> versions_;  // alive, ascending
  std::vector<Key> facts_;
  std::string best_;
  Naming naming_;
};

// Whether the operations stay the same when keys, groups and handles are renamed.
bool mayRename(SmallWorld const& world);
// How many keys there are.
U32 keysOf(SmallWorld const& world);

}  // namespace Testing
