// SPDX-License-Identifier: Apache-2.0
// The rules that a configuration table wants, in order of precedence: what `vantrel ls rules` prints. A
// rule's line is its place in that list, from 1.
//
//   RuleList rules(table);
//   RuleList::Item const* item = rules.of(key);            // a key's line
//   Named const named = rules.named("edge.rules:12");      // or "7", "line:3", "@10.0.0.0/8 ..."
//
// Threading: a value; refers to nothing.
// Cost: one walk of the table and a sort when it is made.
// Errors: named(): std::runtime_error, one sentence, when nothing has that name.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "hw/acl/rule.h"
#include "vantrel/core/tables.h"

namespace VantrelCommand {

class RuleList {
 public:
  struct Item {
    std::size_t line;
    Vantrel::EntryKey key;
    U16 pg;
    U32 prio;
    U32 ti;
    Acl::Rule rule;
  };

  explicit RuleList(Vantrel::TableConfig const& table);

  std::vector<Item> const& items() const { return items_; }
  // Wanted entries whose data words are not those of a rule, and damaged records.
  U64 others() const { return others_; }
  // Null for a key that is no rule.
  Item const* of(Vantrel::EntryKey key) const;
  // "line 3", or nothing.
  std::string lineOf(Vantrel::EntryKey key) const;

  // The key that is meant by a number (a key), "line:N" (of this list), "FILE:N" (a line of a rule file), or
  // the text of a rule.
  Vantrel::EntryKey named(std::string const& name) const;

 private:
  // The `nth` entry of this rule, from 0; else one that differs in the action only.
  Vantrel::EntryKey keyOf(Acl::Rule const& rule, std::size_t nth) const;
  Vantrel::EntryKey atLine(std::string const& number) const;
  Vantrel::EntryKey inFile(std::string const& file, std::string const& number) const;

  std::vector<Item> items_;
  std::unordered_map<U64, std::size_t> lines_;  // key -> index of the item
  U64 others_ = 0;
};

}  // namespace VantrelCommand
