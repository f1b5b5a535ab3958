// SPDX-License-Identifier: Apache-2.0
// PiecewiseMap<K, V, Hash>: a hash map that becomes many small ones, so that growth is paid in small parts.
//
//   up to 12,000 members:              [ map ]
//   from then on, by the mixed hash's    0        1        2             255
//   upper bits:                       [ map ]  [ map ]  [ map ]  ...  [ map ]       each doubles by itself
//
// Invariants: a key lies in the piece that its hash names, for as long as it is there. An insert moves the
//   members of its own piece at most; one insert, the first beyond the limit, moves all of the one map into
//   pieces. What is moved leaves its iterators and references behind. Members come piece by piece, in no
//   order that means anything. An emptied map (clear) is one piece again.
// Ownership: of its members, as any container's.
// Threading: none of its own.
// Cost: a branch beside that of the one map, then a multiplication and a cache line beside that of the piece.
//   The longest insert moves 12,000 members, or one part in 256 of them. Pieces take 16 KiB together when
//   they are empty, and begin() looks for one that is not.
#pragma once

#include <array>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <iterator>
#include <memory>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "ostra/piecewise_map_fwd.h"
#include "pallo/types.h"

namespace Ostra {

template <class K, class V, class Hash>
class PiecewiseMap {
 public:
  // What a look-up needs of a piece before it comes to the members is in one cache line.
  struct alignas(64) Piece : boost::unordered_flat_map<K, V, Hash> {};
  static constexpr std::size_t pieceBits = 8;
  // Where the one map would double for a size that is felt.
  static constexpr std::size_t splitAt = 12'000;

  using key_type = K;
  using mapped_type = V;
  using value_type = typename Piece::value_type;
  using size_type = std::size_t;

  template <bool isConst>
  class Iterator {
    using Pieces = std::span<std::conditional_t<isConst, Piece const, Piece>>;
    using Inner = std::conditional_t<isConst, typename Piece::const_iterator, typename Piece::iterator>;

   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = typename Piece::value_type;
    using difference_type = std::ptrdiff_t;
    using reference = std::conditional_t<isConst, value_type const&, value_type&>;
    using pointer = std::conditional_t<isConst, value_type const*, value_type*>;

    Iterator() = default;
    template <bool otherIsConst>
      requires(isConst && !otherIsConst)
    Iterator(Iterator<otherIsConst> const& other) : ahead_(other.ahead_), at_(other.at_) {}

    reference operator*() const { return *at_; }
    pointer operator->() const { return &*at_; }
    Iterator& operator++() {
      ++at_;
      toMember();
      return *this;
    }
    Iterator operator++(int) {
      Iterator const before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(Iterator const& a, Iterator const& b) { return a.at_ == b.at_; }

   private:
    friend class PiecewiseMap;
    friend class Iterator<true>;
    Iterator(Pieces ahead, Inner at) : ahead_(ahead), at_(at) {}
    // At the end of a piece: on to the next member, or to no piece's.
    void toMember() {
      while (!ahead_.empty() && at_ == ahead_.front().end()) {
        ahead_ = ahead_.subspan(1);
        at_ = ahead_.empty() ? Inner{} : ahead_.front().begin();
      }
    }

    Pieces ahead_;  // the member's piece and those behind it
    Inner at_;      // none's at the end
  };
  using iterator = Iterator<false>;
  using const_iterator = Iterator<true>;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  iterator begin() { return beginOf<iterator>(ownPieces()); }
  const_iterator begin() const { return beginOf<const_iterator>(pieces()); }
  iterator end() { return {}; }
  const_iterator end() const { return {}; }

  iterator find(K const& key) {
    Piece& piece = pieceOf(key);
    auto const at = piece.find(key);
    return at == piece.end() ? iterator() : iteratorAt(piece, at);
  }
  const_iterator find(K const& key) const { return const_cast<PiecewiseMap*>(this)->find(key); }
  bool contains(K const& key) const { return pieceOf(key).contains(key); }
  // Throws std::out_of_range for a key that is not there.
  V const& at(K const& key) const { return pieceOf(key).at(key); }
  V& operator[](K const& key) { return try_emplace(key).first->second; }

  // Where the key is, and whether it was inserted.
  template <class... Args>
  std::pair<iterator, bool> try_emplace(K const& key, Args&&... args) {
    if (size_ >= splitAt && !split_) [[unlikely]]
      split();
    Piece& piece = pieceOf(key);
    auto const [at, inserted] = piece.try_emplace(key, std::forward<Args>(args)...);
    size_ += inserted;
    return {iteratorAt(piece, at), inserted};
  }
  void erase(iterator at) {
    at.ahead_.front().erase(at.at_);
    --size_;
  }
  std::size_t erase(K const& key) {
    std::size_t const erased = pieceOf(key).erase(key);
    size_ -= erased;
    return erased;
  }
  void clear() {
    one_.clear();
    split_.reset();
    size_ = 0;
  }

  // Whoever walks the map in slices keeps the number of the next piece.
  std::span<Piece const> pieces() const { return const_cast<PiecewiseMap*>(this)->ownPieces(); }

 private:
  using Split = std::array<Piece, std::size_t{1} << pieceBits>;

  std::span<Piece> ownPieces() { return split_ ? std::span<Piece>(*split_) : std::span<Piece>(&one_, 1); }
  // A hash may say nothing in its upper bits; the multiplier is 2^64 over the golden ratio, odd.
  static std::size_t numberOf(K const& key) {
    return (Hash()(key) * U64{0x9E3779B97F4A7C15}) >> (64 - pieceBits);
  }
  Piece& pieceOf(K const& key) { return split_ ? (*split_)[numberOf(key)] : one_; }
  Piece const& pieceOf(K const& key) const { return split_ ? (*split_)[numberOf(key)] : one_; }
  iterator iteratorAt(Piece& piece, typename Piece::iterator at) {
    return {{&piece, &ownPieces().back() + 1}, at};
  }
  template <class I, class P>
  static I beginOf(P pieces) {
    I first(pieces, pieces.front().begin());
    first.toMember();
    return first;
  }
  [[gnu::noinline]] void split() {
    auto pieces = std::make_unique<Split>();
    for (auto& [key, value] : one_) (*pieces)[numberOf(key)].try_emplace(key, std::move(value));
    split_ = std::move(pieces);
    one_ = Piece();
  }

  Piece one_;
  std::unique_ptr<Split> split_;
  std::size_t size_ = 0;
};

}  // namespace Ostra
