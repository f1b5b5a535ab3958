// SPDX-License-Identifier: Apache-2.0
// Judy arrays in the words of the domain: JudyMap<T> is an ordered map from an index to a T*, JudySet a set
// of indexes.
//
// Invariants: a map holds no null value; insert() is the exception, whose caller fills the slot before he
//   does anything else. A slot reference does not survive an insert or a removal in its map.
// Ownership: the arrays free their own memory, never what the values point to.
// Threading: the agent's thread.
// Cost: a few cache lines an operation at a million indexes; the order costs nothing extra.
// Errors: Judy fails for want of memory or on a damaged array; either ends the process after one trace line
//   that names the Judy function, the error number and the error identifier.
#pragma once

#include <Judy.h>

#include <optional>
#include <utility>

#include "pallo/types.h"

namespace Vantrel {

// Traces the failure and fails the assertion "false".
[[noreturn]] VANTREL_API void judyFailed(char const* function, JError_t const& error);

// The untyped calls, each with its error check.
namespace Judy {
VANTREL_API PPvoid_t get(Pcvoid_t array, Word_t index);         // null when absent
VANTREL_API PPvoid_t insert(Pvoid_t& array, Word_t index);      // the slot, null inside when new
VANTREL_API bool remove(Pvoid_t& array, Word_t index);          // false when absent
VANTREL_API PPvoid_t atOrAbove(Pcvoid_t array, Word_t& index);  // moves index to what was found
VANTREL_API PPvoid_t above(Pcvoid_t array, Word_t& index);
VANTREL_API PPvoid_t below(Pcvoid_t array, Word_t& index);
VANTREL_API Word_t count(Pcvoid_t array, Word_t first, Word_t last);
VANTREL_API Word_t clear(Pvoid_t& array);
VANTREL_API bool test(Pcvoid_t array, Word_t index);
VANTREL_API bool set(Pvoid_t& array, Word_t index);    // false when it was set already
VANTREL_API bool unset(Pvoid_t& array, Word_t index);  // false when it was not set
VANTREL_API Word_t memoryUsed(Pcvoid_t array);
VANTREL_API Word_t clearSet(Pvoid_t& array);
}  // namespace Judy

template <class T>
class JudyMap {
 public:
  // An index that is present, and its value.
  struct Item {
    U32 index;
    T* value;
  };

  JudyMap() = default;
  JudyMap(JudyMap const&) = delete;
  JudyMap& operator=(JudyMap const&) = delete;
  ~JudyMap() { Judy::clear(array_); }

  bool empty() const { return array_ == nullptr; }
  T* at(U32 index) const { return empty() ? nullptr : valueAt(Judy::get(array_, index)); }
  // The index's slot, made when there is none; a new one holds null.
  T** insert(U32 index) { return reinterpret_cast<T**>(Judy::insert(array_, index)); }
  // The slot of an index that may be absent: null then.
  T** find(U32 index) { return reinterpret_cast<T**>(Judy::get(array_, index)); }
  bool remove(U32 index) { return Judy::remove(array_, index); }

  std::optional<Item> atOrAbove(U32 index) const { return step(&Judy::atOrAbove, index); }
  std::optional<Item> above(U32 index) const { return step(&Judy::above, index); }
  std::optional<Item> below(U32 index) const { return step(&Judy::below, index); }

  // Indexes in [0, 0xFFFFFFFF].
  U32 count() const { return static_cast<U32>(Judy::count(array_, 0, 0xFFFFFFFFU)); }
  U64 memoryUsed() const { return Judy::memoryUsed(array_); }

 private:
  static T* valueAt(PPvoid_t slot) { return slot ? static_cast<T*>(*slot) : nullptr; }
  std::optional<Item> step(PPvoid_t (*search)(Pcvoid_t, Word_t&), Word_t index) const {
    if (empty()) return std::nullopt;
    PPvoid_t const slot = search(array_, index);
    if (!slot) return std::nullopt;
    return Item{static_cast<U32>(index), static_cast<T*>(*slot)};
  }
  Pvoid_t array_ = nullptr;
};

class JudySet {
 public:
  JudySet() = default;
  JudySet(JudySet const&) = delete;
  JudySet& operator=(JudySet const&) = delete;
  ~JudySet() { Judy::clearSet(array_); }

  bool empty() const { return array_ == nullptr; }
  bool contains(U64 index) const { return Judy::test(array_, index); }
  bool insert(U64 index) { return Judy::set(array_, index); }
  bool remove(U64 index) { return Judy::unset(array_, index); }

 private:
  Pvoid_t array_ = nullptr;
};

}  // namespace Vantrel
