// SPDX-License-Identifier: Apache-2.0
// Show: the demo's producer, and its report of what producer and agent did.
//
// Every figure is measured in the run: times from the write to the acknowledgement's notification, counts
// read from the agent's hardware, the picture drawn from the hardware's row.
//
// Ownership: the one writer of the directory's configuration table.
// Threading: one thread.
// Errors: std::runtime_error when the agent cannot be reached, or takes longer than `patience` for one step.
#pragma once

#include <chrono>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "apps/demo/edits.h"
#include "apps/demo/picture.h"
#include "apps/vantrel/acl/loader.h"
#include "producer/acknowledgements.h"
#include "producer/planner/planner.h"
#include "producer/producer.h"
#include "producer/shared_tables.h"

namespace Demo {

class Show {
 public:
  Show(std::string dir, Vantrel::Mapping mapping, U32 size, double patience);

  // Changes the table so that it holds the rules, and waits until every change is acknowledged.
  void load(std::string const& what, Rules const& rules);
  // Lets entries of equal priority trade places, two to four at a time, so that each waits for the next.
  void tradePlaces(std::size_t rings);
  // Prints figures and picture. Returns whether every entry is acknowledged and the order held at every step.
  bool report(std::size_t columns, bool colours);

 private:
  using Clock = std::chrono::steady_clock;
  using Entries = std::vector<Vantrel::EntryConfig>;

  void await(Vantrel::EntryKey key);
  void acknowledged(Vantrel::EntryKey key);
  void untilDone(Clock::time_point deadline);
  void said(std::string const& what, U64 writes, Clock::time_point started) const;
  void plan(Rules const& rules);
  Entries wanted() const;
  std::vector<Entries> interchangeable() const;
  void rotate(Entries const& ring);
  std::vector<Placed> hardwareRow() const;

  std::string const dir_;
  U32 const size_;
  double const patience_;  // seconds
  Vantrel::SharedTables tables_;
  Vantrel::Producer producer_;
  Vantrel::Acknowledgements acknowledgements_;
  std::unordered_map<U64, Clock::time_point> written_;  // key -> when; until it is acknowledged
  std::vector<double> milliseconds_;                    // from a write to its acknowledgement
  Acl::Loader::Counts loaded_;                          // what the lists took
  Planning::Planner planner_;                           // the same lists, placed by their overlaps
  Acl::Loader::Counts planned_;                         // what they would have taken so
};

}  // namespace Demo
