// SPDX-License-Identifier: Apache-2.0
// Canonical form of a small world's state: the bytes that decide everything that engine, front end and tables
// will do, written so that two states that differ only in names have the same bytes.
//
//   key 1: at 0                      key 3: at 0
//   key 2: claims 0, version 7       key 1: claims 0, version 12      the same form: [at 0] [claims 0, v1]
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
// Why versions may be replaced by their ranks: they are compared for order, and for equality of the low 16
// bits. Whether one is more than 65535 ahead matters too, but no walk makes so many. The version in hardware
// is compared with the key's own configuration and claim only, and a claim is always newer: so its low bits
// and whether the configuration is newer are enough. A configuration that is in hardware, while its key
// claims nothing, is compared again only when the entry is deleted and the configuration stays. Only the
// taking over of a handle does that: where keys share no handles, its low bits are enough. Where operations
// give versions, they stay as they are.
//
// Why names may be changed: keys, handles and groups are looked up and compared for equality.
//   - A group decides in the precedence index who is neighbour to whom, but the engine ignores a neighbour of
//     another group.
//   - Failed keys are retried in ascending order. Worlds where keys fail are not renamed.
//   - Which blocked key the deadlock check takes first goes by its hash. The model counts such choices
//     (Model::choices). When another state follows after one, that is counted, and is no difference.
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
  template <class Name>
  class Labels;

  void rankVersions(Differ const& differ);
  bool settled(Vantrel::EntryConfig const& entry, Vantrel::CState_s const* c) const;
  U64 version(Vantrel::OpId opId) const;
  void readKey(Differ const& differ, U64 name, Key& out) const;
  void writeConfiguration(Vantrel::EntryConfig const& entry, Vantrel::CState_s const* c, Key& out) const;
  void writeRecord(Vantrel::CState_s const& c, Key& out) const;
  static void writePlaces(Differ const& differ, Vantrel::EntryKey const& key, Key& out);
  void tryOrder(Naming::Names const& order, Differ const& differ);
  void writeOwners(Differ const& differ, Naming::Names const& order, Labels<U64>& handles,
                   std::string& bytes) const;
  static void writeSlots(Differ const& differ, Naming::Names const& order, std::string& bytes);
  static void writeRest(Differ const& differ, std::string& bytes);

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
// How many keys the operations name.
U32 keysOf(SmallWorld const& world);

}  // namespace Testing
