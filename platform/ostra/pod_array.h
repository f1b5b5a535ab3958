// SPDX-License-Identifier: Apache-2.0
// PodArray<T, Capacity>: a count and a fixed capacity of plain elements, no heap.
//
// Invariants: count <= Capacity; elements at and beyond the count have no value.
// Cost: a copy touches only the elements that count.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <type_traits>

#include "pallo/assert.h"
#include "pallo/types.h"

namespace Ostra {

// Throws Pallo::InvalidSizeException. `offered` is the count that was asked for; the dump shows no more of
// the source than `readable` bytes, so that a count from a damaged record cannot lead outside it.
[[noreturn]] VANTREL_API void throwPodArraySize(std::size_t capacity, std::size_t offered, void const* source,
                                                std::size_t elementBytes, std::size_t readable);

template <class T, std::size_t Capacity>
class PodArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  static constexpr std::size_t capacity = Capacity;

  PodArray() {}
  PodArray(PodArray const& other) : count_(other.count_) { copy(other.elements_); }
  PodArray& operator=(PodArray const& other) {
    count_ = other.count_;
    if (this != &other) copy(other.elements_);
    return *this;
  }

  U32 count() const { return count_; }
  // Zero at and beyond the count.
  T operator[](std::size_t i) const { return i < count_ ? elements_[i] : T{}; }
  std::span<T const> elements() const { return {elements_, count_}; }

  // Element i becomes value; the count grows to i + 1 when i is at or beyond it, zeroes between.
  void elementIs(std::size_t i, T value) {
    PALLO_ASSERT("PodArray", i < Capacity);
    for (; count_ < i; ++count_) elements_[count_] = T{};
    elements_[i] = value;
    count_ = std::max(count_, static_cast<U32>(i + 1));
  }

  // Takes `offered` elements from `source`, which need not be aligned. `readable` is how many bytes may be
  // read there.
  void set(void const* source, std::size_t offered, std::size_t readable) {
    if (offered > Capacity) [[unlikely]]
      throwPodArraySize(Capacity, offered, source, sizeof(T), readable);
    std::memcpy(elements_, source, offered * sizeof(T));
    count_ = static_cast<U32>(offered);
  }
  void set(std::span<T const> source) { set(source.data(), source.size(), source.size_bytes()); }

  friend bool operator==(PodArray const& a, PodArray const& b) {
    return std::ranges::equal(a.elements(), b.elements());
  }

 private:
  void copy(T const* from) { std::copy_n(from, count_, elements_); }

  U32 count_ = 0;
  T elements_[Capacity];
};

}  // namespace Ostra
