// SPDX-License-Identifier: Apache-2.0
// ContentsFile: what simulated hardware holds, position by position, in a table file that outlives the
// process.
//
// Image of a Slot, 624 bytes: 0 position 8 | 8 the image of its EntryConfig, 616.
//
// Invariants: a process that is killed at any moment leaves every position as one call left it.
// Ownership: the one writer of the file.
// Threading: one thread.
// Errors: the constructor throws Shoal::FileException for a file that is no such table, and
//   Shoal::WriterLockedException when another process has it. holds() throws Shoal::NoSpaceException, and the
//   position is as it was.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "ostra/ptr.h"
#include "shoal/writer_table.h"
#include "vantrel/core/tables.h"

namespace Hw {

class Position {
 public:
  constexpr explicit Position(U64 value) : value_(value) {}
  constexpr U64 value() const { return value_; }

 private:
  U64 value_;
};

// It lies in memory as in the file.
struct Slot {
  U64 ti;
  Vantrel::EntryConfig entry;
};

}  // namespace Hw

template <>
struct Shoal::RecordTraits<Hw::Slot> {
  using Key = Hw::Position;
  using Entry = RecordTraits<Vantrel::EntryConfig>;
  static constexpr std::string_view typeName = "HardwareSlot";
  static constexpr U32 version = 1;
  static constexpr std::size_t bytes = sizeof(U64) + Entry::bytes;
  static constexpr std::size_t tailAt = 1 + Entry::tailAt;
  static Key key(Hw::Slot const& r) { return Key(r.ti); }
  static Hw::Slot empty() { return {0, Entry::empty()}; }
  static Hw::Slot unset() { return {0, Entry::unset()}; }
  static std::byte* image(Hw::Slot& r) { return reinterpret_cast<std::byte*>(&r); }
  static void accept(Hw::Slot& record, Extent extent);
  static Extent encode(Hw::Slot const& record, std::byte* image);
};

namespace Hw {

class VANTREL_LOCAL ContentsFile {
 public:
  // Opens the file, or makes it.
  explicit ContentsFile(std::string const& path);

  // Null for a position whose record is damaged.
  void each(std::function<void(U32 ti, Vantrel::EntryConfig const* entry)> const& visit) const;
  void holds(U32 ti, Vantrel::EntryConfig const& entry);
  void isFree(U32 ti);

 private:
  Ostra::Ptr<Shoal::WriterTable<Slot>> const table_;
};

}  // namespace Hw
