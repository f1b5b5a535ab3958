// SPDX-License-Identifier: Apache-2.0
// Metrics: what the agent counts, as OpenMetrics text: the attribute `text` of the entity `metrics`, and with
// --metrics a file for a textfile collector, replaced as a whole.
//
// Nothing is counted for the metrics alone but the time from a key's notification to its acknowledgement, of
// one key in 256: the others cost an increment and a branch. All else is read from the entities when the text
// is made.
//
// Invariants: at most `mostTimed` keys are timed at once.
// Ownership: holds references to what it reads.
// Threading: the agent's event loop.
// Cost: notified() and look() together below 5 ns a key: a branch, and for one key in 256 a read of its
//   record and some look-ups of its status; text(), some ten microseconds.
// Errors: writeTo() returns why the file could not be written.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "apps/vantreld/hardware.h"
#include "apps/vantreld/reports.h"
#include "apps/vantreld/waiting.h"

namespace Vantreld {

class Metrics : public Ostra::Described {
 public:
  struct Sources {
    Ostra::Ptr<Progress const> agent;
    Ostra::Ptr<Waiting const> waiting;
    Ostra::Ptr<Vantrel::FastVantrelImpl const> engine;
    Ostra::Ptr<Hw::Executor const> executor;
    Ostra::Ptr<Shoal::ReaderTable<Vantrel::EntryConfig> const> config;
    Ostra::Ptr<Shoal::WriterTable<Vantrel::EntryStatus> const> status;
    std::shared_ptr<Validator const> validator;
    std::function<U64()> retrying;  // keys that wait for a retry
  };
  explicit Metrics(Sources sources) : from_(std::move(sources)) {}

  // A key of the configuration table has changed.
  void notified(Vantrel::EntryKey const& key) {
    if (++notified_ % timedShare == 0 && timedCount_ < mostTimed) time(key);
  }
  // Ends the timing of those that are acknowledged by now.
  void look();
  // The loop served others between two keys.
  void sliced() { ++slices_; }

  std::string text() const;
  // Returns why it cannot be written; empty when it was.
  std::string writeTo(std::string const& path) const;

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  static constexpr std::size_t mostTimed = 16;
  static constexpr U32 timedShare = 256;      // one key in so many
  static constexpr double givenUpAfter = 60;  // seconds: counted as longer than every bucket
  static constexpr std::array bounds{0.0001, 0.0003, 0.001, 0.003, 0.01, 0.03,
                                     0.1,    0.3,    1.0,   3.0,   10.0, 30.0};
  struct Timed {
    Vantrel::EntryKey key;
    Vantrel::OpId awaited;
    double since;
  };
  void time(Vantrel::EntryKey const& key);
  void took(double seconds);

  Sources const from_;
  std::array<Timed, mostTimed> timed_{};
  std::size_t timedCount_ = 0;
  U32 notified_ = 0;
  std::array<U64, bounds.size() + 1> buckets_{};  // the last one: longer
  double sum_ = 0;
  U64 slices_ = 0;
};

}  // namespace Vantreld
