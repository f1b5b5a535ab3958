// SPDX-License-Identifier: Apache-2.0
// Waiting: names what waits too long, once, with its reason: in the log, and to whoever asks.
//
// Invariants: overdue() has the keys that were found waiting for at least warnAfter() seconds when they were
//   looked at last, up to `mostListed`; overdueCount() counts all of them.
// Ownership: refers to the engine and the log.
// Threading: the agent's event loop.
// Cost: look() asks the engine for at most `slice` keys a call, for none while nobody waits.
// Errors: Ostra::AttributeException for a time that is none.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <unordered_set>

#include "apps/vantreld/log.h"
#include "vantrel/vantrel.h"

namespace Vantreld {

class Waiting : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<Waiting const> {
   public:
    virtual void onWarnAfter() {}
    virtual void onOverdueCount() {}
    virtual void onOldest() {}
  };
  using Reasons = std::map<Vantrel::EntryKey, std::string>;
  static constexpr std::size_t mostListed = 100;
  static constexpr std::size_t slice = 16384;

  explicit Waiting(Log& err) : Entity("waiting"), err_(err) {}

  // Goes on with the table's keys where the last call ended. Must be called about once a second.
  void look(Vantrel::FastVantrelImpl const& engine, Vantrel::TableConfig const& wanted);

  // Seconds that an entry may wait before it is named.
  U32 warnAfter() const { return warnAfter_; }
  void warnAfterIs(U32 seconds);
  Reasons const& overdue() const { return overdue_; }
  U64 overdueCount() const { return overdueCount_; }
  // Seconds that the oldest claim waits.
  U64 oldest() const { return oldest_; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  struct KeyHash {
    std::size_t operator()(Vantrel::EntryKey const& key) const { return key.hash(); }
  };
  using Keys = std::unordered_set<Vantrel::EntryKey, KeyHash>;

  void lookAt(Vantrel::FastVantrelImpl const& engine, Vantrel::EntryKey key, U64 now);
  void endPass();
  std::optional<Vantrel::TableConfig::Place> step(Vantrel::TableConfig const& wanted);

  Log& err_;
  U32 warnAfter_ = 60;
  std::optional<Vantrel::TableConfig::Place> last_;  // that the pass met; none: it begins
  std::string damage_;                               // of the table, that was said last
  // Of the pass that is under way, and of the last complete one.
  U64 oldestMet_ = 0, oldest_ = 0;
  U64 overdueCount_ = 0;
  Keys met_, named_;
  Reasons listed_, overdue_;
};

}  // namespace Vantreld
