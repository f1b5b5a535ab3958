// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/rank_list.h"

#include "pallo/assert.h"

namespace Planning {

namespace {
constexpr double thinning = 1.5;  // how much thinner a stretch of twice the size has to be
}

U64 RankList::tagBefore(U32 slot) const {
  U32 const before = slot == none ? last_ : links_[slot].previous;
  return before == none ? 0 : links_[before].tag;
}
U64 RankList::tagAt(U32 slot) const { return slot == none ? U64{1} << tagBits : links_[slot].tag; }

void RankList::insert(U32 slot, U32 before) {
  if (slot >= links_.size()) links_.resize(slot + 1);
  if (tagAt(before) - tagBefore(before) < 2) makeRoom(before == none ? last_ : before);
  U64 const low = tagBefore(before), high = tagAt(before);
  U64 const step = U64{1} << 40;  // at the end, where lists grow
  U32 const previous = before == none ? last_ : links_[before].previous;
  links_[slot] = {before == none && high - low > 2 * step ? low + step : low + (high - low) / 2, previous,
                  before};
  (previous == none ? first_ : links_[previous].next) = slot;
  (before == none ? last_ : links_[before].previous) = slot;
}

void RankList::remove(U32 slot) {
  Link const link = links_[slot];
  (link.previous == none ? first_ : links_[link.previous].next) = link.next;
  (link.next == none ? last_ : links_[link.next].previous) = link.previous;
}

void RankList::makeRoom(U32 around) {
  double density = 1;
  for (unsigned bits = 1; bits <= tagBits; ++bits) {
    density /= thinning;
    if (spread(around, bits, density)) return;
  }
  PALLO_ASSERT("RankList", false);
}

// Numbers the aligned range of 2^bits tags around a slot anew, when no more of it than `density` is in use.
bool RankList::spread(U32 around, unsigned bits, double density) {
  U64 const size = U64{1} << bits;
  U64 const begin = links_[around].tag & ~(size - 1);
  U32 from = around;
  U64 count = 1;
  while (links_[from].previous != none && links_[links_[from].previous].tag >= begin) {
    from = links_[from].previous;
    ++count;
  }
  for (U32 at = links_[around].next; at != none && links_[at].tag < begin + size; at = links_[at].next)
    ++count;
  if (static_cast<double>(count) > density * static_cast<double>(size) || size / (count + 1) < 4)
    return false;
  U64 const step = size / (count + 1);
  U64 tag = begin;
  for (; count > 0; --count, from = links_[from].next) links_[from].tag = tag += step;
  return true;
}

}  // namespace Planning
