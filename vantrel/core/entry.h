// SPDX-License-Identifier: Apache-2.0
// The records that cross the borders between producer, engine and hardware client: EntryKey, OpId,
// EntryConfig, EntryStatus. Plain values without pointers or heap storage.
//
// Invariants: an array's elements beyond its count have no value and are never compared, copied or shown.
// Ownership: none: a record is copied across every border.
// Cost: a copy touches the elements that count, not the capacity.
// Errors: RangeException for an index out of range, InvalidSizeException for an array of more than its
//   capacity.
#pragma once

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <string_view>

#include "ostra/pod_array.h"
#include "pallo/types.h"

namespace Shoal {
template <class R>
struct RecordTraits;
}

namespace Vantrel {

// The identity of one entry: 64 bits that only the producer interprets. Prints as a decimal number.
class EntryKey {
 public:
  constexpr EntryKey() = default;
  constexpr explicit EntryKey(U64 value) : value_(value) {}
  constexpr U64 value() const { return value_; }
  // A bijective mix of the value: every bit of the key reaches every bit of the hash. (The finalizer of
  // MurmurHash3 in D. Stafford's variant 13.)
  constexpr std::size_t hash() const {
    U64 x = value_;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
  }
  friend constexpr auto operator<=>(EntryKey const&, EntryKey const&) = default;
  friend std::size_t hash_value(EntryKey const& key) { return key.hash(); }  // what boost::hash calls

 private:
  U64 value_ = 0;
};

// The version of a configuration; zero means none. Prints as a decimal number.
class OpId {
 public:
  constexpr OpId() = default;
  constexpr explicit OpId(U64 value) : value_(value) {}
  constexpr U64 value() const { return value_; }
  // The version of a delete that the producer requested, and of its acknowledgement.
  static constexpr OpId deleteAcknowledge() { return OpId(0xFFFFFFFFFFFF0000U); }
  // The producer changes the low part when match or action change; the high part counts versions.
  constexpr U16 low() const { return static_cast<U16>(value_); }
  constexpr U64 high() const { return value_ >> 16; }
  friend constexpr auto operator<=>(OpId const&, OpId const&) = default;

 private:
  U64 value_ = 0;
};

VANTREL_API std::ostream& operator<<(std::ostream& out, EntryKey const& key);
VANTREL_API std::ostream& operator<<(std::ostream& out, OpId const& opId);

namespace Detail {
[[noreturn]] VANTREL_API void throwTableKeyRange();
[[noreturn]] VANTREL_API void throwDataKeyRange();
}  // namespace Detail

// An index from 0 to Max, checked whenever it is made or stepped.
template <unsigned Max, void (*Throw)()>
class BoundedIndex {
 public:
  static constexpr unsigned min = 0;
  static constexpr unsigned max = Max;
  constexpr explicit BoundedIndex(U64 value) : value_(static_cast<unsigned>(value)) {
    if (value > Max) [[unlikely]]
      Throw();
  }
  constexpr unsigned value() const { return value_; }
  constexpr BoundedIndex& operator++() { return *this = BoundedIndex(U64{value_} + 1); }
  // Below 0 wraps above max.
  constexpr BoundedIndex& operator--() { return *this = BoundedIndex(U64{value_} - 1); }
  friend constexpr auto operator<=>(BoundedIndex const&, BoundedIndex const&) = default;

 private:
  unsigned value_;
};
using TableKey = BoundedIndex<16, &Detail::throwTableKeyRange>;
using DataKey = BoundedIndex<63, &Detail::throwDataKeyRange>;

// The desired state of one entry. It lies in memory as in a table's file (RecordTraits<EntryConfig>).
class EntryConfig {
 public:
  using TableIndexes = Ostra::PodArray<U32, TableKey::max + 1>;
  using Data = Ostra::PodArray<U64, DataKey::max + 1>;

  // The empty configuration: what a key that is absent from the table reads as.
  EntryConfig() : EntryConfig(EntryKey(0), OpId(0), 0, 0, 0) {}
  EntryConfig(EntryKey const& key, OpId const& opId, U32 hdl, U16 pg, U32 prio)
      : key_(key.value()), opId_(opId.value()), hdl_(hdl), pg_(pg), isDel_(0), prio_(prio) {}

  EntryKey key() const { return EntryKey(key_); }
  OpId opId() const { return OpId(opId_); }
  U32 hdl() const { return hdl_; }    // the producer's number of the entry's hardware resource
  U16 pg() const { return pg_; }      // priority group
  U32 prio() const { return prio_; }  // must not decrease along the precedence order of the group

  // Element 0 is the entry's position in its own table.
  U32 tableIndexs() const { return tableIndex_.count(); }
  U32 tableIndex(TableKey k) const { return tableIndex_[k.value()]; }
  void tableIndexIs(TableKey k, U32 value) { tableIndex_.elementIs(k.value(), value); }
  TableIndexes const& tableIndexes() const { return tableIndex_; }

  // Passed through to the hardware client unchanged.
  U32 datas() const { return data_.count(); }
  U64 data(DataKey k) const { return data_[k.value()]; }
  void dataIs(DataKey k, U64 value) { data_.elementIs(k.value(), value); }
  // Do not copy the array: outside its record its elements are not aligned (Ostra::PodArray).
  Data const& dataWords() const { return data_; }

  // The producer's delete marker: remove this entry and acknowledge the removal.
  bool isDel() const { return isDel_ != 0; }
  void isDelIs(bool isDel) { isDel_ = isDel; }

  // The empty configuration in one test: key 0, nothing set.
  bool empty() const { return key_ == 0 && *this == EntryConfig(); }

  friend bool operator==(EntryConfig const&, EntryConfig const&) = default;

 private:
  friend struct Shoal::RecordTraits<EntryConfig>;
  struct Unset {};
  explicit EntryConfig(Unset) : tableIndex_(TableIndexes::Unset()), data_(Data::Unset()) {}

  U64 key_;
  U64 opId_;
  U32 hdl_;
  U16 pg_;
  U16 isDel_;  // 0 or 1
  U32 prio_;
  TableIndexes tableIndex_;
  Data data_;
};

// The acknowledgement of one entry.
class EntryStatus {
 public:
  EntryStatus() = default;
  EntryStatus(EntryKey const& key, OpId const& opId) : key_(key), opId_(opId) {}
  EntryKey key() const { return key_; }
  OpId opId() const { return opId_; }  // the version in effect, or OpId::deleteAcknowledge()
  friend bool operator==(EntryStatus const&, EntryStatus const&) = default;

 private:
  EntryKey key_;
  OpId opId_;
};

}  // namespace Vantrel

template <>
struct std::hash<Vantrel::EntryKey> {
  std::size_t operator()(Vantrel::EntryKey const& key) const { return key.hash(); }
};
