// SPDX-License-Identifier: Apache-2.0
// Judy arrays in the words of the domain: JudyMap<T> is an ordered map from an index to a T*, JudySet a set
// of indexes.
//
// Invariants: a map holds no null value: the caller of insert() must fill a new slot before any other call. A
//   slot reference is invalid after an insert or a removal in its map.
// Ownership: the arrays free their own memory, never what the values point to.
// Threading: the agent's thread.
// Cost: a few cache lines an operation at a million indexes; ordered access costs nothing extra. Passing the
//   site costs nothing until Judy fails.
// Errors: Judy fails for want of memory or on a damaged array. Either ends the process, after one trace line
//   with the Judy function, the error number and the error identifier, by an assertion that names the
//   function and the line that called the map or the set.
#pragma once

#include <Judy.h>

#include <optional>
#include <source_location>
#include <utility>

#include "pallo/types.h"

namespace Vantrel {

// The place in the source that called the map or the set.
using Site = std::source_location;

// Traces the failure and fails the assertion "false" at `site`.
[[noreturn, gnu::cold]] void judyFailed(char const* function, JError_t const& error, Site site);

// The untyped calls, each with its error check.
namespace Judy {

inline PPvoid_t checked(PPvoid_t slot, char const* function, JError_t const& error, Site site) {
  if (slot == PPJERR) [[unlikely]]
    judyFailed(function, error, site);
  return slot;
}
inline bool checked(int result, char const* function, JError_t const& error, Site site) {
  if (result == JERR) [[unlikely]]
    judyFailed(function, error, site);
  return result == 1;
}

// Null when absent.
inline PPvoid_t get(Pcvoid_t array, Word_t index, Site site) {
  JError_t error;
  return checked(JudyLGet(array, index, &error), "JudyLGet", error, site);
}
// The slot, null inside when new.
inline PPvoid_t insert(Pvoid_t& array, Word_t index, Site site) {
  JError_t error;
  return checked(JudyLIns(&array, index, &error), "JudyLIns", error, site);
}
// False when absent.
inline bool remove(Pvoid_t& array, Word_t index, Site site) {
  JError_t error;
  return checked(JudyLDel(&array, index, &error), "JudyLDel", error, site);
}
// These three set `index` to the index that was found.
inline PPvoid_t atOrAbove(Pcvoid_t array, Word_t& index, Site site) {
  JError_t error;
  return checked(JudyLFirst(array, &index, &error), "JudyLFirst", error, site);
}
inline PPvoid_t above(Pcvoid_t array, Word_t& index, Site site) {
  JError_t error;
  return checked(JudyLNext(array, &index, &error), "JudyLNext", error, site);
}
inline PPvoid_t below(Pcvoid_t array, Word_t& index, Site site) {
  JError_t error;
  return checked(JudyLPrev(array, &index, &error), "JudyLPrev", error, site);
}
// A count of 0 is an error when an error number above "full" comes with it.
inline Word_t count(Pcvoid_t array, Word_t first, Word_t last, Site site) {
  JError_t error;
  JU_ERRNO(&error) = JU_ERRNO_NONE;
  Word_t const n = JudyLCount(array, first, last, &error);
  if (n == 0 && JU_ERRNO(&error) > JU_ERRNO_FULL) [[unlikely]]
    judyFailed("JudyLCount", error, site);
  return n;
}

inline bool test(Pcvoid_t array, Word_t index, Site site) {
  JError_t error;
  return checked(Judy1Test(array, index, &error), "Judy1Test", error, site);
}
// False when it was set already.
inline bool set(Pvoid_t& array, Word_t index, Site site) {
  JError_t error;
  return checked(Judy1Set(&array, index, &error), "Judy1Set", error, site);
}
// False when it was not set.
inline bool unset(Pvoid_t& array, Word_t index, Site site) {
  JError_t error;
  return checked(Judy1Unset(&array, index, &error), "Judy1Unset", error, site);
}

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
  ~JudyMap() { clear(); }

  bool empty() const { return array_ == nullptr; }
  T* at(U32 index, Site site = Site::current()) const {
    return empty() ? nullptr : valueAt(Judy::get(array_, index, site));
  }
  // Returns the index's slot; a new one holds null.
  T** insert(U32 index, Site site = Site::current()) {
    return reinterpret_cast<T**>(Judy::insert(array_, index, site));
  }
  // The slot of an index that may be absent: null then.
  T** find(U32 index, Site site = Site::current()) {
    return reinterpret_cast<T**>(Judy::get(array_, index, site));
  }
  bool remove(U32 index, Site site = Site::current()) { return Judy::remove(array_, index, site); }
  void clear() { JudyLFreeArray(&array_, PJE0); }

  std::optional<Item> atOrAbove(U32 index, Site site = Site::current()) const {
    return step<&Judy::atOrAbove>(index, site);
  }
  std::optional<Item> above(U32 index, Site site = Site::current()) const {
    return step<&Judy::above>(index, site);
  }
  std::optional<Item> below(U32 index, Site site = Site::current()) const {
    return step<&Judy::below>(index, site);
  }

  // Indexes in [0, 0xFFFFFFFF].
  U32 count(Site site = Site::current()) const {
    return static_cast<U32>(Judy::count(array_, 0, 0xFFFFFFFFU, site));
  }
  U64 memoryUsed() const { return JudyLMemUsed(array_); }

 private:
  static T* valueAt(PPvoid_t slot) { return slot ? static_cast<T*>(*slot) : nullptr; }
  template <auto search>
  std::optional<Item> step(Word_t index, Site site) const {
    if (empty()) return std::nullopt;
    PPvoid_t const slot = search(array_, index, site);
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
  ~JudySet() { Judy1FreeArray(&array_, PJE0); }

  bool empty() const { return array_ == nullptr; }
  bool contains(U64 index, Site site = Site::current()) const { return Judy::test(array_, index, site); }
  bool insert(U64 index, Site site = Site::current()) { return Judy::set(array_, index, site); }
  bool remove(U64 index, Site site = Site::current()) { return Judy::unset(array_, index, site); }

 private:
  Pvoid_t array_ = nullptr;
};

}  // namespace Vantrel
