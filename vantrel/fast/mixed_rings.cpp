// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/mixed_rings.h"

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <optional>
#include <vector>

#include "vantrel/core/trace.h"

namespace Vantrel {
namespace {

// Whether the absence of `a` costs fewer writes than that of `b`, or as many and `a` has lower precedence.
bool cheaper(CState_s const* a, CState_s const* b) {
  bool const addedA = unchanged(a->p.opId, a->opId);  // a write that its move alone would not need
  bool const addedB = unchanged(b->p.opId, b->opId);
  return addedA != addedB ? addedB : a->sti > b->sti;
}

}  // namespace

void FastVantrelImpl::breakMixedRingsIs(bool v) {
  if (v == breakMixedRings_) return;
  mixedRings_->clear();
  if (v) reviewClaims();
  scalarIs(fastNotifiees_, "breakMixedRings", breakMixedRings_, v, &Notifiee::onBreakMixedRings);
}

// Makes up for what was left out while the search was off: rings may stand already, and a claim whose retry
// failed has nobody to wake it.
void FastVantrelImpl::reviewClaims() {
  FastState& s = *state();
  for (auto claim = s.pending.atOrAbove(0); claim; claim = s.pending.above(claim->index)) {
    mixedRings_->suspect(*claim->value);
    s.addToWorkq(claim->index);
  }
}

// What the drain found blocked may close a ring of occupants, which the search for those breaks first.
[[gnu::noinline]] void FastVantrelImpl::checkMixedRings() {
  while (CState_s const* const found = mixedRings_->nextVictim()) {
    EntryKey const victim = found->key;
    VANTREL_TRACE(vantrelFastImplTrace(), 1, "found mixed ring ", victim);
    momentPassed();
    VANTREL_RECORD(1, lgId(), "found mixed ring key:", victim);
    takeOutAndBack(victim);
    numMixedRingsIs(numMixedRings() + 1);
    if (!state()->blocked.empty()) checkBlocked();
  }
}

void FastVantrelImpl::MixedRings::clear() {
  suspects_.clear();
  kept_.clear();
}

CState_s const* FastVantrelImpl::MixedRings::nextVictim() {
  if (!kept_.empty()) suspectKept();
  while (!suspects_.empty()) {
    CState_s const* const c = engine_.state()->record(suspects_.back());
    suspects_.pop_back();
    if (!c || !comesBack(*c)) continue;
    std::vector<CState_s const*> const ring = ringOf(*c);
    auto const going =
        std::find_if(ring.begin(), ring.end(), [this](auto const* m) { return mayStillGo(*m); });
    if (going != ring.end())
      keep(**going);
    else if (!contradictsItself(ring))
      return *std::min_element(ring.begin(), ring.end(), &cheaper);
  }
  return nullptr;
}

// Those that went, or cannot go any more, are no longer kept.
void FastVantrelImpl::MixedRings::suspectKept() {
  std::erase_if(kept_, [this](EntryKey const& key) {
    CState_s const* const c = engine_.state()->record(key);
    bool const waits = c && c->p.ti != noIndex;
    if (waits && mayStillGo(*c)) return false;
    if (waits) suspect(*c);
    return true;
  });
}

void FastVantrelImpl::MixedRings::keep(CState_s const& c) {
  if (std::find(kept_.begin(), kept_.end(), c.key) == kept_.end()) kept_.push_back(c.key);
}

// The entries that wait for a given one, for each other by way of it, and so on, one claim a step. Each of
// them claims a position between the neighbours of the entry that it waits for.
class FastVantrelImpl::MixedRings::Waiters {
 public:
  Waiters(MixedRings const& rings, CState_s const& c)
      : rings_(rings), pending_(rings.engine_.state()->pending) {
    found_.push_back(&c);
  }
  // False when there is none left.
  bool step() {
    while (!claim_ || claim_->index >= end_) {
      if (found_.empty()) return false;
      enter(*found_.back());
    }
    if (rings_.obstacleOf(*claim_->value) == obstacle_) found_.push_back(claim_->value);
    claim_ = pending_.above(claim_->index);
    return true;
  }

 private:
  void enter(CState_s const& obstacle) {
    found_.pop_back();
    obstacle_ = &obstacle;
    FastVantrelImpl const& engine = rings_.engine_;
    Neighbours const beside = engine.neighboursOf(obstacle.pg, obstacle.sti);
    end_ = beside.above ? engine.lti(beside.above->index) : noIndex;
    claim_ = pending_.atOrAbove(beside.below ? engine.lti(beside.below->index) + 1 : 0);
  }

  MixedRings const& rings_;
  JudyMap<CState_s> const& pending_;
  boost::container::small_vector<CState_s const*, 8> found_;
  CState_s const* obstacle_ = nullptr;
  std::optional<JudyMap<CState_s>::Item> claim_;  // the next one to look at, below end_
  U32 end_ = 0;
};

// Goes one step ahead and one step back in turn. It ends: a chain from a member of a ring comes back, and the
// entries that wait for any other one are a tree.
bool FastVantrelImpl::MixedRings::comesBack(CState_s const& c) const {
  CState_s const* ahead = obstacleOf(c);
  if (!ahead || ahead->p.ti == noIndex) return false;
  for (Waiters back(*this, c); ahead && ahead != &c; ahead = obstacleOf(*ahead))
    if (!back.step()) return false;
  return ahead != nullptr;
}

std::vector<CState_s const*> FastVantrelImpl::MixedRings::ringOf(CState_s const& start) const {
  std::vector<CState_s const*> ring{&start};
  for (CState_s const* member = obstacleOf(start); member != &start; member = obstacleOf(*member))
    ring.push_back(member);
  return ring;
}

// Whether two members of a group claim positions that are out of order.
bool FastVantrelImpl::MixedRings::contradictsItself(std::vector<CState_s const*> const& ring) const {
  std::vector<CState_s const*> order = ring;
  std::sort(order.begin(), order.end(), [this](CState_s const* a, CState_s const* b) {
    return engine_.pti(a->pg, a->p.ti) < engine_.pti(b->pg, b->p.ti);
  });
  return std::adjacent_find(order.begin(), order.end(), [](CState_s const* a, CState_s const* b) {
           return a->pg == b->pg && a->prio > b->prio;
         }) != order.end();
}

bool FastVantrelImpl::MixedRings::mayStillGo(CState_s const& c) const {
  if (engine_.state()->workqSet.contains(c.key.value())) return true;
  EntryConfig const config = readEntry(*engine_.tableConfig(), c.key);
  if (config.empty() || config.isDel() || config.tableIndexs() == 0) return true;
  return config.tableIndex(TableKey(0)) != c.p.ti;
}

// Null when the entry does not wait, or has no place that another one may wait for.
CState_s const* FastVantrelImpl::MixedRings::obstacleOf(CState_s const& c) const {
  if (!c.programmed()) return nullptr;
  switch (c.p.type) {
    case PendingType::Occupied:
      return engine_.state()->positions.current.at(c.p.ti);
    case PendingType::Priority:
      return engine_.priorityBlocker(c, c.p.ti);
    case PendingType::None:
      break;
  }
  return nullptr;
}

}  // namespace Vantrel
