// SPDX-License-Identifier: Apache-2.0
// Driver: hardware that may answer late, or fail. An Executor stands between it and the engine.
//
// Two calls are all that it takes: write an entry at a position, erase a position. A move arrives as a write
// at the new position and, when that is done, an erase of the old one. Both can be repeated: a write of what
// is there already, and an erase of what is free, change nothing.
//
// Invariants: a call says what came of it, at once or later through completed(), exactly once.
// Ownership: the executor's user owns the driver, which must outlive the executor.
// Threading: the agent's event loop.
// Errors: a driver does not throw. What it throws all the same counts as Outcome::Unknown; a flush is tried
//   again.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "vantrel/core/entry.h"

namespace Hw {

// What came of a call.
struct Outcome {
  enum class Kind {
    Done,
    Later,    // completed() will tell
    Again,    // not done, and worth another try: the bus is busy
    Refused,  // not done, and never will be: the entry cannot be expressed, the table is full
    Unknown,  // nobody knows whether it was done
  };
  Kind kind = Kind::Done;
  std::string reason;  // of all but Done and Later; for people
};

// Which version of which key a position holds.
struct Held {
  Vantrel::EntryKey key;
  Vantrel::OpId opId;
  bool operator==(Held const&) const = default;
};

class VANTREL_API Driver {
 public:
  using Completed = std::function<void(U64 token, Outcome const&)>;
  // Null: nobody can tell what the position holds, and it must be erased.
  using Visitor = std::function<void(U32 ti, Vantrel::EntryConfig const* entry)>;

  virtual ~Driver() = default;

  // Makes the position hold this entry. It is free, or holds another version of the same key.
  virtual Outcome write(Vantrel::EntryConfig const& entry, U32 ti, U64 token) = 0;
  // Frees the position. It holds the key, or is free, or cannot be read (contents()).
  virtual Outcome erase(Vantrel::EntryKey const& key, U32 ti, U64 token) = 0;
  // Commits what was batched.
  virtual void flush() {}
  // How many calls may be under way at once. They are of different keys and positions, and whichever is done
  // first, the priority order holds.
  virtual std::size_t mostAtOnce() const { return 1; }

  // False: a call that is done is not acknowledged, because nothing is in hardware.
  virtual bool acknowledges() const { return true; }
  // After a call of which nobody knows whether it was done: what the position holds now. Nothing when that
  // cannot be read back: the call is made again. The inner one is empty when the position is free.
  virtual std::optional<std::optional<Held>> readBack(U32 /*ti*/) { return std::nullopt; }
  // Everything that hardware holds from an earlier run, each entry as it was written last. An agent asks
  // before its first call, and may ask several times. Hardware that forgets has nothing to tell.
  virtual void contents(Visitor const& /*visit*/) {}

  // Whom completions are told. A completion must not be told from inside write() or erase().
  void completedIs(Completed completed) { completed_ = std::move(completed); }

 protected:
  void completed(U64 token, Outcome const& outcome) const {
    if (completed_) completed_(token, outcome);
  }

 private:
  Completed completed_;
};

}  // namespace Hw
