// SPDX-License-Identifier: Apache-2.0
#include "keel/timer_wheel.h"

#include <iterator>

#include "ostra/clock.h"

namespace Keel {

TimerWheel::Notifiee::~Notifiee() { leave(); }

void TimerWheel::Notifiee::notifierIs(Ostra::Ptr<TimerWheel const> wheel) {
  leave();
  missed_ = false;
  listIs(wheel ? &wheel->notifieeList() : nullptr);
  std::swap(wheel_, wheel);
}

void TimerWheel::Notifiee::hasNotificationActiveIs(bool active) {
  NotifieeBase::hasNotificationActiveIs(active);
  if (active && std::exchange(missed_, false) && !timeMin_) timeMinIs(Ostra::now());
}

void TimerWheel::Notifiee::timeMinIs(double seconds) {
  if (!wheel_) return;
  if (!(seconds >= 0)) seconds = 0;
  if (timeMin_) wheel_->armed_.erase({*timeMin_, this});
  timeMin_ = seconds;
  armed_ = ++wheel_->asked_;
  wheel_->armed_.emplace(seconds, this);
  wheel_->earliestChanged();
}

void TimerWheel::Notifiee::leave() {
  if (!timeMin_) return;
  wheel_->armed_.erase({*timeMin_, this});
  wheel_->armed_.emplace(*timeMin_, nullptr);
  timeMin_.reset();
}

TimerWheel::~TimerWheel() = default;  // every notifiee with a wake-up holds a reference: none is left

std::optional<double> TimerWheel::earliest() const {
  if (armed_.empty()) return std::nullopt;
  return armed_.begin()->first;
}

std::optional<double> TimerWheel::earliestAfter(double time) const {
  auto at = armed_.lower_bound({time, nullptr});
  while (at != armed_.end() && at->first <= time) ++at;
  if (at == armed_.end()) return std::nullopt;
  return at->first;
}

// The first that is due and had asked by then. Wake-ups on the way whose asker has left are over.
TimerWheel::Notifiee* TimerWheel::due(double now, U64 asked) {
  for (auto at = armed_.begin(); at != armed_.end() && at->first <= now;) {
    Notifiee* const notifiee = at->second;
    if (notifiee && notifiee->armed_ <= asked) return notifiee;
    at = notifiee ? std::next(at) : armed_.erase(at);
  }
  return nullptr;
}

void TimerWheel::deliver(double now) {
  // Whatever a handler throws, the others' wake-ups stay armed.
  struct Rearm {
    Ostra::Ptr<TimerWheel> wheel;
    ~Rearm() { wheel->earliestChanged(); }
  } const rearm{this};
  U64 const asked = asked_;
  while (Notifiee* const notifiee = due(now, asked)) {
    armed_.erase({*notifiee->timeMin_, notifiee});
    notifiee->timeMin_.reset();
    if (notifiee->markedForDeletion()) continue;
    if (notifiee->hasNotificationActive())
      notifiee->onTime();
    else
      notifiee->missed_ = true;
  }
}

}  // namespace Keel
