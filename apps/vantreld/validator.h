// SPDX-License-Identifier: Apache-2.0
// Validator: stands between the configuration table and the engine. A producer that keeps its rules never
// writes a record that is refused here; a broken one must neither stop the agent nor disturb what lies in
// hardware, and no more may a damaged record.
//
//   the table's record                        what the engine reads
//   good, or marked for delete, or absent     the same
//   damaged or refused, key unknown           nothing: an absent key
//   damaged or refused, key known             what it programmed last: version, handle, group, priority and
//                                             position, without data words
//
// The engine does nothing with a version that is not newer than what it programmed, so that such an entry
// stays as it is until its record is good again or goes. Its claim ends, for the record that made it is no
// more.
//
// Invariants: refused() has each key whose record was found wrong when it was read last, with the reason; of
//   more than `mostListed`, the later ones are counted only.
// Ownership: refers to the engine.
// Threading: the agent's event loop.
// Cost: a look-up of the engine's record of the key; while nothing is refused, no more.
#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "vantrel/core/mapping.h"
#include "vantrel/vantrel.h"

namespace Vantreld {

class Validator final : public Shoal::ReaderTable<Vantrel::EntryConfig>::Validator {
 public:
  using Reasons = std::map<Vantrel::EntryKey, std::string>;
  static constexpr std::size_t mostListed = 1000;

  // `report` is told of each record that is found damaged or refused, once a reason.
  // The hardware has `size` positions.
  Validator(Vantrel::Mapping mapping, U32 size, Vantrel::FastVantrelImpl const& engine,
            std::function<void(std::string const&)> report);

  // A record as it was read; `damage` says why it could not be.
  void validate(Vantrel::EntryKey const& key, Vantrel::EntryConfig& record, char const* damage) override;

  Reasons const& refused() const { return listed_; }
  U64 refusedCount() const { return refused_.size(); }

 private:
  struct KeyHash {
    std::size_t operator()(Vantrel::EntryKey const& key) const { return key.hash(); }
  };
  std::optional<std::string> fault(Vantrel::EntryConfig const& record) const;
  bool refuse(Vantrel::EntryKey const& key, std::string const& reason);
  void clear(Vantrel::EntryKey const& key);

  std::optional<std::string> outsideTheMapping(U16 pg, U32 ti) const;

  Vantrel::Mapping const mapping_;
  U32 const size_;
  Vantrel::FastVantrelImpl const& engine_;
  std::function<void(std::string const&)> const report_;
  boost::unordered_flat_set<Vantrel::EntryKey, KeyHash> refused_;
  Reasons listed_;  // of the first of them
};

}  // namespace Vantreld
