// SPDX-License-Identifier: Apache-2.0
// The front end's watchers, one for each input: each refers to its input and back to the front end.
//
// Invariants: a reactor that is marked for deletion, or dropped by its owner, ignores every notification.
// Ownership: the front end owns its reactors. A handler may drop its own reactor and even the front end: both
//   are kept alive while it runs.
// Threading: the agent's event loop.
// Cost: two reference counts for each notification.
#pragma once

#include "vantrel/core/trace.h"
#include "vantrel/sm/vantrel_sm.h"

#define SM_TRACE_ENTRY(operation) VANTREL_TRACE_ENTRY(vantrelSmTrace(), 8, "Vantrel", operation)

namespace Vantrel {

template <class NotifieeT, class Input>
class VANTREL_LOCAL VantrelSm::Reactor : public NotifieeT, public Ostra::PtrInterface {
 public:
  Reactor(VantrelSm* owner, Ostra::Ptr<Input> input) : owner_(owner) { this->notifierIs(std::move(input)); }
  void ownerIsGone() {
    this->markedForDeletionIs(true);
    owner_ = nullptr;
  }

 protected:
  template <class Call>
  void call(Call handler) {
    if (this->markedForDeletion() || !owner_) return;
    Ostra::Ptr<Reactor> const keepReactor(this);
    VantrelSm& owner = *owner_;
    auto const keepOwner = Ostra::keepAlive(&owner);  // does nothing while the owner is being constructed
    handler(owner);
  }

 private:
  VantrelSm* owner_;
};

class VANTREL_LOCAL VantrelSm::TableReactor : public Reactor<TableConfig::Notifiee, TableConfig const> {
 public:
  using Reactor::Reactor;
  void onEntry(EntryKey const& key) override {
    call([key](VantrelSm& sm) { sm.handleEntry(key); });
  }
  void onEntryColl() override {
    call([](VantrelSm& sm) { sm.handleEntry(); });
  }
  // This walk replaces the one that watching begins with, so that the table is walked once.
  void inputReplaced() {
    call([](VantrelSm& sm) { sm.handleEntry(); });
    synchronizedIs(hasNotificationActive() && !markedForDeletion());
  }
};

class VANTREL_LOCAL VantrelSm::DebugReactor : public Reactor<DebugConfig::Notifiee, DebugConfig const> {
 public:
  using Reactor::Reactor;
  void onVersion() override { inputReplaced(); }
  void inputReplaced() {
    call([](VantrelSm& sm) { sm.handleDebug(); });
  }
};

class VANTREL_LOCAL VantrelSm::TimerReactor
    : public Reactor<Keel::TimerWheel::Notifiee, Keel::TimerWheel const> {
 public:
  using Reactor::Reactor;
  void onTime() override { inputReplaced(); }
  void inputReplaced() {
    call([](VantrelSm& sm) { sm.handleRetry(); });
  }
};

}  // namespace Vantrel
