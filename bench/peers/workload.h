// SPDX-License-Identifier: Apache-2.0
// Workload: what a producer writes while a rule file is loaded and edited, edit by edit, recorded once so
// that every programmer gets the same.
//
// The edits, five rounds of them, one for thousands of rules: rules come in at random places, rules go,
// actions change, entries of equal priority trade places in rings, a block of rules is turned round. A
// twentieth of the rules each; the row has a quarter more positions than the file has rules.
//
// Ownership: values only.
// Threading: one thread.
// Cost: making one loads and edits the rules once.
#pragma once

#include <string>
#include <vector>

#include "bench/peers/programmer.h"

namespace Bench {

struct Write {
  Vantrel::EntryConfig entry;
  bool removed = false;  // the record has gone
};

struct Edit {
  std::string name;
  std::vector<Write> writes;
  std::vector<bool> wanted;  // by match: some entry has it when the edit is complete
};

struct Workload {
  U32 size = 0;  // positions
  std::vector<Edit> edits;
  boost::unordered_flat_map<U64, Match> matchOf;  // by key
  Row::Contents final;

  U64 writes() const;
  // `guarded`: with the row counting absences.
  void run(Programmer& programmer, Row& row, bool guarded) const;
};

// Of the rule file at `path`.
Workload workload(std::string const& path);

// The rule sets, name and path: "edge_filter" is always there, the others need not be.
std::vector<std::pair<std::string, std::string>> ruleSets();

}  // namespace Bench
