// SPDX-License-Identifier: Apache-2.0
// TimerWheel: one wake-up at an absolute time per notifiee, on the clock of Ostra::now().
//
// Invariants: a notifiee has at most one wake-up armed; it is delivered once, not before its time, and in
//   order of time. Asking again replaces it. A notifiee that goes, is pointed elsewhere or marked for
//   deletion is not woken; what it asked for stays armed on the wheel, and finds nobody when its time comes.
// Ownership: the wheel refers to its notifiees, they own the reference to the wheel.
// Threading: the agent's event loop, which calls what the concrete wheel offers (TimerfdWheel, VirtualWheel).
// Cost: logarithmic in the wake-ups armed.
// Errors: a time that is none, or is past, means now.
#pragma once

#include <optional>
#include <set>
#include <utility>

#include "ostra/notifier.h"
#include "ostra/ptr.h"

namespace Keel {

class VANTREL_API TimerWheel : public Ostra::PtrInterface {
 public:
  class VANTREL_API Notifiee : public Ostra::NotifieeBase {
   public:
    ~Notifiee() override;
    virtual void onTime() {}
    // A wake-up that came while it was switched off comes when it is switched on again.
    void hasNotificationActiveIs(bool active) override;

    Ostra::Ptr<TimerWheel const> const& notifier() const { return wheel_; }
    // Watches another wheel, or none (null). A wake-up that is armed stays with the old wheel, for nobody.
    void notifierIs(Ostra::Ptr<TimerWheel const> wheel);

    // The armed wake-up's time in seconds, if any.
    std::optional<double> timeMin() const { return timeMin_; }
    // Asks for onTime at `seconds` or as soon after as the loop allows; what is no time or before zero is
    // now. Does nothing without a wheel.
    void timeMinIs(double seconds);

   private:
    friend class TimerWheel;
    void leave();
    Ostra::Ptr<TimerWheel const> wheel_;
    std::optional<double> timeMin_;
    U64 armed_ = 0;        // the wheel's count of askings when this one asked
    bool missed_ = false;  // a wake-up came while it was switched off
  };

  ~TimerWheel() override;
  Ostra::Notifier& notifieeList() const { return notifiees_; }
  // The earliest armed wake-up, if any.
  std::optional<double> earliest() const;

 protected:
  // Delivers every wake-up due at `now`, in order of time. One that is asked for meanwhile waits for the next
  // call.
  void deliver(double now);
  // The earliest wake-up after `time`, if any.
  std::optional<double> earliestAfter(double time) const;
  // The earliest wake-up changed.
  virtual void earliestChanged() const {}

 private:
  mutable Ostra::Notifier notifiees_;
  Notifiee* due(double now, U64 asked);

  mutable std::set<std::pair<double, Notifiee*>> armed_;  // null: whoever asked has left
  mutable U64 asked_ = 0;                                 // how often a wake-up was asked for
};

}  // namespace Keel
