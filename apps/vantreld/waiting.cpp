// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/waiting.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "ostra/exception.h"
#include "ostra/type_info.h"
#include "pallo/exception.h"

namespace Vantreld {
namespace {

using Vantrel::WaitReason;

std::string reasonText(WaitReason const& reason) {
  if (!reason.other) return fmt::format("for position {}, which is free", reason.ti);
  if (reason.kind == WaitReason::Kind::Occupied)
    return fmt::format("for position {}, held by key {} with priority {}", reason.ti,
                       reason.other->key.value(), reason.other->prio);
  return fmt::format("for position {}: with priority {} it would be out of order with key {} at {} with {}",
                     reason.ti, reason.prio, reason.other->key.value(), reason.other->ti, reason.other->prio);
}

}  // namespace

void Waiting::look(Vantrel::FastVantrelImpl const& engine, Vantrel::TableConfig const& wanted) {
  if (engine.numPending() == 0) {
    met_.clear();
    listed_.clear();
    oldestMet_ = 0;
    return endPass();
  }
  U64 const now = static_cast<U64>(std::time(nullptr));
  for (std::size_t i = 0; i < slice; ++i) {
    last_ = step(wanted);
    if (!last_) return endPass();
    lookAt(engine, last_->key, now);
  }
}

// A damaged index is said at the end of a walk, when all that is intact was visited: once, not in each pass.
std::optional<Vantrel::TableConfig::Place> Waiting::step(Vantrel::TableConfig const& wanted) try {
  return last_ ? wanted.next(*last_) : wanted.first();
} catch (Pallo::CorruptionDetectedException const& damage) {
  bool const isNew = damage_ != damage.what();
  damage_ = damage.what();
  if (isNew) wanted.corruptionDetected(damage_);
  return std::nullopt;
}

void Waiting::lookAt(Vantrel::FastVantrelImpl const& engine, Vantrel::EntryKey key, U64 now) {
  WaitReason const reason = engine.waitReason(key);
  if (reason.since == 0) return;
  U64 const waited = now - std::min(now, reason.since);
  oldestMet_ = std::max(oldestMet_, waited);
  if (waited < warnAfter_) return;
  met_.insert(key);
  std::string const text = reasonText(reason);
  if (listed_.size() < mostListed) listed_[key] = text;
  if (!named_.contains(key)) err_.provoked("key {} waits for {} s {}", key.value(), waited, text);
}

void Waiting::endPass() {
  last_.reset();
  named_ = std::exchange(met_, {});
  overdue_ = std::exchange(listed_, {});
  scalarIs("overdueCount", overdueCount_, U64{named_.size()}, &Notifiee::onOverdueCount);
  scalarIs("oldest", oldest_, std::exchange(oldestMet_, U64{0}), &Notifiee::onOldest);
}

void Waiting::warnAfterIs(U32 seconds) {
  if (seconds == 0) throw Ostra::AttributeException("warnAfter: expected a time of at least 1 second, got 0");
  scalarIs("warnAfter", warnAfter_, seconds, &Notifiee::onWarnAfter);
}

Ostra::TypeInfo const& Waiting::staticType() {
  using W = Waiting;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<W>("Vantreld::Waiting")
                                          .attribute("warnAfter", &W::warnAfter, &W::warnAfterIs)
                                          .attribute("overdueCount", &W::overdueCount)
                                          .attribute("oldest", &W::oldest)
                                          .collection("overdue", &W::overdue);
  return type;
}

}  // namespace Vantreld
