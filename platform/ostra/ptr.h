// SPDX-License-Identifier: Apache-2.0
// Intrusive references: PtrInterface is what can be referred to, Ptr<T> is one reference.
//
// Invariants: an object lives exactly as long as its count is above zero; it starts at zero, and the first
//   Ptr takes it.
// Ownership: the last Ptr deletes.
// Threading: plain counting, or atomic once threadSafeReferencesIs(true) was called, which must happen before
//   a second thread exists.
// Cost: one increment a copy, none a move; a pointer's size.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <utility>

#include "pallo/types.h"

namespace Ostra {

// Off by default. Never switched while two threads hold references.
VANTREL_API bool threadSafeReferences();
VANTREL_API void threadSafeReferencesIs(bool on);

namespace Detail {
extern VANTREL_API bool atomicCounts;
}

class VANTREL_API PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;
  virtual ~PtrInterface();

  void newRef() const {
    if (Detail::atomicCounts) [[unlikely]]
      std::atomic_ref(references_).fetch_add(1, std::memory_order_relaxed);
    else
      ++references_;
  }
  void deleteRef() const {
    U32 left;
    if (Detail::atomicCounts) [[unlikely]]
      left = std::atomic_ref(references_).fetch_sub(1, std::memory_order_acq_rel) - 1;
    else
      left = --references_;
    if (left == 0) delete this;
  }
  U32 references() const {
    if (Detail::atomicCounts) [[unlikely]]
      return std::atomic_ref(references_).load(std::memory_order_relaxed);
    return references_;
  }

 private:
  alignas(std::atomic_ref<U32>::required_alignment) mutable U32 references_ = 0;
};

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* object) : object_(object) { take(); }
  Ptr(Ptr const& other) : object_(other.object_) { take(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
    requires std::convertible_to<U*, T*>
  Ptr(Ptr<U> const& other) : object_(other.get()) {
    take();
  }
  ~Ptr() {
    if (object_) object_->deleteRef();
  }
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  friend bool operator==(Ptr const& a, Ptr const& b) { return a.object_ == b.object_; }
  friend bool operator==(Ptr const& a, T const* b) { return a.object_ == b; }

 private:
  void take() {
    if (object_) object_->newRef();
  }
  T* object_ = nullptr;
};

// make<T>(args...): a new object and its first reference.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// keepAlive(object): a reference for as long as foreign code runs that may drop the last one. Null while
// nobody holds the object yet, or any more: a first reference taken here would end it.
template <class T>
Ptr<T> keepAlive(T* object) {
  return Ptr<T>(object && object->references() ? object : nullptr);
}

}  // namespace Ostra
