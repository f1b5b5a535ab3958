// SPDX-License-Identifier: Apache-2.0
// Validator: checks each record of the configuration table before the engine sees it. A producer that keeps
// its rules never writes a record that is refused here. Neither a producer that breaks them nor a damaged
// record may stop the agent or change what is in hardware.
//
//   the table's record                        what the engine reads
//   good, or marked for delete, or absent     the same
//   damaged or refused, key unknown           an absent record
//   damaged or refused, key known             what the engine programmed last: version, handle, group,
//                                             priority and position, without data words
//
// The engine does nothing with a version that is not newer than the programmed one: the entry stays as it is
// until its record is good again or is removed. Its claim ends, because the record that made it is gone.
//
// Invariants: refused() has each key whose record was refused when it was read last, with the reason. Beyond
//   `mostListed` keys the later ones are only counted.
// Ownership: refers to the engine.
// Threading: the agent's event loop.
// Cost: a look-up of the engine's record of the key; more only while some record is refused.
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

  // `size` is the number of hardware positions. `report` is called once for each reason why a record is
  // damaged or refused.
  Validator(Vantrel::Mapping mapping, U32 size, Vantrel::FastVantrelImpl const& engine,
            std::function<void(std::string const&)> report);

  // Checks `record` as it was read, and replaces it if it is refused. `damage`, if not null, says why it
  // could not be read.
  void validate(Vantrel::EntryKey const& key, Vantrel::EntryConfig& record, char const* damage) override;

  // Why the engine must not see the record, if so.
  std::optional<std::string> fault(Vantrel::EntryConfig const& record) const;

  Reasons const& refused() const { return listed_; }
  U64 refusedCount() const { return refused_.size(); }

 private:
  struct KeyHash {
    std::size_t operator()(Vantrel::EntryKey const& key) const { return key.hash(); }
  };
  bool refuse(Vantrel::EntryKey const& key, std::string const& reason);
  void clear(Vantrel::EntryKey const& key);

  std::optional<std::string> outsideTheMapping(U16 pg, U32 ti) const;

  Vantrel::Mapping const mapping_;
  U32 const size_;
  Vantrel::FastVantrelImpl const& engine_;
  std::function<void(std::string const&)> const report_;
  boost::unordered_flat_set<Vantrel::EntryKey, KeyHash> refused_;
  Reasons listed_;  // the first mostListed of refused_
};

}  // namespace Vantreld
