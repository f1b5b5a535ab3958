// SPDX-License-Identifier: Apache-2.0
// Show: a producer at work before an agent, and what the two of them did.
//
// Every figure is from the run: times are taken at the write and at the acknowledgement's notification,
// counts are those of the agent's hardware, and the picture is the hardware's row.
//
// Ownership: the one writer of the directory's configuration table.
// Threading: one thread.
// Errors: std::runtime_error when the agent cannot be asked, or takes longer than `patience` for one step.
#pragma once

#include <chrono>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "apps/demo/edits.h"
#include "apps/demo/picture.h"
#include "producer/acknowledgements.h"
#include "producer/producer.h"
#include "producer/shared_tables.h"

namespace Demo {

class Show {
 public:
  Show(std::string dir, Vantrel::Mapping mapping, U32 size, double patience);

  // Brings the table to the rules and waits until every change is acknowledged.
  void load(std::string const& what, Rules const& rules);
  // Lets entries of equal priority trade places, two to four at a time, so that each waits for the next.
  void tradePlaces(std::size_t rings);
  // Prints table and picture; true when every entry is acknowledged and the order held at every step.
  bool report(std::size_t columns, bool colours);

 private:
  using Clock = std::chrono::steady_clock;
  using Entries = std::vector<Vantrel::EntryConfig>;

  void await(Vantrel::EntryKey key);
  void acknowledged(Vantrel::EntryKey key);
  void untilDone(Clock::time_point deadline);
  void said(std::string const& what, U64 writes, Clock::time_point started) const;
  Entries wanted() const;
  std::vector<Entries> equals() const;
  void rotate(Entries const& ring);
  std::vector<Placed> hardwareRow() const;
  U64 unacknowledged() const;

  std::string const dir_;
  U32 const size_;
  double const patience_;  // seconds
  Vantrel::SharedTables tables_;
  Vantrel::Producer producer_;
  Vantrel::Acknowledgements acknowledgements_;
  std::unordered_map<U64, Clock::time_point> written_;
  std::vector<double> milliseconds_;  // from a write to its acknowledgement
};

}  // namespace Demo
