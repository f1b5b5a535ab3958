// SPDX-License-Identifier: Apache-2.0
#include "keel/timer_wheel.h"

namespace Keel {

TimerWheel::Notifiee::~Notifiee() { disarm(); }

void TimerWheel::Notifiee::notifierIs(Ostra::Ptr<TimerWheel const> wheel) {
  disarm();
  listIs(wheel ? &wheel->notifieeList() : nullptr);
  std::swap(wheel_, wheel);
}

void TimerWheel::Notifiee::timeMinIs(double seconds) {
  if (!wheel_) return;
  if (timeMin_) wheel_->armed_.erase({*timeMin_, this});
  timeMin_ = seconds;
  wheel_->armed_.emplace(seconds, this);
  wheel_->earliestChanged();
}

void TimerWheel::Notifiee::disarm() {
  if (!timeMin_) return;
  wheel_->armed_.erase({*timeMin_, this});
  timeMin_.reset();
  wheel_->earliestChanged();
}

TimerWheel::~TimerWheel() = default;  // every notifiee with a wake-up holds a reference: none is left

std::optional<double> TimerWheel::earliest() const {
  if (armed_.empty()) return std::nullopt;
  return armed_.begin()->first;
}

void TimerWheel::deliver(double now) {
  Ostra::Ptr<TimerWheel> const keep(this);
  while (!armed_.empty() && armed_.begin()->first <= now) {
    Notifiee* const notifiee = armed_.begin()->second;
    armed_.erase(armed_.begin());
    notifiee->timeMin_.reset();
    if (notifiee->hasNotificationActive() && !notifiee->markedForDeletion()) notifiee->onTime();
  }
  earliestChanged();
}

}  // namespace Keel
