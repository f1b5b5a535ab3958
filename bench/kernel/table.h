// SPDX-License-Identifier: Apache-2.0
// The software TCAM with a rule set, attached nowhere.
#pragma once

#include <memory>
#include <stdexcept>
#include <vector>

#include "hw/xdp/tcam.h"

namespace Bench {

inline Vantrel::EntryConfig entryOf(Acl::Rule const& rule, U32 key, U32 ti, U64 version = 1) {
  Vantrel::EntryConfig entry(Vantrel::EntryKey(key), Vantrel::OpId(version << 16), key, 0, ti);
  entry.tableIndexIs(Vantrel::TableKey(0), ti);
  U32 word = 0;
  for (U64 const w : Acl::encode(rule)) entry.dataIs(Vantrel::DataKey(word++), w);
  return entry;
}

inline void write(Hw::XdpTcam& tcam, Acl::Rule const& rule, U32 key, U32 ti, U64 version = 1) {
  if (tcam.write(entryOf(rule, key, ti, version), ti, 0).kind != Hw::Outcome::Kind::Done)
    throw std::runtime_error("the table refused an entry");
}

// Rule i has key i and lies at position i; one position is free behind the last.
inline std::unique_ptr<Hw::XdpTcam> tableOf(std::vector<Acl::Rule> const& rules) {
  auto const count = static_cast<U32>(rules.size());
  U32 const positions = std::min<U32>(count + 1, mostPositions);
  auto tcam =
      std::make_unique<Hw::XdpTcam>("hardware", Hw::XdpOptions{.positions = positions, .permits = false});
  for (U32 i = 0; i < count; ++i) write(*tcam, rules[i], i, i);
  return tcam;
}

}  // namespace Bench
