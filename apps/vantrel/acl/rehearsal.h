// SPDX-License-Identifier: Apache-2.0
// Rehearsal: what a load would do. The loader runs on copies of the two tables, where each write is
// acknowledged at once, and the copies are compared with what they were.
//
// Threading: one thread.
// Cost: a load, without waiting: some ten milliseconds for ten thousand rules.
// Errors: those of the loader.
#pragma once

#include <optional>
#include <vector>

#include "apps/vantrel/acl/loader.h"

namespace Acl {

struct Rehearsal {
  enum class Kind { Add, Change, Move, Delete };  // Change: match or action; it may move too
  struct Difference {
    Kind kind;
    std::optional<std::size_t> rule;  // its index; none: it goes
    Vantrel::EntryKey key;
    std::optional<U32> from, to;  // positions
    Rule what;
  };

  std::vector<Difference> differences;  // in order of the rules, and those that go behind them, by priority
  Loader::Counts counts;
  U64 present = 0;  // entries before
  U64 leaving = 0;  // of them, those without a successor

  U64 count(Kind kind) const;
  // In hardware, when no ring has to be broken. A move is a write and an erase.
  U64 writes() const { return counts.added + counts.updated + counts.moved; }
  U64 erases() const { return counts.moved + counts.deleted; }
};

// A table that is null is empty.
Rehearsal rehearse(Vantrel::TableConfig const* config, Vantrel::TableStatus const* status,
                   Vantrel::Mapping mapping, U32 size, std::vector<Rule> const& rules);

}  // namespace Acl
