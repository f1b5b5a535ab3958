// SPDX-License-Identifier: Apache-2.0
// PodArray<T, Capacity>: a count and a fixed capacity of plain elements, no heap.
//
// Layout: the count in the first four bytes, the elements right behind it, as in a record's image. Whoever
//   holds an array places it so that its elements are aligned.
// Invariants: count <= Capacity; elements at and beyond the count have no value.
// Cost: a copy touches only the elements that count.
// Errors: Pallo::InvalidSizeException for more elements than the capacity; the array stays as it was.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>
#include <type_traits>

#include "pallo/types.h"

namespace Ostra {

// `offered` is the count that was asked for. The dump shows all of its elements when `readable` bytes of the
// source hold them, else the bytes that are there: a count from a damaged record cannot lead outside it.
[[noreturn]] VANTREL_API void throwPodArraySize(std::size_t capacity, std::size_t offered, void const* source,
                                                std::size_t elementBytes, std::size_t readable);
[[noreturn]] VANTREL_API void throwPodArrayIndex(std::size_t capacity, std::size_t index);

template <class T, std::size_t Capacity>
class PodArray {
  static_assert(std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>);

 public:
  using Element = T;
  static constexpr std::size_t capacity = Capacity;
  static constexpr std::size_t elementsAt = sizeof(U32);  // the first one's offset

  // For an array whose bytes are written before they are read.
  struct Unset {};

  PodArray() : count_(0) {}
  explicit PodArray(Unset) {}
  PodArray(PodArray const& other) : count_(other.count_) { copy(other); }
  PodArray& operator=(PodArray const& other) {
    count_ = other.count_;
    if (this != &other) copy(other);
    return *this;
  }

  U32 count() const { return count_; }
  // Zero at and beyond the count.
  T operator[](std::size_t i) const { return i < count_ ? data()[i] : T{}; }
  std::span<T const> elements() const { return {data(), count_}; }

  // Element i becomes value; the count grows to i + 1 when i is at or beyond it, zeroes between.
  void elementIs(std::size_t i, T value) {
    if (i >= Capacity) [[unlikely]]
      throwPodArrayIndex(Capacity, i);
    for (; count_ < i; ++count_) data()[count_] = T{};
    data()[i] = value;
    if (i >= count_) count_ = static_cast<U32>(i + 1);
  }

  // Takes `offered` elements from `source`, which need not be aligned. `readable` is how many bytes may be
  // read there.
  void set(void const* source, std::size_t offered, std::size_t readable) {
    if (offered > Capacity) [[unlikely]]
      throwPodArraySize(Capacity, offered, source, sizeof(T), readable);
    std::memcpy(bytes_, source, offered * sizeof(T));
    count_ = static_cast<U32>(offered);
  }
  void set(std::span<T const> source) { set(source.data(), source.size(), source.size_bytes()); }

  friend bool operator==(PodArray const& a, PodArray const& b) {
    return a.count_ == b.count_ && std::memcmp(a.bytes_, b.bytes_, a.count_ * sizeof(T)) == 0;
  }

 private:
  T* data() { return reinterpret_cast<T*>(bytes_); }
  T const* data() const { return reinterpret_cast<T const*>(bytes_); }
  void copy(PodArray const& from) { std::memcpy(bytes_, from.bytes_, count_ * sizeof(T)); }

  U32 count_;
  alignas(U32) std::byte bytes_[Capacity * sizeof(T)];
};

}  // namespace Ostra
