// SPDX-License-Identifier: Apache-2.0
#include "producer/broken_rule.h"

#include <fmt/format.h>

namespace Vantrel {

std::string_view ruleText(ProducerRule rule) {
  switch (rule) {
    case ProducerRule::KnownKey:
      return "only a key in the table can be deleted or moved";
    case ProducerRule::NoDeleteMarker:
      return "a wanted entry carries no delete marker";
    case ProducerRule::OneTableIndex:
      return "an entry has exactly one table index";
    case ProducerRule::Mapping:
      return "position and group lie inside the engine's mapping";
    case ProducerRule::UniqueHandle:
      return "a handle belongs to one key";
    case ProducerRule::ConstantHandle:
      return "a key keeps its handle";
    case ProducerRule::ConstantGroup:
      return "a key keeps its group";
    case ProducerRule::ConstantPriority:
      return "a key keeps its priority";
    case ProducerRule::RisingVersion:
      return "OpIds rise across the whole table";
    case ProducerRule::VersionRange:
      return "an OpId stays below the mark of an acknowledged delete";
    case ProducerRule::LowPartChanges:
      return "the low 16 bits of the OpId change when match or action change";
    case ProducerRule::LowPartStays:
      return "the low 16 bits of the OpId stay when match and action stay";
  }
  return "unknown rule";
}

BrokenRule::BrokenRule(ProducerRule rule, EntryKey key, std::string const& values)
    : Exception(fmt::format("key {} was refused because {}: {}", key.value(), ruleText(rule), values)),
      rule_(rule),
      key_(key) {}

}  // namespace Vantrel
