// SPDX-License-Identifier: Apache-2.0
#include "ostra/notifier.h"

namespace Ostra {

NotifieeBase::~NotifieeBase() { listIs(nullptr); }

void NotifieeBase::listIs(Notifier* list) {
  if (list_) list_->remove(*this);
  if (list) list->add(*this);
}

Notifier::~Notifier() {
  clear();
  for (Round* round = rounds_; round; round = round->outer_) round->list_ = nullptr;
}

void Notifier::clear() {
  while (head_) {
    NotifieeBase* gone = head_;
    remove(*gone);
    gone->notifierGone();
  }
}

void Notifier::add(NotifieeBase& notifiee) {
  notifiee.list_ = this;
  notifiee.joined_ = roundsBegun_;
  notifiee.previous_ = tail_;
  notifiee.next_ = nullptr;
  (tail_ ? tail_->next_ : head_) = &notifiee;
  tail_ = &notifiee;
}

void Notifier::remove(NotifieeBase& notifiee) {
  for (Round* round = rounds_; round; round = round->outer_)
    if (round->upcoming_ == &notifiee) round->upcoming_ = notifiee.next_;
  (notifiee.previous_ ? notifiee.previous_->next_ : head_) = notifiee.next_;
  (notifiee.next_ ? notifiee.next_->previous_ : tail_) = notifiee.previous_;
  notifiee.list_ = nullptr;
  notifiee.previous_ = notifiee.next_ = nullptr;
}

Notifier::Round::Round(Notifier& list)
    : list_(&list),
      upcoming_(list.head_),
      number_(++list.roundsBegun_),
      outer_(std::exchange(list.rounds_, this)) {}

Notifier::Round::~Round() {
  if (list_) list_->rounds_ = outer_;
}

NotifieeBase* Notifier::Round::next() {
  while (list_ && upcoming_) {
    NotifieeBase* notifiee = std::exchange(upcoming_, upcoming_->next_);
    if (notifiee->joined_ >= number_) return nullptr;  // it and all behind it joined during this round
    if (notifiee->active_ && !notifiee->marked_) return notifiee;
  }
  return nullptr;
}

}  // namespace Ostra
