// SPDX-License-Identifier: Apache-2.0
#include "vantrel/fast/mixed_rings.h"

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <optional>
#include <vector>

#include "vantrel/core/probe.h"
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
  state()->priorityClaims.clear();
  if (v) reviewClaims();
  scalarIs(fastNotifiees_, "breakMixedRings", breakMixedRings_, v, &Notifiee::onBreakMixedRings);
}

// Makes up for what was left out while the search was off: rings may stand already, and a claim whose retry
// failed has nobody to wake it.
void FastVantrelImpl::reviewClaims() {
  FastState& s = *state();
  for (auto claim = s.pending.atOrAbove(0); claim; claim = s.pending.above(claim->index))
    if (claim->value->p.type == PendingType::Priority && claim->value->programmed())
      *s.priorityClaims.insert(claim->index) = claim->value;
  for (auto claim = s.pending.atOrAbove(0); claim; claim = s.pending.above(claim->index)) {
    mixedRings_->claimMade(*claim->value);
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
    VANTREL_PROBE(ring, victim.value(), 1);
    takeOutAndBack(victim);
    numMixedRingsIs(numMixedRings() + 1);
    if (!state()->blocked.empty()) checkBlocked();
  }
}

void FastVantrelImpl::MixedRings::clear() {
  closing_.clear();
  kept_.clear();
}

void FastVantrelImpl::MixedRings::follow(CState_s const& c) {
  if (comesBack(c)) closing_.push_back(c.key);
}

FastVantrelImpl::MixedRings::Neighbours FastVantrelImpl::MixedRings::neighboursOf(U16 pg, U32 ti) const {
  JudyMap<CState_s> const& precedence = engine_.state()->positions.precedence;
  U32 const at = engine_.pti(pg, ti);
  Neighbours beside{precedence.below(at), precedence.above(at)};
  if (beside.below && beside.below->value->pg != pg) beside.below.reset();
  if (beside.above && beside.above->value->pg != pg) beside.above.reset();
  return beside;
}

// An entry that waited for the one that left may wait for one of the neighbours now, without being woken.
// Nothing changes unless an entry waits between the neighbours for the order.
void FastVantrelImpl::MixedRings::followBeside(U16 pg, U32 ti) {
  Neighbours const beside = neighboursOf(pg, ti);
  JudyMap<CState_s> const& claims = engine_.state()->priorityClaims;
  U32 const end = beside.above ? engine_.lti(beside.above->index) : noIndex;
  auto claim = claims.atOrAbove(beside.below ? engine_.lti(beside.below->index) : 0);
  while (claim && claim->index < end && claim->value->pg != pg) claim = claims.above(claim->index);
  if (!claim || claim->index >= end) return;
  if (beside.below) follow(*beside.below->value);
  if (beside.above) follow(*beside.above->value);
}

CState_s const* FastVantrelImpl::MixedRings::nextVictim() {
  if (!kept_.empty()) reviewKept();
  while (!closing_.empty()) {
    CState_s const* const c = engine_.state()->record(closing_.back());
    closing_.pop_back();
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
void FastVantrelImpl::MixedRings::reviewKept() {
  std::erase_if(kept_, [this](EntryKey const& key) {
    CState_s const* const c = engine_.state()->record(key);
    bool const waits = c && c->p.ti != noIndex;
    if (waits && mayStillGo(*c)) return false;
    if (waits) follow(*c);
    return true;
  });
}

void FastVantrelImpl::MixedRings::keep(CState_s const& c) {
  if (std::find(kept_.begin(), kept_.end(), c.key) == kept_.end()) kept_.push_back(c.key);
}

// The entries that wait for a given one, for each other by way of it, and so on. Of those that wait for an
// entry one claims its position, and the others claim positions between its neighbours.
class FastVantrelImpl::MixedRings::Waiters {
 public:
  Waiters(MixedRings const& rings, CState_s const& c) : rings_(rings), state_(*rings.engine_.state()) {
    found_.push_back(&c);
  }
  // Looks at one claim. False when there is none left.
  bool step() {
    if (claim_ && claim_->index < end_) {
      add(claim_->value);
      claim_ = state_.priorityClaims.above(claim_->index);
      return true;
    }
    if (found_.empty()) return false;
    obstacle_ = found_.back();
    found_.pop_back();
    add(state_.pending.at(obstacle_->sti));
    if (!state_.priorityClaims.empty()) lookAround();
    return true;
  }

 private:
  void add(CState_s const* waiter) {
    if (waiter && rings_.obstacleOf(*waiter) == obstacle_) found_.push_back(waiter);
  }
  void lookAround() {
    FastVantrelImpl const& engine = rings_.engine_;
    Neighbours const beside = rings_.neighboursOf(obstacle_->pg, obstacle_->sti);
    end_ = beside.above ? engine.lti(beside.above->index) : noIndex;
    claim_ = state_.priorityClaims.atOrAbove(beside.below ? engine.lti(beside.below->index) : 0);
  }

  MixedRings const& rings_;
  FastState const& state_;
  boost::container::small_vector<CState_s const*, 8> found_;  // whose waiters were not looked for yet
  CState_s const* obstacle_ = nullptr;
  std::optional<JudyMap<CState_s>::Item> claim_;  // the next one to look at, when it is below end_
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
