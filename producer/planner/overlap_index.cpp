// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/overlap_index.h"

#include <algorithm>

namespace Planning {

void OverlapIndex::add(U32 slot, Match const& match) {
  if (slot >= rests_.size()) {
    sources_.resize(slot + 1);
    destinations_.resize(slot + 1);
    rests_.resize(slot + 1);
    meetSource_.resize(slot / 64 + 1);
    meetDestination_.resize(slot / 64 + 1);
  }
  sources_[slot] = match.source;
  destinations_[slot] = match.destination;
  rests_[slot] = match.rest;
  bySource_.add(match.source, slot);
  byDestination_.add(match.destination, slot);
}

void OverlapIndex::remove(U32 slot) {
  bySource_.remove(sources_[slot], slot);
  byDestination_.remove(destinations_[slot], slot);
}

std::vector<U32> const& OverlapIndex::find(Match const& match) {
  std::ranges::fill(meetSource_, 0);
  std::ranges::fill(meetDestination_, 0);
  bySource_.meeting(match.source, meetSource_);
  byDestination_.meeting(match.destination, meetDestination_);
  for (std::size_t i = 0; i < meetSource_.size(); ++i) meetSource_[i] &= meetDestination_[i];
  found_.clear();
  eachBit(meetSource_, [&](U32 slot) {
    if (rests_[slot].meets(match.rest)) found_.push_back(slot);
  });
  return found_;
}

}  // namespace Planning
