// SPDX-License-Identifier: Apache-2.0
// BrokenRule: a write was refused because it breaks a rule that every producer must keep. Nothing was
// written.
#pragma once

#include <string>
#include <string_view>

#include "pallo/exception.h"
#include "vantrel/core/entry.h"

namespace Vantrel {

enum class ProducerRule {
  KnownKey,          // what is deleted or moved is in the table
  NoDeleteMarker,    // a wish is not a delete
  OneTableIndex,     // an entry has exactly one position
  Mapping,           // position and group lie inside the engine's mapping
  UniqueHandle,      // no two keys share a handle: the engine deletes the former owner
  ConstantHandle,    // a key keeps its handle
  ConstantGroup,     // a key keeps its group: the engine keeps the first
  ConstantPriority,  // a key keeps its priority: the engine keeps the first
  RisingVersion,     // OpIds rise across the whole table: the greater one wins a position
  VersionRange,      // an OpId stays below the mark of an acknowledged delete
  LowPartChanges,    // the low 16 bits of the OpId change with match or action, or the engine writes nothing
  LowPartStays,      // ... and only with them, or a pure move is written twice
};

// The rule in words, for messages.
VANTREL_API std::string_view ruleText(ProducerRule rule);

class VANTREL_API BrokenRule : public Pallo::Exception {
 public:
  BrokenRule(ProducerRule rule, EntryKey key, std::string const& values);
  ProducerRule rule() const { return rule_; }
  EntryKey key() const { return key_; }

 private:
  ProducerRule rule_;
  EntryKey key_;
};

}  // namespace Vantrel
