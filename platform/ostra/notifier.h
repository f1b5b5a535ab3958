// SPDX-License-Identifier: Apache-2.0
// Notifiers and notifiees: who watches whom, and one delivery that survives everything its watchers do.
//
// Invariants: a notifiee is on at most one notifier's list. A round of delivery reaches, in the order in
//   which they joined, the notifiees that were on the list when the round began and still are when their turn
//   comes; one that joins during the round is first told of the next change. Inactive and marked notifiees
//   are passed over.
// Ownership: neither side owns the other here; each leaves the other alone when it goes.
// Threading: the agent's thread.
// Cost: no allocation; an empty list costs one branch.
#pragma once

#include <utility>

#include "ostra/ptr.h"
#include "pallo/types.h"

namespace Ostra {

class Notifier;

class VANTREL_API NotifieeBase {
 public:
  NotifieeBase() = default;
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  virtual ~NotifieeBase();

  // Switched off, a notifiee stays on its list and hears nothing.
  bool hasNotificationActive() const { return active_; }
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

  // Marked, it ignores every notification: its owner is going.
  bool markedForDeletion() const { return marked_; }
  void markedForDeletionIs(bool marked) { marked_ = marked; }

 protected:
  // Leaves the list it is on, if any, and joins `list` (null: none).
  void listIs(Notifier* list);
  // The notifier went away while this still watched it.
  virtual void notifierGone() {}

 private:
  friend class Notifier;
  Notifier* list_ = nullptr;
  NotifieeBase* previous_ = nullptr;
  NotifieeBase* next_ = nullptr;
  U64 joined_ = 0;  // the list's round number at joining
  bool active_ = true;
  bool marked_ = false;
};

class VANTREL_API Notifier {
 public:
  Notifier() = default;
  Notifier(Notifier const&) = delete;
  Notifier& operator=(Notifier const&) = delete;
  ~Notifier();

  bool empty() const { return head_ == nullptr; }
  // Every notifiee leaves.
  void clear();

  // Calls `handler` with `args` on each notifiee. A list holds notifiees of the class that declares the
  // handlers only: NotifieeOf sees to that. The arguments must outlive the round.
  template <class NotifieeT, class... Params, class... Args>
  void notify(void (NotifieeT::*handler)(Params...), Args const&... args) {
    if (empty()) return;
    Round round(*this);
    while (NotifieeBase* notifiee = round.next()) (static_cast<NotifieeT*>(notifiee)->*handler)(args...);
  }

 private:
  // One delivery in progress; rounds nest when a handler changes what it watches.
  class VANTREL_API Round {
   public:
    explicit Round(Notifier& list);
    Round(Round const&) = delete;
    Round& operator=(Round const&) = delete;
    ~Round();
    NotifieeBase* next();  // null at the end, and once the notifier is gone

   private:
    friend class Notifier;
    Notifier* list_;
    NotifieeBase* upcoming_;
    U64 number_;
    Round* outer_;
  };

  friend class NotifieeBase;
  void add(NotifieeBase& notifiee);
  void remove(NotifieeBase& notifiee);

  NotifieeBase* head_ = nullptr;
  NotifieeBase* tail_ = nullptr;
  Round* rounds_ = nullptr;
  U64 roundsBegun_ = 0;
};

// The common part of a class's Notifiee: it refers to the notifier it watches and can be pointed at another.
template <class NotifierT>
class NotifieeOf : public NotifieeBase {
 public:
  Ptr<NotifierT> const& notifier() const { return notifier_; }

  // Watches `notifier` from now on, or nothing (null). Tells nobody by itself.
  void notifierIs(Ptr<NotifierT> notifier) {
    listIs(notifier ? &notifier->notifieeList() : nullptr);
    std::swap(notifier_, notifier);
  }

 private:
  Ptr<NotifierT> notifier_;
};

}  // namespace Ostra
