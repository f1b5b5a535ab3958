// SPDX-License-Identifier: Apache-2.0
// FailedKeys: the keys that wait for a retry, ascending, each with a flag. It may change while it is iterated
// over.
//
//   keys 3, 5, 9      iterator at 5; 5 is removed, 4 and 7 are inserted      ++ leads to 7
//
// Invariants: version() begins at 1 and rises when a key is inserted or removed. An iterator that advances
//   finds the smallest key greater than its own in the collection as it is then: the successor while the
//   version is the one that it saw last, else by a search.
// Ownership: an iterator refers to the collection, which must outlive it.
// Threading: the agent's event loop.
// Cost: logarithmic in the number of keys; an advance over an unchanged collection is constant.
// Errors: none. An iterator must not be dereferenced after its key was removed.
#pragma once

#include <cstddef>
#include <iterator>
#include <map>

#include "vantrel/core/entry.h"

namespace Vantrel {

class FailedKeys {
  using Keys = std::map<EntryKey, bool>;

 public:
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Keys::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = value_type const*;
    using reference = value_type const&;

    const_iterator() = default;
    reference operator*() const { return *at_; }
    pointer operator->() const { return &*at_; }
    const_iterator& operator++() {
      if (version_ != keys_->version_)
        at_ = keys_->keys_.upper_bound(key_);
      else if (!removed_)
        ++at_;
      look();
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator const before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const_iterator const& a, const_iterator const& b) { return a.at_ == b.at_; }

   private:
    friend class FailedKeys;
    const_iterator(FailedKeys const* keys, Keys::const_iterator at) : keys_(keys), at_(at) { look(); }
    void look() {
      version_ = keys_->version_;
      removed_ = false;
      if (at_ != keys_->keys_.end()) key_ = at_->first;
    }

    FailedKeys const* keys_ = nullptr;
    Keys::const_iterator at_;  // once its key is removed: the successor
    EntryKey key_;
    U64 version_ = 0;
    bool removed_ = false;  // its key was removed through the iterator itself
  };

  const_iterator begin() const { return {this, keys_.begin()}; }
  const_iterator end() const { return {this, keys_.end()}; }
  const_iterator find(EntryKey const& key) const { return {this, keys_.find(key)}; }
  const_iterator upper_bound(EntryKey const& key) const { return {this, keys_.upper_bound(key)}; }
  std::size_t size() const { return keys_.size(); }
  bool empty() const { return keys_.empty(); }
  U64 version() const { return version_; }

  // Inserts the key, or overwrites its value.
  void set(EntryKey const& key, bool value) { version_ += keys_.insert_or_assign(key, value).second; }
  // Removes the iterator's key. Returns the iterator, which must be advanced before it is used.
  const_iterator erase(const_iterator at) {
    at.at_ = keys_.erase(at.at_);
    at.version_ = ++version_;
    at.removed_ = true;
    return at;
  }

 private:
  Keys keys_;
  U64 version_ = 1;
};

}  // namespace Vantrel
